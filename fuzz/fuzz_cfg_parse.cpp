// Fuzzes the line parser: any bytes load into a well-formed node whose
// written form parses back to itself, and the block line reader cuts the
// bytes exactly as tovi_readline does.
#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_cfg_support.hpp"
#include "tovi_fileops.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::quiet();
    return 0;
}

namespace {

void check_line_reader(const uint8_t *data, size_t size, size_t block, size_t line_max)
{
    std::vector<std::string> expected;
    int fd = fuzz::memory_file(data, size);
    std::vector<char> buf(line_max + 1);
    while (tovi_readline(fd, buf.data(), static_cast<int32_t>(buf.size())) != nullptr) {
        std::string line(buf.data());
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        expected.push_back(line);
    }
    close(fd);

    fd = fuzz::memory_file(data, size);
    tovi::cfg::LineReader reader(fd, block, line_max);
    if (!reader.start())
        abort();
    size_t n = 0;
    char *line;
    size_t len;
    while (reader.next(&line, &len) == 1) {
        // NUL bytes inside a line end tovi_readline's text early: compare as C strings.
        if (n >= expected.size() || expected[n] != line)
            abort();
        ++n;
    }
    close(fd);
    if (n != expected.size())
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    CfgFileNode *node = fuzz::parse(text);
    fuzz::check_node(node);
    fuzz::check_round_trip(node);
    tovi::cfg::free_file_node(node);

    if (size > 0 && size < 4096) {
        size_t line_max = 2 + data[0] % 32;
        size_t block = 1 + data[size - 1] % line_max;
        check_line_reader(data, size, block, line_max);
    }
    return 0;
}
