// Configuration files: the parser's rules, the loaded-file list and its
// lookups, the editors (files checked byte for byte) and the in-place writer.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_companion.hpp"
#include "tovi_fileops.h"
#include "tovi_mem.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

constexpr unsigned kError = 3;
constexpr unsigned kDebug = 7;
constexpr int kNoSpace = 406;  // the bounded-copy library's ESNOSPC

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(static_cast<size_t>(n) + 1, '\0');
    va_start(ap, fmt);
    std::vsnprintf(out.data(), out.size(), fmt, ap);
    va_end(ap);
    out.pop_back();
    return out;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// Bytes the library holds for module 381 (the user companion's table).
uint64_t cfg_bytes()
{
    static uint64_t *table = [] {
        tovi_freesub(TOVI_MALLOC(TOVI_MODULE_ID, 1), __func__, __LINE__);  // the table is set up on first use
        uint64_t *t = nullptr;
        tovi::companion::syscall(tovi::companion::kCmdMemTable, reinterpret_cast<long>(&t));
        return t;
    }();
    return table != nullptr ? __atomic_load_n(&table[TOVI_MODULE_ID], __ATOMIC_ACQUIRE) : 0;
}

// Long texts shortened for comparison, so that a failure stays readable.
Texts brief(const Texts &texts)
{
    Texts out;
    for (const std::string &t : texts)
        out.push_back(t.size() <= 160 ? t
                                      : t.substr(0, 60) + "...<" + std::to_string(t.size()) + " bytes, hash " +
                                            std::to_string(std::hash<std::string>{}(t)) + ">..." +
                                            t.substr(t.size() - 60));
    return out;
}

// The logging library keeps only the start of a very long message: each
// text is the start of the expected one, long enough to tell them apart.
::testing::AssertionResult starts_of(const Texts &got, const Texts &expected)
{
    if (got.size() != expected.size())
        return ::testing::AssertionFailure() << got.size() << " messages, expected " << expected.size();
    for (size_t i = 0; i < got.size(); ++i)
        if (got[i].size() < 1000 || expected[i].compare(0, got[i].size(), got[i]) != 0)
            return ::testing::AssertionFailure() << "message " << i << ": " << brief({got[i]})[0];
    return ::testing::AssertionSuccess();
}

std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> out;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

int32_t render_visit(const char *section, const char *item, const char *value, void *arg)
{
    auto *out = static_cast<std::string *>(arg);
    if (item == nullptr)
        *out += std::string("[") + section + "]\n";
    else
        *out += std::string(item) + "=" + value + "\n";
    return 0;
}

// The loaded file of that path in its written form; "<not loaded>" if none.
std::string loaded(const std::string &path)
{
    std::string out;
    if (tovi_cfg_walk(path.c_str(), render_visit, &out) != 0)
        return "<not loaded>";
    return out;
}

std::string value_ex(const std::string &path, const char *section, const char *item)
{
    static std::vector<char> buf(TOVI_CFG_VALUE_MAX);
    int32_t ret = tovi_cfg_getItemValue_ex(path.c_str(), section, item, buf.data(), static_cast<uint32_t>(buf.size()));
    return ret == 0 ? std::string(buf.data()) : "<" + std::to_string(ret) + ">";
}

class Cfg : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tovi_cfg_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }

    void TearDown() override
    {
        tovi::cfg::fail_allocation(0);
        tovi_cfg_destroy();
        std::filesystem::remove_all(dir_);
    }

    std::string path(const std::string &name) const { return dir_ + "/" + name; }

    // Writes the text to a file and returns its parsed, written form.
    std::string parsed(const std::string &text)
    {
        std::string p = path("parsed.ini");
        spit(p, text);
        EXPECT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
        std::string out = loaded(p);
        tovi_cfg_destroy_ex(p.c_str());
        return out;
    }

    std::string dir_;
};

// ---- The parser ----

