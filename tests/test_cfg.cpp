// Configuration files: the parser's rules, the loaded-file list and its
// lookups, the editors (files checked byte for byte) and the in-place writer.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_companion.hpp"
#include "tovi_mem.h"

using tovi::test::LogCapture;
using tovi::test::read_file;
using tovi::test::write_file;
using Texts = std::vector<std::string>;
using Rcs = std::vector<int32_t>;  // results of calls made in order

namespace {

template <typename... Args>
std::string format(const char *fmt, Args... args)
{
    std::string out(static_cast<size_t>(std::snprintf(nullptr, 0, fmt, args...)), '\0');
    std::snprintf(out.data(), out.size() + 1, fmt, args...);  // its NUL goes where the string keeps one
    return out;
}

const void *ptr(const void *p) { return p; }

// Bytes the library holds for this module (the user companion's table).
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

// The logging library keeps only the start of a very long message: each text
// must be a long start of the expected one (compared without printing them).
bool starts_of(const Texts &got, const Texts &expected)
{
    return got.size() == expected.size() &&
           std::equal(got.begin(), got.end(), expected.begin(), [](const std::string &g, const std::string &e) {
               return g.size() >= 1000 && e.compare(0, g.size(), g) == 0;
           });
}

int32_t render_visit(const char *section, const char *item, const char *value, void *arg)
{
    *static_cast<std::string *>(arg) +=
        item == nullptr ? std::string("[") + section + "]\n" : std::string(item) + "=" + value + "\n";
    return 0;
}

std::string loaded(const std::string &path)
{
    std::string out;
    return tovi_cfg_walk(path.c_str(), render_visit, &out) != 0 ? "<not loaded>" : out;
}

std::string value_ex(const std::string &path, const char *section, const char *item)
{
    static std::vector<char> buf(TOVI_CFG_VALUE_MAX);
    int32_t ret = tovi_cfg_getItemValue_ex(path.c_str(), section, item, buf.data(), static_cast<uint32_t>(buf.size()));
    return ret == 0 ? std::string(buf.data()) : "<" + std::to_string(ret) + ">";
}

class Cfg : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(dir_.data()), nullptr); }
    void TearDown() override
    {
        tovi::cfg::fail_allocation(0);
        tovi_cfg_destroy();
        std::filesystem::remove_all(dir_);
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string dir_ = "/tmp/tovi_cfg_XXXXXX";
};

}  // namespace

TEST_F(Cfg, LineRulesDecideSectionsItemsAndComments)
{
    const std::string k63(63, 'k'), k64(64, 'k'), s63(63, 's'), s64(64, 's');
    // Items before any header are in "NULL", which an explicit header joins. Headers: trimmed inside, first column
    // only, letters digits '_' only, at most 65 bytes. Items: split at the first '=', both sides trimmed, value verbatim
    // inside. Comments, '#' lines, blank lines and carriage returns go; no final line feed is needed. Later duplicates
    // win and move to the end; headers merge into the first; names are case-sensitive.
    const std::pair<std::string, std::string> cases[] = {
        {"a=1\n[S]\nb=2\n", "[NULL]\na=1\n[S]\nb=2\n"}, {"b=2\n[NULL]\na=1\n", "[NULL]\nb=2\na=1\n"}, {"[]\nk=v\n", "[]\nk=v\n"},
        {"[ S_1 ]  \r\nk=v\n", "[S_1]\nk=v\n"}, {"[\tS\t]\nk=v\n", "[S]\nk=v\n"}, {"[a b]\nk=v\n", "[NULL]\nk=v\n"},
        {" [S]\nk=v\n", "[NULL]\nk=v\n"}, {"[S]x\nk=v\n", "[NULL]\nk=v\n"}, {"[S-1]\nk=v\n", "[NULL]\nk=v\n"},
        {"[" + s63 + "]\nk=v\n", "[" + s63 + "]\nk=v\n"}, {"[A]\n[" + s64 + "]\nk=v\n", "[A]\nk=v\n"},
        {"[Empty]\n[S]\nk=v\n", "[S]\nk=v\n"}, {"[S]\nk = x=y z \n", "[S]\nk=x=y z\n"}, {"[S]\nk=\n", "[S]\nk=\n"},
        {"[S]\nk==v\n", "[S]\nk==v\n"}, {"[S]\n\tkey\t=\tv a l\t \r\n", "[S]\nkey=v a l\n"},
        {"[S]\n" + k63 + "=1\n", "[S]\n" + k63 + "=1\n"}, {"[S]\n" + k64 + "=1\n", ""}, {"[S]\nk.1=1\nk 1=2\n =3\nk\n", ""},
        {"[S]\n;c=1\n=x\n#a=b\n# note\nk=v\n", "[S]\nk=v\n"}, {"\n  \t \n[S]\r\n\r\nk=a\rb\r\r\n", "[S]\nk=ab\n"},
        {"[S]\nk=v", "[S]\nk=v\n"}, {"[S]\nk=1\nj=2\nk=3\n", "[S]\nj=2\nk=3\n"},
        {"[A]\nx=1\n[B]\ny=2\n[A]\nz=3\nx=4\n", "[A]\nz=3\nx=4\n[B]\ny=2\n"}, {"[s]\nk=1\nK=2\n[S]\nk=3\n", "[s]\nk=1\nK=2\n[S]\nk=3\n"},
    };
    std::string p = path("parsed.ini");
    for (const auto &[text, expected] : cases) {
        write_file(p, text);
        EXPECT_EQ(tovi_cfg_init_ex(p.c_str()) == 0 ? loaded(p) : "<not parsed>", expected) << "input: " << text;
        tovi_cfg_destroy_ex(p.c_str());
    }
}

