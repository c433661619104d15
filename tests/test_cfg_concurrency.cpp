// Configuration files under concurrent use: lookups while the same file is
// reloaded and edited, and several processes editing one file.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "tovi_cfg.h"

namespace {

struct TempDir {
    char path[32] = "/tmp/tovi_cfgc_XXXXXX";
    TempDir() { EXPECT_NE(mkdtemp(path), nullptr); }
    ~TempDir() { std::filesystem::remove_all(path); }
};

// A value readers can recognise as whole: "gen-" and a number.
bool whole(const char *v)
{
    return std::strncmp(v, "gen-", 4) == 0 && v[4] != '\0' && std::strspn(v + 4, "0123456789") == std::strlen(v + 4);
}

int32_t count_items(const char *section, const char *item, const char *value, void *arg)
{
    if (item != nullptr && std::strcmp(section, "S") == 0 && whole(value))
        ++*static_cast<int *>(arg);
    return 0;
}

}  // namespace

TEST(CfgConcurrency, OneFileUsedByThreadsThenByProcesses)
{
    TempDir dir;
    const std::string path = std::string(dir.path) + "/live.ini";
    const char *p = path.c_str();
    std::ofstream(path) << "[S]\nk0=gen-0\nk1=gen-0\nk2=gen-0\nk3=gen-0\nk4=gen-0\nk5=gen-0\nk6=gen-0\nk7=gen-0\n";
    ASSERT_EQ(tovi_cfg_init(p), 0);

    std::atomic<bool> done{false};
    std::atomic<long> bad{0}, lookups{0};
    auto reader = [&](bool ex) {  // every value whole, every walk sees all items
        char buf[64];
        for (int i = 0; !done.load(); ++i, ++lookups) {
            const std::string k = "k" + std::to_string(i % 8);
            const int32_t rc = ex ? tovi_cfg_getItemValue_ex(p, "S", k.c_str(), buf, sizeof buf)
                                  : tovi_cfg_getItemValue("S", k.c_str(), buf, sizeof buf);
            int n = 8;
            if (i % 16 == 0 && tovi_cfg_walk(p, count_items, &(n = 0)) != 0)
                n = -1;
            bad += rc != 0 || !whole(buf) || n != 8;
        }
    };
    std::thread r1(reader, false), r2(reader, true);

    // Every kind of edit in turn, and a reload (the use count goes up and down).
    const std::function<int32_t(const char *, const char *)> edits[] = {
        [&](const char *, const char *) { return tovi_cfg_init_ex(p) | tovi_cfg_destroy_ex(p); },
        [&](const char *k, const char *v) { return tovi_cfg_file_setItemValue(p, "S", k, v); },
        [&](const char *k, const char *v) { return tovi_cfg_setItemValue("S", k, v); },
        [&](const char *k, const char *v) { return tovi_cfg_setItemValue_ex(p, "S", k, v); },
        [&](const char *, const char *v) {
            return tovi_cfg_file_addItem(p, "T", "t", v) | tovi_cfg_file_delSection(p, "T");
        },
    };
    int failed_edits = 0;
    for (int gen = 1; gen <= 60; ++gen) {
        const std::string k = "k" + std::to_string(gen % 8), v = "gen-" + std::to_string(gen);
        failed_edits += edits[gen % 5](k.c_str(), v.c_str()) != 0;
    }
    while (lookups.load() < 2000)  // the readers see the last state too
        std::this_thread::yield();
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(failed_edits, 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(tovi_cfg_destroy(), 0);

    // Three processes add to a fresh file at once, two through the temporary
    // file and one in place: the advisory lock serialises them, no edit is lost.
    std::ofstream(path, std::ios::trunc) << "[S]\nstart=1\n";
    std::set<std::string> expected{"[S]", "start=1"}, seen;
    pid_t children[3];
    for (int who = 0; who < 3; ++who) {
        const std::string section(1, static_cast<char>('A' + who)), prefix(1, static_cast<char>('a' + who));
        expected.insert("[" + section + "]");
        for (int i = 0; i < 25; ++i)
            expected.insert(prefix + std::to_string(i) + "=v");
        children[who] = fork();
        ASSERT_GE(children[who], 0);
        if (children[who] == 0) {
            auto *edit = who == 2 ? tovi_cfg_write_item_to_file : tovi_cfg_file_addItem;
            int failures = 0;
            for (int i = 0; i < 25; ++i)
                failures += edit(p, section.c_str(), (prefix + std::to_string(i)).c_str(), "v") != 0;
            _exit(failures);
        }
    }
    int status = -1;
    for (pid_t pid : children)
        EXPECT_TRUE(waitpid(pid, &status, 0) == pid && status == 0) << status;  // exited, no edit failed
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        seen.insert(line);
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(std::filesystem::exists(path + ".temp"));
}
