// The symbol table. It is built once into an immutable snapshot; lookups
// register as readers, so that tovi_symbol_fini frees the snapshot only
// after every lookup that could see it has finished. Readers never block.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tovi_arch.hpp"
#define TOVI_LOG_SOURCE "tovi_symbol"
#include "tovi_log.hpp"
#include "tovi_symbol.h"

namespace {

struct Symbol {
    uint64_t start;
    uint64_t size;
    uint32_t name;    // offset in the name pool
    uint32_t object;  // index of the object's path
};

struct Table {
    std::vector<Symbol> symbols;  // sorted by start
    std::vector<char> names;
    std::vector<std::string> objects;
};

std::atomic<Table *> g_table{nullptr};
std::atomic<uint32_t> g_readers{0};
std::mutex g_build_mutex;

// A read-only view of an ELF file.
class ElfFile {
public:
    explicit ElfFile(const char *path)
    {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return;
        struct stat st {};
        if (fstat(fd, &st) == 0 && st.st_size > static_cast<off_t>(sizeof(Elf64_Ehdr))) {
            void *p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (p != MAP_FAILED) {
                data_ = static_cast<const char *>(p);
                size_ = static_cast<size_t>(st.st_size);
            }
        }
        close(fd);
    }
    ~ElfFile()
    {
        if (data_ != nullptr)
            munmap(const_cast<char *>(data_), size_);
    }
    ElfFile(const ElfFile &) = delete;
    ElfFile &operator=(const ElfFile &) = delete;

    // The section headers, or an empty span when this is no 64-bit ELF file.
    std::pair<const Elf64_Shdr *, size_t> sections() const
    {
        if (data_ == nullptr || std::memcmp(data_, ELFMAG, SELFMAG) != 0 || data_[EI_CLASS] != ELFCLASS64)
            return {nullptr, 0};
        const auto *eh = reinterpret_cast<const Elf64_Ehdr *>(data_);
        if (eh->e_shoff == 0 || !fits(eh->e_shoff, size_t{eh->e_shnum} * sizeof(Elf64_Shdr)))
            return {nullptr, 0};
        return {reinterpret_cast<const Elf64_Shdr *>(data_ + eh->e_shoff), eh->e_shnum};
    }
    bool fits(uint64_t offset, uint64_t length) const { return offset <= size_ && length <= size_ - offset; }
    const char *at(uint64_t offset) const { return data_ + offset; }

private:
    const char *data_ = nullptr;
    size_t size_ = 0;
};

// The symbol section to read: .symtab when present, else .dynsym.
const Elf64_Shdr *pick_symbols(const Elf64_Shdr *sh, size_t count)
{
    const Elf64_Shdr *dynsym = nullptr;
    for (size_t i = 0; i < count; ++i) {
        if (sh[i].sh_type == SHT_SYMTAB)
            return &sh[i];
        if (sh[i].sh_type == SHT_DYNSYM)
            dynsym = &sh[i];
    }
    return dynsym;
}

void read_object(Table &table, const std::string &path, uint64_t base)
{
    ElfFile elf(path.c_str());
    auto [sh, count] = elf.sections();
    const Elf64_Shdr *symsec = sh != nullptr ? pick_symbols(sh, count) : nullptr;
    if (symsec == nullptr || symsec->sh_link >= count)
        return;
    const Elf64_Shdr &strsec = sh[symsec->sh_link];
    if (!elf.fits(symsec->sh_offset, symsec->sh_size) || !elf.fits(strsec.sh_offset, strsec.sh_size))
        return;
    const auto *syms = reinterpret_cast<const Elf64_Sym *>(elf.at(symsec->sh_offset));
    size_t nsyms = symsec->sh_size / sizeof(Elf64_Sym);
    auto object = static_cast<uint32_t>(table.objects.size());
    table.objects.push_back(path);
    for (size_t i = 0; i < nsyms; ++i) {
        const Elf64_Sym &s = syms[i];
        unsigned type = ELF64_ST_TYPE(s.st_info);
        if ((type != STT_FUNC && type != STT_GNU_IFUNC) || s.st_shndx == SHN_UNDEF || s.st_value == 0 ||
            s.st_name >= strsec.sh_size)
            continue;
        const char *name = elf.at(strsec.sh_offset + s.st_name);
        size_t len = strnlen(name, strsec.sh_size - s.st_name);
        table.symbols.push_back({base + s.st_value, s.st_size, static_cast<uint32_t>(table.names.size()), object});
        table.names.insert(table.names.end(), name, name + len);
        table.names.push_back('\0');
    }
}

std::string object_path(const dl_phdr_info *info)
{
    if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0')
        return info->dlpi_name;
    // The main program has no name here.
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    return n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string();
}

int collect(dl_phdr_info *info, size_t, void *arg)
{
    auto *table = static_cast<Table *>(arg);
    std::string path = object_path(info);
    if (!path.empty() && path[0] == '/')
        read_object(*table, path, info->dlpi_addr);
    return 0;
}

Table *build()
{
    auto *table = new Table;
    dl_iterate_phdr(collect, table);
    std::sort(table->symbols.begin(), table->symbols.end(),
              [](const Symbol &a, const Symbol &b) { return a.start < b.start || (a.start == b.start && a.size > b.size); });
    return table;
}

// Keeps the snapshot alive while in scope.
class Reader {
public:
    Reader()
    {
        g_readers.fetch_add(1, std::memory_order_acq_rel);  // pairs with the wait in tovi_symbol_fini
        table_ = g_table.load(std::memory_order_acquire);
    }
    ~Reader() { g_readers.fetch_sub(1, std::memory_order_release); }
    const Table *table() const { return table_; }

private:
    const Table *table_;
};

const Symbol *lookup(const Table &table, uint64_t address)
{
    const auto &v = table.symbols;
    auto it = std::upper_bound(v.begin(), v.end(), address,
                               [](uint64_t a, const Symbol &s) { return a < s.start; });
    // The nearest symbol at or below the address, skipping any that end before it.
    for (int steps = 0; it != v.begin() && steps < 8; ++steps) {
        --it;
        if (address < it->start + std::max<uint64_t>(it->size, 1))
            return &*it;
    }
    return nullptr;
}

// "0x" and the hex digits of v into buf at pos; returns the new position.
size_t put_hex(char *buf, size_t len, size_t pos, uint64_t v)
{
    char digits[16];
    size_t n = 0;
    do {
        digits[n++] = "0123456789abcdef"[v & 0xF];
        v >>= 4;
    } while (v != 0);
    for (const char c : {'0', 'x'})
        if (pos + 1 < len)
            buf[pos++] = c;
    while (n > 0 && pos + 1 < len)
        buf[pos++] = digits[--n];
    return pos;
}

}  // namespace