TEST_F(Cfg, LongLinesAreCutAtTheLineLimitAndLongValuesRefused)
{
    const size_t limit = TOVI_CFG_LINE_MAX;  // 4194369
    std::string p = path("long.ini");
    // a: the longest value kept, b: one byte more. A line of exactly the limit (k) is dropped;
    // its line feed makes an empty line. Longer (j): the first `limit` bytes are one (dropped)
    // line, the rest the next line. Leading blanks do not count: e, one byte short, is kept.
    std::string ok(TOVI_CFG_VALUE_MAX - 1, 'v'), too_long(TOVI_CFG_VALUE_MAX, 'w');
    std::string full = "k=" + std::string(limit - 2, 'x'), split = "j=" + std::string(limit - 2, 'y') + "c=3";
    write_file(p, std::string(70000, ' ') + "\n[S]\na=" + ok + "\nb=" + too_long + "\n" + full + "\nd=2\n" + split + "\n" + std::string(limit - 4, ' ') + "e=5\n");
    LogCapture cap;
    ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
    EXPECT_TRUE(value_ex(p, "S", "a") == ok);  // not printed
    EXPECT_EQ(value_ex(p, "S", "b") + value_ex(p, "S", "k") + value_ex(p, "S", "d") + value_ex(p, "S", "j") + value_ex(p, "S", "c") +
                  value_ex(p, "S", "e"), "<-1><-1>2<-1>35");
    EXPECT_TRUE(starts_of(cap.texts(3), {"copy item (b=" + too_long + ") fail in parse item."}));
    const char *fmt = "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.";
    EXPECT_TRUE(starts_of(cap.texts(7), {format(fmt, static_cast<int>(limit), full.c_str(), 4194368),
                                         format(fmt, static_cast<int>(limit), split.substr(0, limit).c_str(), 4194368)}));
}

TEST_F(Cfg, LibraryFileIsNamedByTheEnvironmentUnlessEmpty)
{
    setenv(TOVI_CFG_LIBRARY_FILE_ENV, "/tmp/tovi_lib.ini", 1);
    const std::string named = tovi::cfg::library_file();
    setenv(TOVI_CFG_LIBRARY_FILE_ENV, "", 1);  // as good as unset
    EXPECT_EQ(named + " " + tovi::cfg::library_file(), "/tmp/tovi_lib.ini " TOVI_CFG_LIBRARY_FILE);
}