TEST_F(Cfg, LineRulesDecideSectionsItemsAndComments)
{
    const std::string k63(63, 'k');
    const std::string k64(64, 'k');
    const std::string s63(63, 's');
    const std::string s64(64, 's');
    const std::vector<std::pair<std::string, std::string>> cases = {
        // Items before any header are in "NULL", which an explicit header joins.
        {"a=1\n[S]\nb=2\n", "[NULL]\na=1\n[S]\nb=2\n"},
        {"b=2\n[NULL]\na=1\n", "[NULL]\nb=2\na=1\n"},
        // Headers: trimmed inside, first column only, letters digits '_' only, at most 65 bytes.
        {"[]\nk=v\n", "[]\nk=v\n"},
        {"[ S_1 ]  \r\nk=v\n", "[S_1]\nk=v\n"},
        {"[\tS\t]\nk=v\n", "[S]\nk=v\n"},
        {"[a b]\nk=v\n", "[NULL]\nk=v\n"},
        {" [S]\nk=v\n", "[NULL]\nk=v\n"},
        {"[S]x\nk=v\n", "[NULL]\nk=v\n"},
        {"[S-1]\nk=v\n", "[NULL]\nk=v\n"},
        {"[" + s63 + "]\nk=v\n", "[" + s63 + "]\nk=v\n"},
        {"[A]\n[" + s64 + "]\nk=v\n", "[A]\nk=v\n"},
        {"[Empty]\n[S]\nk=v\n", "[S]\nk=v\n"},
        // Items: split at the first '=', both sides trimmed, value verbatim inside.
        {"[S]\nk = x=y z \n", "[S]\nk=x=y z\n"},
        {"[S]\nk=\n", "[S]\nk=\n"},
        {"[S]\nk==v\n", "[S]\nk==v\n"},
        {"[S]\n\tkey\t=\tv a l\t \r\n", "[S]\nkey=v a l\n"},
        {"[S]\n" + k63 + "=1\n", "[S]\n" + k63 + "=1\n"},
        {"[S]\n" + k64 + "=1\n", ""},
        {"[S]\nk.1=1\nk 1=2\n =3\nk\n", ""},
        // Comments and '#' lines.
        {"[S]\n;c=1\n=x\n#a=b\n# note\nk=v\n", "[S]\nk=v\n"},
        // Blank lines, carriage returns anywhere, no final line feed.
        {"\n  \t \n[S]\r\n\r\nk=a\rb\r\r\n", "[S]\nk=ab\n"},
        {"[S]\nk=v", "[S]\nk=v\n"},
        // Later duplicates win and move to the end; headers merge into the first.
        {"[S]\nk=1\nj=2\nk=3\n", "[S]\nj=2\nk=3\n"},
        {"[A]\nx=1\n[B]\ny=2\n[A]\nz=3\nx=4\n", "[A]\nz=3\nx=4\n[B]\ny=2\n"},
        // Names are case-sensitive.
        {"[s]\nk=1\nK=2\n[S]\nk=3\n", "[s]\nk=1\nK=2\n[S]\nk=3\n"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(parsed(text), expected) << "input: " << text;
}

TEST_F(Cfg, LongLinesAreCutAtTheLineLimitAndLongValuesRefused)
{
    const size_t limit = TOVI_CFG_LINE_MAX;  // 4194369
    std::string p = path("long.ini");

    // The longest value kept, and one byte more.
    std::string ok(TOVI_CFG_VALUE_MAX - 1, 'v');
    std::string too_long(TOVI_CFG_VALUE_MAX, 'w');
    spit(p, "[S]\na=" + ok + "\nb=" + too_long + "\n");
    {
        LogCapture cap;
        ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
        EXPECT_TRUE(value_ex(p, "S", "a") == ok);
        EXPECT_EQ(value_ex(p, "S", "b"), "<-1>");
        EXPECT_TRUE(starts_of(cap.texts(kError), {"copy item (b=" + too_long + ") fail in parse item."}));
    }

    // A line of exactly the limit is dropped; its line feed makes an empty line.
    std::string full = "k=" + std::string(limit - 2, 'x');
    // Longer: the first `limit` bytes are one (dropped) line, the rest the next line.
    std::string split = "j=" + std::string(limit - 2, 'y') + "c=3";
    // Carriage returns do not count: with them this line is longer than the
    // limit, without them it is not.
    std::string with_cr;
    with_cr.reserve(TOVI_CFG_VALUE_MAX + TOVI_CFG_VALUE_MAX / 999);
    const std::string piece = std::string(999, 'z') + "\r";
    while (with_cr.size() + piece.size() < TOVI_CFG_VALUE_MAX + TOVI_CFG_VALUE_MAX / 999)
        with_cr += piece;
    with_cr.append(TOVI_CFG_VALUE_MAX - 4 - (with_cr.size() / piece.size()) * 999, 'z');
    ASSERT_GT(with_cr.size() + 3, limit);
    spit(p, "[S]\n" + full + "\nb=2\n" + split + "\nd=" + with_cr + "\n");
    {
        LogCapture cap;
        ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
        EXPECT_EQ(value_ex(p, "S", "k"), "<-1>");
        EXPECT_EQ(value_ex(p, "S", "b"), "2");
        EXPECT_EQ(value_ex(p, "S", "j"), "<-1>");
        EXPECT_EQ(value_ex(p, "S", "c"), "3");
        std::string d = value_ex(p, "S", "d");
        EXPECT_EQ(brief({d}), brief({std::string(TOVI_CFG_VALUE_MAX - 4, 'z')}));
        const char *fmt = "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.";
        EXPECT_TRUE(starts_of(cap.texts(kDebug), {format(fmt, static_cast<int>(limit), full.c_str(), 4194368),
                                                  format(fmt, static_cast<int>(limit),
                                                         split.substr(0, limit).c_str(), 4194368)}));
        EXPECT_EQ(brief(cap.texts(kError)), Texts{});
    }
    // Leading blanks do not count either: one byte short of the limit is kept.
    spit(p, "[S]\n" + std::string(limit - 4, ' ') + "e=5\n");
    ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
    EXPECT_EQ(value_ex(p, "S", "e"), "5");
}

// ---- Loaded files ----

TEST_F(Cfg, LoadingFailuresAreReported)
{
    LogCapture cap;
    EXPECT_EQ(tovi_cfg_init_ex(nullptr), -1);
    std::string missing = path("missing.ini");
    EXPECT_EQ(tovi_cfg_init_ex(missing.c_str()), -1);
    std::string long_path = "/" + std::string(255, 'p');
    EXPECT_EQ(tovi_cfg_init(long_path.c_str()), -1);
    EXPECT_EQ(cap.texts(), (Texts{"Input File is NULL pointer.",
                                  format("Open file (%s) failed, fd -1 errno %d", missing.c_str(), ENOENT),
                                  format("Parse config file %s failed.", missing.c_str()),
                                  "File name length too long.",
                                  format("Parse config file %s failed.", long_path.c_str())}));
    EXPECT_EQ(cap.records()[0].level, 6u);
    EXPECT_EQ(cap.records()[1].level, 3u);
    EXPECT_EQ(cap.records()[2].level, 7u);
    EXPECT_EQ(cap.records()[1].file, "tovi_cfg");
}

TEST_F(Cfg, LookupsSearchNewestFirstAndCheckTheBuffer)
{
    std::string older = path("older.ini");
    std::string newer = path("newer.ini");
    spit(older, "[S]\nk=old\nonly=o\n");
    spit(newer, "[S]\nk=new\n");
    ASSERT_EQ(tovi_cfg_init(older.c_str()), 0);
    ASSERT_EQ(tovi_cfg_init(newer.c_str()), 0);

    char buf[8];
    EXPECT_EQ(tovi_cfg_getItemValue("S", "k", buf, 4), 0);  // "new" and its NUL
    EXPECT_STREQ(buf, "new");
    EXPECT_EQ(tovi_cfg_getItemValue("S", "only", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "o");
    {
        LogCapture cap;
        EXPECT_EQ(tovi_cfg_getItemValue("S", "k", buf, 3), TOVI_CFG_ERR_BUFSIZE);
        EXPECT_EQ(tovi_cfg_getItemValue_ex(older.c_str(), "S", "k", buf, 3), TOVI_CFG_ERR_BUFSIZE);
        EXPECT_EQ(cap.texts(kError), (Texts{"Invalid Buffer size, inputSize(3), actualSize(4).",
                                                       "Invalid Buffer size, inputSize(3), actualSize(4)."}));
    }
    EXPECT_EQ(tovi_cfg_getItemValue_ex(older.c_str(), "S", "k", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "old");

    LogCapture cap;
    EXPECT_EQ(tovi_cfg_getItemValue_ex(older.c_str(), "S", "nothing", buf, sizeof buf), -1);  // silent
    EXPECT_EQ(tovi_cfg_getItemValue_ex(older.c_str(), "T", "k", buf, sizeof buf), -1);        // silent
    EXPECT_TRUE(cap.texts().empty());
    EXPECT_EQ(tovi_cfg_getItemValue_ex(path("x.ini").c_str(), "S", "k", buf, sizeof buf), -1);
    EXPECT_EQ(tovi_cfg_getItemValue_ex(older.c_str(), "S", "k", buf, 0), -1);
    EXPECT_EQ(tovi_cfg_getItemValue_ex(nullptr, "S", "k", buf, sizeof buf), -1);
    EXPECT_EQ(tovi_cfg_getItemValue(nullptr, "k", buf, sizeof buf), -1);
    EXPECT_EQ(tovi_cfg_getItemValue("S", "k", nullptr, sizeof buf), -1);
    EXPECT_EQ(tovi_cfg_getItemValue("S", "k", buf, 0), -1);
    EXPECT_EQ(cap.texts(), (Texts{format("Can not find file %s.", path("x.ini").c_str()),
                                  "Invalid SectionName or ItemName or ItemValuesize in getItemValue_ex.",
                                  "Invalid SectionName or ItemName or ItemValuesize in getItemValue_ex.",
                                  "Invalid SectionName or ItemName or ItemValuesize in getItemValue.",
                                  "Invalid SectionName or ItemName or ItemValuesize in getItemValue.",
                                  "Invalid SectionName or ItemName or ItemValuesize in getItemValue."}));
    EXPECT_EQ(cap.records()[3].level, 6u);
}

TEST_F(Cfg, SettersChangeOnlyTheCacheAndNeverCreate)
{
    std::string a = path("a.ini");
    std::string b = path("b.ini");
    spit(a, "[S]\nk=a\n");
    spit(b, "[S]\nk=b\n");
    uint64_t before = cfg_bytes();
    ASSERT_EQ(tovi_cfg_init(a.c_str()), 0);
    ASSERT_EQ(tovi_cfg_init(b.c_str()), 0);

    EXPECT_EQ(tovi_cfg_setItemValue("S", "k", "B"), 0);  // the newest file only
    EXPECT_EQ(value_ex(b, "S", "k"), "B");
    EXPECT_EQ(value_ex(a, "S", "k"), "a");
    EXPECT_EQ(tovi_cfg_setItemValue_ex(a.c_str(), "S", "k", "A"), 0);
    EXPECT_EQ(value_ex(a, "S", "k"), "A");
    EXPECT_EQ(slurp(a), "[S]\nk=a\n");

    LogCapture cap;
    EXPECT_EQ(tovi_cfg_setItemValue("S", "new", "x"), -1);  // silent
    EXPECT_TRUE(cap.texts().empty());
    EXPECT_EQ(tovi_cfg_setItemValue_ex(a.c_str(), "S", "new", "x"), -1);
    EXPECT_EQ(tovi_cfg_setItemValue_ex(path("c.ini").c_str(), "S", "k", "x"), -1);
    const char *k = "k";
    const char *x = "x";
    EXPECT_EQ(tovi_cfg_setItemValue(nullptr, k, x), -1);
    EXPECT_EQ(tovi_cfg_setItemValue("S", "k", std::string(TOVI_CFG_VALUE_MAX, 'v').c_str()), -1);
    EXPECT_EQ(cap.texts(), (Texts{format("Can not find item (new) in file (%s).", a.c_str()),
                                  format("Config file (%s) is no exist.", path("c.ini").c_str()),
                                  format("Null pointer found, section:%p itemname:%p itemValue:%p",
                                         static_cast<const void *>(nullptr), static_cast<const void *>(k),
                                         static_cast<const void *>(x)),
                                  "Item value length too long."}));
    EXPECT_EQ(loaded(a), "[S]\nk=A\n");
    EXPECT_EQ(loaded(b), "[S]\nk=B\n");
    tovi_cfg_destroy();
    EXPECT_EQ(cfg_bytes(), before);  // every value ever set went with its item
}

TEST_F(Cfg, GetItemFromFileParsesWithoutCachingAndStopsAtTheFirstMatch)
{
    std::string p = path("a.ini");
    spit(p, "[S]\nk=first\nk=second\nlong=" + std::string(256, 'l') + "\n");
    CfgItemResult result{};
    uint64_t before = cfg_bytes();
    {
        LogCapture cap;
        EXPECT_EQ(tovi_cfg_getItemFromFile(p.c_str(), "S", "k", &result), 0);
        EXPECT_STREQ(result.acItemName, "k");
        EXPECT_STREQ(result.acItemValue, "first");
        EXPECT_EQ(cap.texts(), Texts{format("Parse config file %s sucess.", p.c_str())});
    }
    EXPECT_EQ(loaded(p), "<not loaded>");
    EXPECT_EQ(tovi_cfg_getItemFromFile(p.c_str(), "S", "none", &result), -1);
    EXPECT_EQ(tovi_cfg_getItemFromFile(p.c_str(), "T", "k", &result), -1);

    LogCapture cap;
    const char *s = "S";
    const char *k = "k";
    EXPECT_EQ(tovi_cfg_getItemFromFile(p.c_str(), "S", "long", &result), -1);
    EXPECT_EQ(tovi_cfg_getItemFromFile(path("none.ini").c_str(), "S", "k", &result), -1);
    EXPECT_EQ(tovi_cfg_getItemFromFile(p.c_str(), s, k, nullptr), -1);
    EXPECT_EQ(cap.texts(),
              (Texts{format("Copy item (long=%s) fail.", std::string(256, 'l').c_str()),
                     format("Open file (%s) failed, fd -1 errno %d", path("none.ini").c_str(), ENOENT),
                     format("Null pointer found, pFile:%p, pSection:%p, pItemName:%p, pItemValue:%p.",
                            static_cast<const void *>(p.c_str()), static_cast<const void *>(s),
                            static_cast<const void *>(k), static_cast<const void *>(nullptr))}));
    EXPECT_EQ(cfg_bytes(), before);
}

// ---- Editing through a temporary file ----

TEST_F(Cfg, EditorsRewriteTheFileInItsWrittenForm)
{
    std::string p = path("e.ini");
    spit(p, "; settings\nlead = 1\n\n[A]\n x = 1 \n#note\n[B]\ny=2\n");

    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "z", "a b=c"), 0);
    EXPECT_EQ(slurp(p), "[NULL]\nlead=1\n[A]\nx=1\nz=a b=c\n[B]\ny=2\n");
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "C", "w", ""), 0);
    EXPECT_EQ(slurp(p), "[NULL]\nlead=1\n[A]\nx=1\nz=a b=c\n[B]\ny=2\n[C]\nw=\n");
    EXPECT_EQ(tovi_cfg_file_setItemValue(p.c_str(), "A", "x", "9"), 0);
    EXPECT_EQ(slurp(p), "[NULL]\nlead=1\n[A]\nx=9\nz=a b=c\n[B]\ny=2\n[C]\nw=\n");
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), "A", "z"), 0);
    EXPECT_EQ(slurp(p), "[NULL]\nlead=1\n[A]\nx=9\n[B]\ny=2\n[C]\nw=\n");
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), "B", "y"), 0);  // its only item: the section goes too
    EXPECT_EQ(slurp(p), "[NULL]\nlead=1\n[A]\nx=9\n[C]\nw=\n");
    EXPECT_EQ(tovi_cfg_file_delSection(p.c_str(), "NULL"), 0);
    EXPECT_EQ(slurp(p), "[A]\nx=9\n[C]\nw=\n");
    EXPECT_FALSE(std::filesystem::exists(p + ".temp"));
}

