// Configuration files: parse time, lookup time and peak heap of a parse,
// against inih (items kept in an unordered_map, as an application using it
// would), iniparser and GLib's GKeyFile. The files, of about 1 MB and 50 MB,
// are generated in a temporary directory when the program starts.
// bench-pkg: inih
// bench-link: iniparser
// bench-pkg: glib-2.0
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <random>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include <glib.h>
#include <ini.h>
#include <iniparser/iniparser.h>

#include "tovi_cfg.h"

// ---- Heap accounting: every allocation of the process passes here ----

extern "C" {
void *__libc_malloc(size_t);
void __libc_free(void *);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
}

namespace {

std::atomic<int64_t> g_heap{0};
std::atomic<int64_t> g_peak{0};

void charge(void *p)
{
    if (p == nullptr)
        return;
    int64_t now = g_heap.fetch_add(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed) +
                  static_cast<int64_t>(malloc_usable_size(p));
    int64_t peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void uncharge(void *p)
{
    if (p != nullptr)
        g_heap.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
}

}  // namespace

extern "C" {
void *malloc(size_t n)
{
    void *p = __libc_malloc(n);
    charge(p);
    return p;
}
void free(void *p)
{
    uncharge(p);
    __libc_free(p);
}
void *calloc(size_t n, size_t size)
{
    void *p = __libc_calloc(n, size);
    charge(p);
    return p;
}
void *realloc(void *old, size_t n)
{
    uncharge(old);
    void *p = __libc_realloc(old, n);
    charge(p != nullptr ? p : (n == 0 ? nullptr : old));
    return p;
}
void *memalign(size_t align, size_t n)
{
    void *p = __libc_memalign(align, n);
    charge(p);
    return p;
}
void *aligned_alloc(size_t align, size_t n)
{
    return memalign(align, n);
}
int posix_memalign(void **out, size_t align, size_t n)
{
    void *p = memalign(align, n);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}
void *valloc(size_t n)
{
    return memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), n);
}
}