// One life cycle of the loaded-file list: failed loads, lookups newest first,
// setters that change only the cache, the uncached single-item read.
TEST_F(Cfg, LoadLookUpSetAndReadWithTheirFailures)
{
    std::string a = path("a.ini"), b = path("b.ini"), q = path("q.ini"), none = path("none.ini"), l(256, 'l');
    std::string long_path = "/" + std::string(255, 'p');
    uint64_t before = cfg_bytes();
    LogCapture cap;
    EXPECT_EQ((Rcs{tovi_cfg_init_ex(nullptr), tovi_cfg_init_ex(none.c_str()), tovi_cfg_init(long_path.c_str())}), Rcs(3, -1));
    EXPECT_EQ(cap.texts(), (Texts{"Input File is NULL pointer.", format("Open file (%s) failed, fd -1 errno %d", none.c_str(), ENOENT),
                                  format("Parse config file %s failed.", none.c_str()), "File name length too long.",
                                  format("Parse config file %s failed.", long_path.c_str())}));
    EXPECT_EQ(std::make_tuple(cap.records()[0].level, cap.records()[1].level, cap.records()[2].level), std::make_tuple(6u, 3u, 7u));

    write_file(a, "[S]\nk=a\nonly=o\n");
    write_file(b, "[S]\nk=b\n");
    ASSERT_EQ((Rcs{tovi_cfg_init(a.c_str()), tovi_cfg_init(b.c_str())}), Rcs(2, 0));
    const char *fa = a.c_str(), *fn = none.c_str(), *s = "S", *k = "k", *x = "x";
    char buf[8], only[8];
    EXPECT_EQ((Rcs{tovi_cfg_getItemValue("S", "k", buf, 2), tovi_cfg_getItemValue("S", "only", only, sizeof only)}), Rcs(2, 0));
    EXPECT_EQ(std::string(buf) + only, "bo");  // "b" and its NUL fit in 2
    cap.clear();
    EXPECT_EQ((Rcs{tovi_cfg_getItemValue("S", "k", buf, 1), tovi_cfg_getItemValue_ex(fa, "S", "k", buf, 1)}), Rcs(2, TOVI_CFG_ERR_BUFSIZE));
    // A missing item or section is silent.
    EXPECT_EQ((Rcs{tovi_cfg_getItemValue_ex(fa, "S", "nothing", buf, 8), tovi_cfg_getItemValue_ex(fa, "T", "k", buf, 8),
                   tovi_cfg_getItemValue_ex(fn, "S", "k", buf, 8), tovi_cfg_getItemValue_ex(fa, "S", "k", buf, 0),
                   tovi_cfg_getItemValue("S", "k", nullptr, 8)}), Rcs(5, -1));
    const std::string bad = "Invalid SectionName or ItemName or ItemValuesize in getItemValue";
    EXPECT_EQ(cap.texts(), (Texts{"Invalid Buffer size, inputSize(1), actualSize(2).", "Invalid Buffer size, inputSize(1), actualSize(2).",
                                  format("Can not find file %s.", fn), bad + "_ex.", bad + "."}));
    EXPECT_EQ(std::make_pair(cap.records()[0].level, cap.records()[4].level), std::make_pair(3u, 6u));

    EXPECT_EQ(tovi_cfg_setItemValue("S", "k", "B"), 0);  // the newest file only
    EXPECT_EQ(loaded(a) + loaded(b), "[S]\nk=a\nonly=o\n[S]\nk=B\n");
    EXPECT_EQ(std::to_string(tovi_cfg_setItemValue_ex(fa, "S", "k", "A")) + read_file(a), "0[S]\nk=a\nonly=o\n");  // the cache only
    cap.clear();
    EXPECT_EQ((Rcs{tovi_cfg_setItemValue(s, "new", x), tovi_cfg_setItemValue_ex(fa, s, "new", x), tovi_cfg_setItemValue_ex(fn, s, k, x),
                   tovi_cfg_setItemValue(nullptr, k, x), tovi_cfg_setItemValue(s, k, std::string(TOVI_CFG_VALUE_MAX, 'v').c_str())}),
              Rcs(5, -1));  // the first silent
    EXPECT_EQ(cap.texts(), (Texts{format("Can not find item (new) in file (%s).", fa), format("Config file (%s) is no exist.", fn),
                                  format("Null pointer found, section:%p itemname:%p itemValue:%p", ptr(nullptr), ptr(k), ptr(x)),
                                  "Item value length too long."}));
    EXPECT_EQ(loaded(a) + loaded(b), "[S]\nk=A\nonly=o\n[S]\nk=B\n");

    // Reading one item from a file parses it without caching and stops at the first match.
    write_file(q, "[S]\nk=first\nk=second\nlong=" + l + "\n");
    CfgItemResult result{};
    cap.clear();
    EXPECT_EQ(tovi_cfg_getItemFromFile(q.c_str(), "S", "k", &result), 0);
    EXPECT_EQ(std::string(result.acItemName) + "=" + result.acItemValue + loaded(q), "k=first<not loaded>");
    EXPECT_EQ((Rcs{tovi_cfg_getItemFromFile(q.c_str(), "S", "none", &result), tovi_cfg_getItemFromFile(q.c_str(), "T", "k", &result),
                   tovi_cfg_getItemFromFile(q.c_str(), "S", "long", &result), tovi_cfg_getItemFromFile(none.c_str(), "S", "k", &result),
                   tovi_cfg_getItemFromFile(q.c_str(), s, k, nullptr)}), Rcs(5, -1));
    const std::string parsed = format("Parse config file %s sucess.", q.c_str());
    EXPECT_EQ(cap.texts(), (Texts{parsed, parsed, parsed, format("Copy item (long=%s) fail.", l.c_str()),
                                  format("Open file (%s) failed, fd -1 errno %d", none.c_str(), ENOENT),
                                  format("Null pointer found, pFile:%p, pSection:%p, pItemName:%p, pItemValue:%p.",
                                         ptr(q.c_str()), ptr(s), ptr(k), ptr(nullptr))}));
    tovi_cfg_destroy();
    EXPECT_EQ(cfg_bytes(), before);  // every value ever set went with its item
}