TEST_F(Cfg, FailedEditsLeaveTheFileAsItWas)
{
    std::string p = path("e.ini");
    const std::string original = "; keep me\n[A]\nx = 1\n";
    spit(p, original);
    LogCapture cap;
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "x", "2"), -1);
    EXPECT_EQ(tovi_cfg_file_setItemValue(p.c_str(), "A", "y", "2"), -1);
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), "A", "y"), -1);
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), "B", "x"), -1);
    EXPECT_EQ(tovi_cfg_file_delSection(p.c_str(), "B"), -1);
    EXPECT_EQ(slurp(p), original);
    const std::string ex = format("Exec v_pfnProc(%s) failed.", p.c_str());
    EXPECT_EQ(cap.texts(),
              (Texts{"add item fail, item(x) is already exist", ex, "Exec write operate failed.",
                     format("Set item failed.item(y) is not exist in file(%s).", p.c_str()), ex,
                     "exec write operate to set item value failed.",
                     format("Delete item failed.item(y) is not exist in file(%s).", p.c_str()), ex,
                     "Exec write operate to del item failed.",
                     format("Delete item failed.Section(B) is not exist in file(%s).", p.c_str()), ex,
                     "Exec write operate to del item failed.",
                     format("Delete section(B) is not exist in file(%s).", p.c_str()), ex,
                     "Exec write operate to del section<B> failed."}));

    // Names and values the file could not give back are refused.
    cap.clear();
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A B", "k", "v"), -1);
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "k", "two\nlines"), -1);
    EXPECT_EQ(tovi_cfg_file_setItemValue(p.c_str(), "A", "x", " padded"), -1);
    EXPECT_EQ(slurp(p), original);
    EXPECT_EQ(cap.count("Invalid name or value, section(A B) item(k)."), 1u);
    EXPECT_EQ(cap.count("Invalid name or value, section(A) item(k)."), 1u);
    EXPECT_EQ(cap.count("Invalid name or value, section(A) item(x)."), 1u);

    // The temporary file cannot be made: a directory holds its name.
    cap.clear();
    std::filesystem::create_directory(p + ".temp");
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "k", "v"), -1);
    EXPECT_EQ(slurp(p), original);
    EXPECT_EQ(cap.texts(), (Texts{format("Open %s.temp failed.errno(File exists).", p.c_str()),
                                  "Exec write operate failed."}));
}

