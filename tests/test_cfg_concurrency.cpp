// Configuration files under concurrent use: lookups while the same file is
// reloaded and edited, and several processes editing one file.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tovi_cfg.h"

namespace {

constexpr int kItems = 8;

class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/tovi_cfgc_XXXXXX";
        path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void spit(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string key(int i)
{
    return "k" + std::to_string(i);
}

// A value readers can recognise as whole: "gen-" and a number.
bool whole(const char *v)
{
    if (std::strncmp(v, "gen-", 4) != 0 || v[4] == '\0')
        return false;
    for (const char *p = v + 4; *p != '\0'; ++p)
        if (*p < '0' || *p > '9')
            return false;
    return true;
}

int32_t count_items(const char *section, const char *item, const char *value, void *arg)
{
    if (item != nullptr && std::strcmp(section, "S") == 0 && whole(value))
        ++*static_cast<int *>(arg);
    return 0;
}

}  // namespace

TEST(CfgConcurrency, LookupsStayWholeWhileTheFileIsReloadedAndEdited)
{
    TempDir dir;
    std::string p = dir.file("live.ini");
    std::string text = "[S]\n";
    for (int i = 0; i < kItems; ++i)
        text += key(i) + "=gen-0\n";
    spit(p, text);
    ASSERT_EQ(tovi_cfg_init(p.c_str()), 0);

    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::atomic<long> lookups{0};
    auto reader = [&](bool ex) {
        char buf[64];
        int i = 0;
        while (!done.load(std::memory_order_acquire)) {
            std::string k = key(i++ % kItems);
            int32_t ret = ex ? tovi_cfg_getItemValue_ex(p.c_str(), "S", k.c_str(), buf, sizeof buf)
                             : tovi_cfg_getItemValue("S", k.c_str(), buf, sizeof buf);
            if (ret != 0 || !whole(buf))
                bad.fetch_add(1);
            if (i % 16 == 0) {
                int n = 0;
                if (tovi_cfg_walk(p.c_str(), count_items, &n) != 0 || n != kItems)
                    bad.fetch_add(1);
            }
            lookups.fetch_add(1, std::memory_order_relaxed);
        }
    };
    std::thread r1(reader, false);
    std::thread r2(reader, true);

    int failed_edits = 0;
    for (int gen = 1; gen <= 60; ++gen) {
        std::string v = "gen-" + std::to_string(gen);
        std::string k = key(gen % kItems);
        switch (gen % 5) {
        case 0:
            failed_edits += tovi_cfg_init_ex(p.c_str()) != 0;  // reload (the count goes up)
            failed_edits += tovi_cfg_destroy_ex(p.c_str()) != 0;
            break;
        case 1:
            failed_edits += tovi_cfg_file_setItemValue(p.c_str(), "S", k.c_str(), v.c_str()) != 0;
            break;
        case 2:
            failed_edits += tovi_cfg_setItemValue("S", k.c_str(), v.c_str()) != 0;
            break;
        case 3:
            failed_edits += tovi_cfg_setItemValue_ex(p.c_str(), "S", k.c_str(), v.c_str()) != 0;
            break;
        default:
            failed_edits += tovi_cfg_file_addItem(p.c_str(), "T", ("t" + std::to_string(gen)).c_str(), v.c_str()) != 0;
            failed_edits += tovi_cfg_file_delSection(p.c_str(), "T") != 0;
            break;
        }
    }
    // Let the readers see the last state too.
    while (lookups.load() < 2000)
        std::this_thread::yield();
    done.store(true, std::memory_order_release);
    r1.join();
    r2.join();
    EXPECT_EQ(failed_edits, 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(tovi_cfg_destroy(), 0);
}

// Three processes edit one file at once, two through the temporary file and
// one in place: the advisory lock serialises them and every edit survives.
TEST(CfgConcurrency, ProcessesEditingOneFileLoseNoEdit)
{
    TempDir dir;
    std::string p = dir.file("shared.ini");
    spit(p, "[S]\nstart=1\n");
    constexpr int kEdits = 25;
    std::vector<pid_t> children;
    for (int who = 0; who < 3; ++who) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < kEdits; ++i) {
                std::string name = std::string(1, static_cast<char>('a' + who)) + std::to_string(i);
                std::string section(1, static_cast<char>('A' + who));
                failures += (who == 2 ? tovi_cfg_write_item_to_file(p.c_str(), section.c_str(), name.c_str(), "v")
                                      : tovi_cfg_file_addItem(p.c_str(), section.c_str(), name.c_str(), "v")) != 0;
            }
            _exit(failures);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }

    std::set<std::string> seen;
    std::stringstream in(slurp(p));
    for (std::string line; std::getline(in, line);)
        seen.insert(line);
    EXPECT_TRUE(seen.count("start=1"));
    for (int who = 0; who < 3; ++who) {
        EXPECT_TRUE(seen.count("[" + std::string(1, static_cast<char>('A' + who)) + "]"));
        for (int i = 0; i < kEdits; ++i)
            EXPECT_TRUE(seen.count(std::string(1, static_cast<char>('a' + who)) + std::to_string(i) + "=v"))
                << who << " " << i;
    }
    EXPECT_EQ(seen.size(), 1u + 1u + 3u * (1u + kEdits));
    EXPECT_FALSE(std::filesystem::exists(p + ".temp"));
}
