// File operations: the line reader.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "tovi_fileops.h"

namespace {

// A descriptor reading `text` from a pipe-free, seekable temporary file.
class TextFile {
public:
    explicit TextFile(const std::string &text)
    {
        char name[] = "/tmp/tovi_fileops_XXXXXX";
        fd_ = mkstemp(name);
        unlink(name);
        if (fd_ >= 0) {
            EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
            lseek(fd_, 0, SEEK_SET);
        }
    }
    ~TextFile() { close(fd_); }
    int fd() const { return fd_; }
    off_t offset() const { return lseek(fd_, 0, SEEK_CUR); }

private:
    int fd_ = -1;
};

std::vector<std::string> read_lines(int fd, int32_t size)
{
    std::vector<std::string> out;
    std::vector<char> buf(static_cast<size_t>(size));
    while (char *line = tovi_readline(fd, buf.data(), size)) {
        EXPECT_EQ(line, buf.data());
        out.emplace_back(line);
    }
    return out;
}

}  // namespace

TEST(Readline, DropsCarriageReturnsAndKeepsLineFeeds)
{
    TextFile f("a=1\r\n\r\nb\r=2\r\r\nlast");
    EXPECT_EQ(read_lines(f.fd(), 64), (std::vector<std::string>{"a=1\n", "\n", "b=2\n", "last"}));
}

TEST(Readline, StopsJustAfterTheLineFeed)
{
    TextFile f("one\ntwo\n");
    char buf[16];
    ASSERT_NE(tovi_readline(f.fd(), buf, sizeof buf), nullptr);
    EXPECT_EQ(f.offset(), 4);  // the next reader of the descriptor starts at "two"
}

TEST(Readline, CutsALineAtSizeMinusOneAndTerminatesTheLastByte)
{
    TextFile f("abcdefg\nh\n");
    char buf[4];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_NE(tovi_readline(f.fd(), buf, 4), nullptr);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(read_lines(f.fd(), 4), (std::vector<std::string>{"def", "g\n", "h\n"}));

    TextFile g("ab\n");
    char wide[8];
    std::memset(wide, 'x', sizeof wide);
    ASSERT_NE(tovi_readline(g.fd(), wide, sizeof wide), nullptr);
    EXPECT_EQ(std::string(wide, 3), "ab\n");
    EXPECT_EQ(wide[3], '\0');
    EXPECT_EQ(wide[4], 'x');  // untouched between the terminator and the last byte
    EXPECT_EQ(wide[7], '\0');
}

TEST(Readline, NothingStoredIsNull)
{
    TextFile f("x\n");
    char buf[4] = {'q', 'q', 'q', 'q'};
    EXPECT_EQ(tovi_readline(f.fd(), buf, 1), nullptr);  // room for the terminator only
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(f.offset(), 0);
    EXPECT_EQ(tovi_readline(f.fd(), buf, 0), nullptr);
    EXPECT_EQ(tovi_readline(f.fd(), nullptr, 4), nullptr);

    TextFile crs("\r\r\r");
    EXPECT_EQ(tovi_readline(crs.fd(), buf, sizeof buf), nullptr);  // carriage returns are never stored
    EXPECT_EQ(tovi_readline(-1, buf, sizeof buf), nullptr);          // a read error ends the line
}