// The node-level calls that the editors are built from, on one parsed node.
TEST_F(Cfg, NodeOperationsWorkOnAParsedNode)
{
    std::string p = path("n.ini");
    spit(p, "[A]\nx=1\n");
    CfgFileNode *node = tovi::cfg::tovi_cfg_ini_file_parse(p.c_str(), tovi::cfg::tovi_cfg_file_proc, nullptr);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(tovi_cfg_add_item_func(node, "B", "y", "2"), 0);
    EXPECT_EQ(tovi_cfg_set_item_func(node, "A", "x", "3"), 0);
    EXPECT_EQ(tovi_cfg_del_section_func(node, "A", nullptr, nullptr), 0);
    EXPECT_EQ(tovi_cfg_updateFileNode(node), -1);  // not loaded: the caller keeps it

    // The temporary file takes the real file's mode and owner (root may give
    // it another group); either name missing is refused.
    chmod(p.c_str(), 0640);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(p.c_str(), 0, 2), 0);
    }
    int real = open(p.c_str(), O_RDONLY);
    char *name = nullptr;
    EXPECT_EQ(tovi_cfg_create_tmpfile(nullptr, real, &name), -1);
    EXPECT_EQ(tovi_cfg_create_tmpfile(p.c_str(), real, nullptr), -1);
    int fd = tovi_cfg_create_tmpfile(p.c_str(), real, &name);
    close(real);
    ASSERT_GE(fd, 0);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name), p + ".temp");
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(st.st_gid, 2u);
    }
    TOVI_FREE(name);
    ASSERT_EQ(write(fd, std::string(100, '#').data(), 100), 100);  // longer than the text: cut to it
    EXPECT_EQ(tovi_cfg_writeFnodeTofile(fd, node), 0);
    close(fd);
    EXPECT_EQ(slurp(p + ".temp"), "[B]\ny=2\n");
    tovi::cfg::free_file_node(node);

    LogCapture cap;
    EXPECT_EQ(tovi_cfg_new_item_node_ex(std::string(64, 'n').c_str(), "v"), nullptr);
    EXPECT_EQ(cap.texts(), Texts{"Strcpy pItemName failed."});
}