TEST_F(Cfg, FailedEditsLeaveTheFileAsItWas)
{
    std::string p = path("e.ini"), none = path("none.ini");
    const std::string original = "; keep me\n[A]\nx = 1\n";
    write_file(p, original);
    LogCapture cap;
    const char *f = p.c_str(), *n = none.c_str();
    // The last three: names and values the file could not give back.
    EXPECT_EQ((Rcs{tovi_cfg_file_addItem(f, "A", "x", "2"), tovi_cfg_file_setItemValue(f, "A", "y", "2"),
                   tovi_cfg_file_delItem(f, "A", "y"), tovi_cfg_file_delItem(f, "B", "x"), tovi_cfg_file_delSection(f, "B"),
                   tovi_cfg_file_addItem(f, "A B", "k", "v"), tovi_cfg_file_addItem(f, "A", "k", "two\nlines"),
                   tovi_cfg_file_setItemValue(f, "A", "x", " padded")}), Rcs(8, -1));
    EXPECT_EQ(read_file(p), original);
    const std::string ex = format("Exec v_pfnProc(%s) failed.", f), in = format(" is not exist in file(%s).", f);
    const std::string invalid = "Invalid name or value, section";
    EXPECT_EQ(cap.texts(),
              (Texts{"add item fail, item(x) is already exist", ex, "Exec write operate failed.", "Set item failed.item(y)" + in, ex,
                     "exec write operate to set item value failed.", "Delete item failed.item(y)" + in, ex,
                     "Exec write operate to del item failed.", "Delete item failed.Section(B)" + in, ex,
                     "Exec write operate to del item failed.", "Delete section(B)" + in, ex,
                     "Exec write operate to del section<B> failed.", invalid + "(A B) item(k).", ex, "Exec write operate failed.",
                     invalid + "(A) item(k).", ex, "Exec write operate failed.", invalid + "(A) item(x).", ex,
                     "exec write operate to set item value failed."}));

    // The temporary file cannot be made: a directory holds its name.
    cap.clear();
    std::filesystem::create_directory(p + ".temp");
    EXPECT_EQ(std::to_string(tovi_cfg_file_addItem(f, "A", "k", "v")) + read_file(p), "-1" + original);
    EXPECT_EQ(cap.texts(), (Texts{format("Open %s.temp failed.errno(File exists).", f), "Exec write operate failed."}));

    // A missing file is not created; missing arguments are refused.
    cap.clear();
    EXPECT_EQ((Rcs{tovi_cfg_file_addItem(n, "A", "k", "v"), tovi_cfg_file_setItemValue(n, "A", "k", "v"),
                   tovi_cfg_file_delSection(n, nullptr), tovi_cfg_file_setItemValue(nullptr, "A", "k", "v")}), Rcs(4, -1));
    EXPECT_FALSE(std::filesystem::exists(none));
    const std::string open_fail = format("pen file<%s> failed, errno<%d>", n, ENOENT);
    EXPECT_EQ(cap.texts(), (Texts{"O" + open_fail, "o" + open_fail, "Param is null.", "param is null."}));
}