extern "C" {

uint32_t tovi_symbol_init(void)
{
    std::lock_guard<std::mutex> guard(g_build_mutex);
    if (g_table.load(std::memory_order_relaxed) != nullptr)
        return 0;
    try {
        Table *table = build();
        g_table.store(table, std::memory_order_release);  // publishes the finished snapshot
        return table->symbols.empty() ? TOVI_ERR : 0;
    } catch (...) {
        TOVI_LOG(tovi::log::kError, "Symbol table build failed.");
        return TOVI_ERR;
    }
}

void tovi_symbol_fini(void)
{
    std::lock_guard<std::mutex> guard(g_build_mutex);
    Table *table = g_table.exchange(nullptr, std::memory_order_acq_rel);
    // A lookup that began before the exchange may still use the old snapshot.
    while (g_readers.load(std::memory_order_acquire) != 0)
        tovi::arch::cpu_relax();
    delete table;
}

int tovi_symbol_find(uint64_t address, tovi_symbol_s *record)
{
    if (record == nullptr)
        return -1;
    Reader reader;
    const Table *table = reader.table();
    const Symbol *s = table != nullptr ? lookup(*table, address) : nullptr;
    if (s == nullptr)
        return -1;
    record->file = table->objects[s->object].c_str();
    record->name = table->names.data() + s->name;
    record->addr = s->start;
    record->type = TOVI_SYMBOL_TYPE_FUNC;
    return 0;
}

int tovi_symbol_addr_to_string(uint64_t address, char *buf, size_t len)
{
    if (buf == nullptr || len == 0)
        return -1;
    Reader reader;
    const Table *table = reader.table();
    const Symbol *s = table != nullptr ? lookup(*table, address) : nullptr;
    if (s == nullptr) {
        buf[put_hex(buf, len, 0, address)] = '\0';
        return -1;
    }
    size_t pos = 0;
    for (const char *p = table->names.data() + s->name; *p != '\0' && pos + 1 < len; ++p)
        buf[pos++] = *p;
    if (pos + 1 < len)
        buf[pos++] = '+';
    buf[put_hex(buf, len, pos, address - s->start)] = '\0';
    return 0;
}

}  // extern "C"