// Every allocation of a load and of an edit fails once in turn: each
// attempt either succeeds or fails with the file, the cache and the
// module's memory exactly as before.
TEST_F(Cfg, AllocationFailuresLeaveNothingHalfBuilt)
{
    std::string p = path("f.ini");
    std::string text = "[A]\nx=1\ny=2\n[B]\nz=3\n";
    for (int i = 0; i < 40; ++i)
        text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";  // enough for the index
    spit(p, text);
    uint64_t before = cfg_bytes();
    LogCapture cap;
    int failed_loads = 0;
    int partial_loads = 0;
    for (uint32_t nth = 1; nth < 200; ++nth) {
        tovi::cfg::fail_allocation(nth);
        int32_t ret = tovi_cfg_init_ex(p.c_str());
        tovi::cfg::fail_allocation(0);
        failed_loads += ret != 0;
        if (ret == 0) {
            // A load goes on without an item it could not make.
            std::vector<std::string> got = lines(loaded(p));
            std::vector<std::string> full = lines(text);
            size_t missing = 0;
            for (size_t i = 0, j = 0; i < full.size(); ++i) {
                if (j < got.size() && got[j] == full[i])
                    ++j;
                else
                    ++missing;
            }
            EXPECT_EQ(got.size() + missing, full.size()) << nth;
            EXPECT_LE(missing, 1u) << nth;
            partial_loads += missing != 0;
            tovi_cfg_destroy();
        }
        ASSERT_EQ(cfg_bytes(), before) << nth;
    }
    EXPECT_GT(failed_loads, 0);
    EXPECT_GT(partial_loads, 0);

    ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
    std::string cached = loaded(p);
    std::string on_disk = slurp(p);
    uint64_t loaded_bytes = cfg_bytes();
    int succeeded = 0;
    int failed_edits = 0;
    int in_a_row = 0;  // successes one after the other: past the edit's last allocation
    for (uint32_t nth = 1; nth < 400 && in_a_row < 6; ++nth) {
        tovi::cfg::fail_allocation(nth);
        int32_t ret = tovi_cfg_file_addItem(p.c_str(), "B", "new", "v");
        tovi::cfg::fail_allocation(0);
        if (ret == 0) {
            // Beyond the edit's allocations, or one only the name index needed.
            ++succeeded;
            ++in_a_row;
            ASSERT_EQ(slurp(p), on_disk + "new=v\n") << nth;  // [B] is the last section
            ASSERT_EQ(loaded(p), on_disk + "new=v\n") << nth;
            spit(p, on_disk);
            tovi_cfg_destroy();
            ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
        } else {
            ++failed_edits;
            in_a_row = 0;
            ASSERT_EQ(slurp(p), on_disk) << nth;
            ASSERT_EQ(loaded(p), cached) << nth;
            ASSERT_EQ(cfg_bytes(), loaded_bytes) << nth;
            ASSERT_FALSE(std::filesystem::exists(p + ".temp")) << nth;
        }
    }
    EXPECT_GT(succeeded, 3);  // the name index's allocations may fail alone
    EXPECT_GT(failed_edits, 43);  // every item of the re-parse among them
}