namespace {

// ---- The files ----

struct Corpus {
    std::string path;
    std::vector<std::pair<std::string, std::string>> keys;  // (section, item) to look up
    size_t bytes = 0;
    size_t items = 0;
};

std::string g_dir;
Corpus g_files[2];

// Sections of 40 items, values of 8 to 60 characters: lines well below
// every parser's line limit.
Corpus generate(const std::string &path, size_t target)
{
    Corpus c;
    c.path = path;
    std::mt19937_64 rng(target);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::string text;
    const char alnum[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (size_t sec = 0; c.bytes < target; ++sec) {
        std::string section = "section_" + std::to_string(sec);
        text = "[" + section + "]\n";
        for (int i = 0; i < 40; ++i) {
            std::string key = "item_" + std::to_string(i) + "_" + std::to_string(rng() % 1000);
            size_t len = 8 + rng() % 53;
            std::string value;
            for (size_t k = 0; k < len; ++k)
                value += (k % 9 == 8) ? ' ' : alnum[rng() % 36];
            text += key + " = " + value + "\n";
            ++c.items;
            if (rng() % 64 == 0 && c.keys.size() < 4096)
                c.keys.emplace_back(section, key);
        }
        out << text;
        c.bytes += text.size();
    }
    return c;
}

void setup(const benchmark::State &)
{
    if (!g_dir.empty())
        return;
    char tmpl[] = "/tmp/tovi_bench_cfg_XXXXXX";
    g_dir = mkdtemp(tmpl);
    g_files[0] = generate(g_dir + "/1mb.ini", size_t{1} << 20);
    g_files[1] = generate(g_dir + "/50mb.ini", size_t{50} << 20);
}

struct Cleanup {
    ~Cleanup()
    {
        if (!g_dir.empty())
            std::filesystem::remove_all(g_dir);
    }
} g_cleanup;

// ---- The parsers ----

using InihMap = std::unordered_map<std::string, std::string>;

std::string inih_key(const char *section, const char *name)
{
    std::string key(section);
    key.push_back('\0');
    key += name;
    return key;
}

int inih_store(void *user, const char *section, const char *name, const char *value)
{
    static_cast<InihMap *>(user)->insert_or_assign(inih_key(section, name), value);
    return 1;
}

enum Peer { kTovi, kInih, kIniparser, kGKeyFile };

// One parse; the parsed form is kept in `keep` until release().
struct Parsed {
    InihMap inih;
    dictionary *dict = nullptr;
    GKeyFile *kf = nullptr;
    const char *path = nullptr;
};

bool parse(Peer peer, const Corpus &c, Parsed &p)
{
    p.path = c.path.c_str();
    switch (peer) {
    case kTovi:
        return tovi_cfg_init_ex(p.path) == 0;
    case kInih:
        return ini_parse(p.path, inih_store, &p.inih) == 0;
    case kIniparser:
        p.dict = iniparser_load(p.path);
        return p.dict != nullptr;
    case kGKeyFile:
        p.kf = g_key_file_new();
        return g_key_file_load_from_file(p.kf, p.path, G_KEY_FILE_NONE, nullptr) != 0;
    }
    return false;
}

void release(Peer peer, Parsed &p)
{
    switch (peer) {
    case kTovi:
        tovi_cfg_destroy_ex(p.path);
        break;
    case kInih:
        InihMap().swap(p.inih);
        break;
    case kIniparser:
        iniparser_freedict(p.dict);
        p.dict = nullptr;
        break;
    case kGKeyFile:
        g_key_file_free(p.kf);
        p.kf = nullptr;
        break;
    }
}

void BM_Parse(benchmark::State &state)
{
    auto peer = static_cast<Peer>(state.range(0));
    const Corpus &c = g_files[state.range(1)];
    int64_t peak = 0;
    for (auto _ : state) {
        Parsed p;
        int64_t base = g_heap.load();
        g_peak.store(base);
        if (!parse(peer, c, p)) {
            state.SkipWithError("parse failed");
            break;
        }
        peak = std::max(peak, g_peak.load() - base);
        state.PauseTiming();
        release(peer, p);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.bytes));
    state.counters["peak_MB"] = static_cast<double>(peak) / (1 << 20);
    state.counters["items"] = static_cast<double>(c.items);
}

void BM_Lookup(benchmark::State &state)
{
    auto peer = static_cast<Peer>(state.range(0));
    const Corpus &c = g_files[state.range(1)];
    Parsed p;
    if (!parse(peer, c, p)) {
        state.SkipWithError("parse failed");
        return;
    }
    std::vector<std::string> joined;  // iniparser's "section:item" keys
    for (const auto &[s, k] : c.keys)
        joined.push_back(s + ":" + k);
    char buf[256];
    size_t i = 0;
    size_t misses = 0;
    for (auto _ : state) {
        const auto &[section, item] = c.keys[i];
        bool ok = false;
        switch (peer) {
        case kTovi:
            ok = tovi_cfg_getItemValue(section.c_str(), item.c_str(), buf, sizeof buf) == 0;
            break;
        case kInih: {
            auto it = p.inih.find(inih_key(section.c_str(), item.c_str()));
            ok = it != p.inih.end();
            if (ok)
                std::memcpy(buf, it->second.c_str(), it->second.size() + 1);
            break;
        }
        case kIniparser: {
            const char *v = iniparser_getstring(p.dict, joined[i].c_str(), nullptr);
            ok = v != nullptr;
            if (ok)
                std::strcpy(buf, v);
            break;
        }
        case kGKeyFile: {
            gchar *v = g_key_file_get_value(p.kf, section.c_str(), item.c_str(), nullptr);
            ok = v != nullptr;
            if (ok)
                std::strcpy(buf, v);
            g_free(v);
            break;
        }
        }
        misses += !ok;
        benchmark::DoNotOptimize(buf);
        i = (i + 1) % c.keys.size();
    }
    release(peer, p);
    if (misses != 0)
        state.SkipWithError("a key was not found");
}

const char *const kPeerNames[] = {"tovi", "inih", "iniparser", "GKeyFile"};

void register_all()
{
    for (int size = 0; size < 2; ++size) {
        for (int peer = kTovi; peer <= kGKeyFile; ++peer) {
            // iniparser's dictionary scans every entry on each insert and
            // lookup: a 50 MB file would take a quarter of an hour to load.
            if (peer == kIniparser && size == 1)
                continue;
            std::string name = std::string("Parse/") + kPeerNames[peer] + (size == 0 ? "/1MB" : "/50MB");
            benchmark::RegisterBenchmark(name.c_str(), BM_Parse)
                ->Args({peer, size})
                ->Setup(setup)
                ->Unit(benchmark::kMillisecond)
                ->MinTime(size == 0 ? 0.5 : 3.0)
                ->UseRealTime();
        }
        for (int peer = kTovi; peer <= kGKeyFile; ++peer) {
            if (peer == kIniparser && size == 1)
                continue;
            std::string name = std::string("Lookup/") + kPeerNames[peer] + (size == 0 ? "/1MB" : "/50MB");
            benchmark::RegisterBenchmark(name.c_str(), BM_Lookup)->Args({peer, size})->Setup(setup);
        }
    }
}

const int g_registered = (setenv("G_SLICE", "always-malloc", 1), register_all(), 0);

}  // namespace