// The node-level calls the editors are built from.
TEST_F(Cfg, NodeOperationsRefuseWhatTheyCannotDo)
{
    std::string p = path("n.ini");
    write_file(p, "[A]\nx=1\n");
    CfgFileNode *node = tovi::cfg::tovi_cfg_ini_file_parse(p.c_str(), tovi::cfg::tovi_cfg_file_proc, nullptr);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ((Rcs{tovi_cfg_add_item_func(node, "B", "y", "2"), tovi_cfg_updateFileNode(node)}), (Rcs{0, -1}));  // not loaded
    tovi::cfg::free_file_node(node);
    char *name = nullptr;
    EXPECT_EQ((Rcs{tovi_cfg_create_tmpfile(nullptr, 0, &name), tovi_cfg_create_tmpfile(p.c_str(), 0, nullptr)}), Rcs(2, -1));
    LogCapture cap;
    EXPECT_EQ(tovi_cfg_new_item_node_ex(std::string(64, 'n').c_str(), "v"), nullptr);
    EXPECT_EQ(cap.texts(), Texts{"Strcpy pItemName failed."});
}

// Every allocation of a load and of an edit fails once in turn: each attempt
// succeeds or leaves the file, the cache and the module's memory as they were.
TEST_F(Cfg, AllocationFailuresLeaveNothingHalfBuilt)
{
    std::string p = path("f.ini"), text = "[A]\nx=1\ny=2\n[B]\nz=3\n";
    for (int i = 0; i < 40; ++i)
        text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";  // enough for the index
    write_file(p, text);
    uint64_t before = cfg_bytes();
    LogCapture cap;
    int failed_loads = 0, partial_loads = 0;
    for (uint32_t nth = 1; nth < 200; ++nth) {
        tovi::cfg::fail_allocation(nth);
        int32_t ret = tovi_cfg_init_ex(p.c_str());
        tovi::cfg::fail_allocation(0);
        failed_loads += ret != 0;
        if (ret == 0) {
            // A load goes on without an item it could not make.
            std::string got = loaded(p);
            bool one_missing = false;
            for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
                one_missing |= text.substr(0, at) + text.substr(end + 1) == got;
            EXPECT_TRUE(got == text || one_missing) << nth;
            partial_loads += got != text;
            tovi_cfg_destroy();
        }
        ASSERT_EQ(cfg_bytes(), before) << nth;
    }
    EXPECT_GT(std::min(failed_loads, partial_loads), 0);

    ASSERT_EQ(tovi_cfg_init_ex(p.c_str()), 0);
    uint64_t loaded_bytes = cfg_bytes();
    int succeeded = 0, failed_edits = 0, in_a_row = 0;  // successes in a row: past the edit's last allocation
    for (uint32_t nth = 1; nth < 400 && in_a_row < 6; ++nth) {
        tovi::cfg::fail_allocation(nth);
        int32_t ret = tovi_cfg_file_addItem(p.c_str(), "B", "new", "v");
        tovi::cfg::fail_allocation(0);
        if (ret == 0) {
            ++succeeded, ++in_a_row;
            ASSERT_EQ(read_file(p) + loaded(p), text + "new=v\n" + text + "new=v\n") << nth;  // [B] is the last
            ASSERT_EQ(tovi_cfg_file_delItem(p.c_str(), "B", "new"), 0);
        } else {
            ++failed_edits, in_a_row = 0;
            ASSERT_EQ(read_file(p) + loaded(p), text + text) << nth;
            ASSERT_EQ(cfg_bytes(), loaded_bytes) << nth;
            ASSERT_FALSE(std::filesystem::exists(p + ".temp")) << nth;
        }
    }
    // Past the edit's allocations (or one only the name index needed); every item of the re-parse among the failures.
    EXPECT_TRUE(succeeded > 3 && failed_edits > 43) << succeeded << " " << failed_edits;
}