// Random edits against a model of the file; the file is checked byte for
// byte and the cache against it after every step.
TEST_F(Cfg, RandomEditsFollowTheModel)
{
    using Items = std::vector<std::pair<std::string, std::string>>;
    std::vector<std::pair<std::string, Items>> model;
    auto render = [&model] {
        std::string s;
        for (auto &[sec, items] : model) {
            s += "[" + sec + "]\n";
            for (auto &[k, v] : items)
                s += k + "=" + v + "\n";
        }
        return s;
    };
    std::string p = path("model.ini");
    spit(p, "");
    ASSERT_EQ(tovi_cfg_init(p.c_str()), 0);
    std::mt19937 rng(99);
    LogCapture cap;  // keeps the expected failures quiet
    for (int step = 0; step < 300; ++step) {
        std::string sec = "S" + std::to_string(rng() % 20);
        std::string key = "k" + std::to_string(rng() % 30);
        std::string val = "v" + std::to_string(step);
        auto s = std::find_if(model.begin(), model.end(), [&](auto &e) { return e.first == sec; });
        auto item = s == model.end() ? Items::iterator{}
                                     : std::find_if(s->second.begin(), s->second.end(),
                                                    [&](auto &e) { return e.first == key; });
        bool has_item = s != model.end() && item != s->second.end();
        int32_t ret;
        int32_t expected = 0;
        switch (rng() % 8) {
        case 0:
        case 1:
        case 2:
            ret = tovi_cfg_file_addItem(p.c_str(), sec.c_str(), key.c_str(), val.c_str());
            if (has_item)
                expected = -1;
            else if (s == model.end())
                model.push_back({sec, {{key, val}}});
            else
                s->second.emplace_back(key, val);
            break;
        case 3:
        case 4:
            ret = tovi_cfg_file_setItemValue(p.c_str(), sec.c_str(), key.c_str(), val.c_str());
            if (has_item)
                item->second = val;
            else
                expected = -1;
            break;
        case 5:
        case 6:
            ret = tovi_cfg_file_delItem(p.c_str(), sec.c_str(), key.c_str());
            if (!has_item) {
                expected = -1;
            } else {
                s->second.erase(item);
                if (s->second.empty())
                    model.erase(s);
            }
            break;
        default:
            ret = tovi_cfg_file_delSection(p.c_str(), sec.c_str());
            if (s == model.end())
                expected = -1;
            else
                model.erase(s);
            break;
        }
        ASSERT_EQ(ret, expected) << step;
        ASSERT_EQ(slurp(p), render()) << step;
        ASSERT_EQ(loaded(p), render()) << step;
    }
}

// ---- Setting one item in place ----

TEST_F(Cfg, WriteItemSetsInPlaceWithItsQuirks)
{
    std::string p = path("w.ini");
    struct Case {
        std::string before, section, item, value, after;
    };
    const std::vector<Case> cases = {
        // Only the item name is compared after a section's first item: A/y changes too.
        {"[A]\nx=1\ny=2\n[B]\ny=3\n", "B", "y", "9", "[A]\nx=1\ny=9\n[B]\ny=9\n"},
        // ... but not as the first item of another section.
        {"[A]\ny=1\n[B]\ny=2\n", "B", "y", "9", "[A]\ny=1\n[B]\ny=9\n"},
        // Missing item: last in its section; missing section: at the end.
        {"[A]\nx=1\n[B]\nz=2\n", "A", "n", "new", "[A]\nx=1\nn=new\n[B]\nz=2\n"},
        {"[A]\nx=1\n", "A", "n", "new", "[A]\nx=1\nn=new\n"},
        {"[A]\nx=1\n", "C", "n", "new", "[A]\nx=1\n[C]\nn=new\n"},
        // Sections without items vanish, items before a header get [NULL],
        // comments and spacing go, duplicates stay.
        {"; c\nlead = 1\n[E]\n[A]\nx = 1\nx=2\n", "A", "q", "", "[NULL]\nlead=1\n[A]\nx=1\nx=2\nq=\n"},
        {"", "S", "k", "v", "[S]\nk=v\n"},
        // The last section written starts as "": a first section of that name gets no header.
        {"[]\nk=1\n[A]\nx=1\n", "S", "n", "v", "k=1\n[A]\nx=1\n[S]\nn=v\n"},
    };
    for (const Case &c : cases) {
        spit(p, c.before);
        struct stat before {};
        ASSERT_EQ(stat(p.c_str(), &before), 0);
        EXPECT_EQ(tovi_cfg_write_item_to_file(p.c_str(), c.section.c_str(), c.item.c_str(), c.value.c_str()), 0);
        EXPECT_EQ(slurp(p), c.after) << c.before;
        struct stat after {};
        ASSERT_EQ(stat(p.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);  // same file, rewritten
    }

    // A missing file is created, private.
    std::string q = path("new.ini");
    EXPECT_EQ(tovi_cfg_write_item_to_file(q.c_str(), "S", "k", "v"), 0);
    EXPECT_EQ(slurp(q), "[S]\nk=v\n");
    struct stat st {};
    ASSERT_EQ(stat(q.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // The cache is not touched.
    ASSERT_EQ(tovi_cfg_init(q.c_str()), 0);
    EXPECT_EQ(tovi_cfg_write_item_to_file(q.c_str(), "S", "k", "w"), 0);
    EXPECT_EQ(value_ex(q, "S", "k"), "v");
}

TEST_F(Cfg, WriteItemRefusesBadArgumentsAndKeepsTheFile)
{
    std::string p = path("w.ini");
    spit(p, "[A]\nx=1\n");
    uint64_t before = cfg_bytes();
    LogCapture cap;
    const char *a = "A";
    EXPECT_EQ(tovi_cfg_write_item_to_file(p.c_str(), a, "x", nullptr), -1);
    std::string long_name(64, 'n');
    EXPECT_EQ(tovi_cfg_write_item_to_file(p.c_str(), "A", long_name.c_str(), "v"), -1);
    EXPECT_EQ(tovi_cfg_write_item_to_file(p.c_str(), "A", "x", "a\nb=c"), -1);
    EXPECT_EQ(tovi_cfg_write_item_to_file(path("no/such/dir.ini").c_str(), "A", "x", "1"), -1);
    EXPECT_EQ(slurp(p), "[A]\nx=1\n");
    EXPECT_EQ(cap.texts(),
              (Texts{format("Null pointer found, pFile:%p, pSection:%p, pItemValue:%p.",
                            static_cast<const void *>(p.c_str()), static_cast<const void *>(a),
                            static_cast<const void *>(nullptr)),
                     format("Strcpy_s failed pSection<A>, pItemName<%s>, pItemValue<v>, iRet = %d.", long_name.c_str(),
                            kNoSpace),
                     "Invalid name or value, section(A) item(x).",
                     format("Open file (%s) fail,errno %d", path("no/such/dir.ini").c_str(), ENOENT)}));
    EXPECT_EQ(cfg_bytes(), before);
}

}  // namespace

TEST_F(Cfg, EditorsNeedAnExistingFileAndArguments)
{
    std::string p = path("none.ini");
    LogCapture cap;
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "k", "v"), -1);
    EXPECT_EQ(tovi_cfg_file_setItemValue(p.c_str(), "A", "k", "v"), -1);
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), "A", "k"), -1);
    EXPECT_EQ(tovi_cfg_file_delSection(p.c_str(), "A"), -1);
    EXPECT_EQ(tovi_cfg_file_addItem(p.c_str(), "A", "k", nullptr), -1);
    EXPECT_EQ(tovi_cfg_file_setItemValue(nullptr, "A", "k", "v"), -1);
    EXPECT_EQ(tovi_cfg_file_delItem(p.c_str(), nullptr, "k"), -1);
    EXPECT_EQ(tovi_cfg_file_delSection(p.c_str(), nullptr), -1);
    EXPECT_EQ(tovi_cfg_file_writeOperate(-1, nullptr, tovi_cfg_add_item_func), -1);
    EXPECT_FALSE(std::filesystem::exists(p));
    std::string open_fail = format("Open file<%s> failed, errno<%d>", p.c_str(), ENOENT);
    EXPECT_EQ(cap.texts(), (Texts{open_fail, format("open file<%s> failed, errno<%d>", p.c_str(), ENOENT), open_fail,
                                  open_fail, "Param is null.", "param is null.", "Param is null.", "Param is null.",
                                  "Param is null."}));
}