// The editors rewrite the file in its written form (comments and spacing go, items before a header
// get [NULL]) keeping its mode and owner (root may give it another group); then random edits
// against a model, the file checked byte for byte and the cache against it after every step.
TEST_F(Cfg, EditsFollowTheModel)
{
    using Items = std::vector<std::pair<std::string, std::string>>;
    std::vector<std::pair<std::string, Items>> model = {{"NULL", {{"lead", "1"}}}, {"A", {{"x", "1"}, {"z", "a b=c"}}}};
    auto render = [&model] {
        std::string s;
        for (auto &[sec, items] : model)
            for (size_t i = 0; i <= items.size(); ++i)
                s += i == 0 ? "[" + sec + "]\n" : items[i - 1].first + "=" + items[i - 1].second + "\n";
        return s;
    };
    std::string p = path("model.ini");
    write_file(p, "; settings\nlead = 1\n\n[A]\n x = 1 \n#note\n", 0640);
    const bool root = geteuid() == 0;
    ASSERT_TRUE(!root || chown(p.c_str(), 0, 2) == 0);
    ASSERT_EQ((Rcs{tovi_cfg_init(p.c_str()), tovi_cfg_file_addItem(p.c_str(), "A", "z", "a b=c")}), Rcs(2, 0));
    ASSERT_EQ(read_file(p), render());
    std::mt19937 rng(99);
    LogCapture cap;  // keeps the expected failures quiet
    for (int step = 0; step < 300; ++step) {
        unsigned n = rng() % 20;
        std::string sec = n == 0 ? "NULL" : n == 1 ? "A" : "S" + std::to_string(n);
        std::string key = "k" + std::to_string(rng() % 30), val = "v" + std::to_string(step);
        auto s = std::find_if(model.begin(), model.end(), [&](auto &e) { return e.first == sec; });
        auto item = s == model.end() ? Items::iterator{}
                                     : std::find_if(s->second.begin(), s->second.end(), [&](auto &e) { return e.first == key; });
        bool has_item = s != model.end() && item != s->second.end();
        int32_t ret = -1, expected = -1;
        unsigned op = rng() % 8;  // add 3 in 8, set 2, delete an item 2, delete a section 1
        if (op < 3) {
            ret = tovi_cfg_file_addItem(p.c_str(), sec.c_str(), key.c_str(), val.c_str());
            if (!has_item && s == model.end())
                model.push_back({sec, {{key, val}}}), expected = 0;
            else if (!has_item)
                s->second.emplace_back(key, val), expected = 0;
        } else if (op < 5) {
            ret = tovi_cfg_file_setItemValue(p.c_str(), sec.c_str(), key.c_str(), val.c_str());
            if (has_item)
                item->second = val, expected = 0;
        } else if (op < 7) {
            ret = tovi_cfg_file_delItem(p.c_str(), sec.c_str(), key.c_str());
            if (has_item && (s->second.erase(item), expected = 0, s->second.empty()))
                model.erase(s);  // its only item: the section goes too
        } else {
            ret = tovi_cfg_file_delSection(p.c_str(), sec.c_str());
            if (s != model.end())
                model.erase(s), expected = 0;
        }
        ASSERT_EQ(ret, expected) << step;
        ASSERT_EQ(read_file(p) + loaded(p), render() + render()) << step;
    }
    EXPECT_FALSE(std::filesystem::exists(p + ".temp"));
    struct stat st {};
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    EXPECT_EQ(std::make_pair(st.st_mode & 07777, root ? st.st_gid : 2u), std::make_pair(0640u, 2u));
}

TEST_F(Cfg, WriteItemSetsInPlaceWithItsQuirks)
{
    std::string p = path("w.ini");
    // Only the item name is compared after a section's first item (A/y changes too, not as a first item);
    // a missing item goes last in its section, a missing section at the end; sections without items
    // vanish, items before a header get [NULL], comments and spacing go, duplicates stay; the last
    // section written starts as "": a first section of that name gets no header.
    const std::array<std::string, 5> cases[] = {  // before, section, item, value, after
        {"[A]\nx=1\ny=2\n[B]\ny=3\n", "B", "y", "9", "[A]\nx=1\ny=9\n[B]\ny=9\n"},
        {"[A]\ny=1\n[B]\ny=2\n", "B", "y", "9", "[A]\ny=1\n[B]\ny=9\n"}, {"[A]\nx=1\n", "C", "n", "new", "[A]\nx=1\n[C]\nn=new\n"},
        {"[A]\nx=1\n[B]\nz=2\n", "A", "n", "new", "[A]\nx=1\nn=new\n[B]\nz=2\n"}, {"", "S", "k", "v", "[S]\nk=v\n"},
        {"; c\nlead = 1\n[E]\n[A]\nx = 1\nx=2\n", "A", "q", "", "[NULL]\nlead=1\n[A]\nx=1\nx=2\nq=\n"},
        {"[]\nk=1\n[A]\nx=1\n", "S", "n", "v", "k=1\n[A]\nx=1\n[S]\nn=v\n"},
    };
    struct stat before {}, after {};
    for (const auto &[text, section, item, value, expected] : cases) {
        write_file(p, text);
        ASSERT_EQ(stat(p.c_str(), &before), 0);
        EXPECT_EQ(tovi_cfg_write_item_to_file(p.c_str(), section.c_str(), item.c_str(), value.c_str()), 0);
        EXPECT_EQ(read_file(p), expected) << text;
        EXPECT_EQ(stat(p.c_str(), &after) == 0 ? after.st_ino : 0, before.st_ino);  // same file, rewritten
    }
    // A missing file is created, private; the cache is not touched.
    std::string q = path("new.ini");
    EXPECT_EQ((Rcs{tovi_cfg_write_item_to_file(q.c_str(), "S", "k", "v"), tovi_cfg_init(q.c_str()),
                   tovi_cfg_write_item_to_file(q.c_str(), "S", "k", "w")}), Rcs(3, 0));
    EXPECT_EQ(read_file(q) + value_ex(q, "S", "k"), "[S]\nk=w\nv");
    EXPECT_EQ(stat(q.c_str(), &after) == 0 ? after.st_mode & 07777 : 0u, 0600u);

    // Bad arguments are refused and leave the file.
    write_file(p, "[A]\nx=1\n");
    uint64_t bytes = cfg_bytes();
    LogCapture cap;
    const char *a = "A", *f = p.c_str();
    std::string long_name(64, 'n'), no_dir = path("no/such/dir.ini");
    EXPECT_EQ((Rcs{tovi_cfg_write_item_to_file(f, a, "x", nullptr), tovi_cfg_write_item_to_file(f, a, long_name.c_str(), "v"),
                   tovi_cfg_write_item_to_file(f, a, "x", "a\nb=c"), tovi_cfg_write_item_to_file(no_dir.c_str(), a, "x", "1")}),
              Rcs(4, -1));
    EXPECT_EQ(read_file(p), "[A]\nx=1\n");
    EXPECT_EQ(cap.texts(),
              (Texts{format("Null pointer found, pFile:%p, pSection:%p, pItemValue:%p.", ptr(f), ptr(a), ptr(nullptr)),
                     // 406: the bounded-copy library's ESNOSPC
                     format("Strcpy_s failed pSection<A>, pItemName<%s>, pItemValue<v>, iRet = 406.", long_name.c_str()),
                     "Invalid name or value, section(A) item(x).", format("Open file (%s) fail,errno %d", no_dir.c_str(), ENOENT)}));
    EXPECT_EQ(cfg_bytes(), bytes);
}
