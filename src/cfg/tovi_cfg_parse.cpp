// The line parser of the configuration files and its three callbacks:
// loading into a node, looking one item up, and streaming a rewrite.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.hpp"
#include "tovi_fileops.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#define TOVI_LOG_SOURCE "tovi_cfg"
#include "tovi_log.hpp"
#include "tovi_mem.h"

namespace tovi::cfg {

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

bool is_trailing(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Drops every carriage return of s[0, n) in place; the new length.
size_t strip_cr(char *s, size_t n)
{
    auto *cr = static_cast<char *>(std::memchr(s, '\r', n));
    if (cr == nullptr)
        return n;
    char *w = cr;
    const char *r = cr + 1;
    const char *end = s + n;
    while (r < end) {
        const auto *next = static_cast<const char *>(std::memchr(r, '\r', static_cast<size_t>(end - r)));
        size_t run = static_cast<size_t>((next != nullptr ? next : end) - r);
        std::memmove(w, r, run);
        w += run;
        r += run + (next != nullptr ? 1 : 0);
    }
    return static_cast<size_t>(w - s);
}

// A header "[name]" in the first column: rewritten in place as "[%s]" with
// the trimmed name, which becomes the current section.
bool take_header(char *line, size_t len, char *section)
{
    if (len < 2 || len > kHeaderMax || line[len - 1] != ']')
        return false;
    char *b = line + 1;
    char *e = line + len - 1;
    while (b < e && is_blank(*b))
        ++b;
    while (e > b && is_trailing(e[-1]))
        --e;
    auto n = static_cast<size_t>(e - b);
    if (!valid_name(b, n))
        return false;
    std::memmove(line + 1, b, n);
    line[n + 1] = ']';
    line[n + 2] = '\0';
    std::memcpy(section, line + 1, n);  // n <= 63: the header is at most 65 bytes
    section[n] = '\0';
    return true;
}

// One line (its line feed already gone), NUL-terminated at line[len]. Text
// is text: a NUL byte inside ends the line.
int32_t parse_line(char *line, size_t len, bool may_hold_nul, char *section, CfgFileNode *node,
                   ParseCallback callback, void *ctx)
{
    if (may_hold_nul)
        len = strnlen(line, len);
    while (len > 0 && is_trailing(line[len - 1]))
        --len;
    line[len] = '\0';
    size_t lead = 0;
    while (lead < len && is_blank(line[lead]))
        ++lead;
    if (len - lead >= TOVI_CFG_LINE_MAX) {
        TOVI_LOG(log::kDebug, "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.",
                 static_cast<int>(len - lead), line + lead, static_cast<int>(TOVI_CFG_LINE_MAX - 1));
        return kContinue;
    }
    if (len == 0)
        return kContinue;
    if (line[0] == '[') {
        if (take_header(line, len, section))
            return kContinue;
        TOVI_LOG(log::kDebug, "The input string (%s) is not a section string.", line);
    } else if (line[0] == ';' || line[0] == '=') {
        return kContinue;
    }
    auto *eq = static_cast<char *>(std::memchr(line, '=', len));
    if (eq == nullptr) {
        TOVI_LOG(log::kDebug, "Can't find '=' in the string (%s), it's not a valid config item.", line);
        return kContinue;
    }
    char *key = line;
    while (key < eq && is_blank(*key))
        ++key;
    char *key_end = eq;
    while (key_end > key && is_trailing(key_end[-1]))
        --key_end;
    *key_end = '\0';
    auto key_len = static_cast<size_t>(key_end - key);
    if (key_len == 0 || key_len >= TOVI_CFG_NAME_MAX || !valid_name(key, key_len)) {
        TOVI_LOG(log::kDebug, "The input string (%s) is not a valid config item.", key);
        return kContinue;
    }
    char *value = eq + 1;
    while (is_blank(*value))
        ++value;
    auto value_len = static_cast<size_t>(line + len - value);  // the line's tail is trimmed already
    if (value_len >= TOVI_CFG_VALUE_MAX) {
        TOVI_LOG(log::kError, "copy item (%s=%s) fail in parse item.", key, value);
        return kContinue;
    }
    CfgItemNode item;
    list::init(&item.stList);
    std::memcpy(item.acItemName, key, key_len + 1);
    item.pItemValue = value;
    return callback(node, section, &item, ctx);
}

// Appends "[section]\n" (when section is given) and "key=value\n" to the
// rewrite buffer; false (logged) when that does not fit.
bool append(CfgWriteParam *p, const char *section, const char *key, const char *value)
{
    size_t sec_len = section != nullptr ? std::strlen(section) : 0;
    size_t key_len = std::strlen(key);
    size_t value_len = std::strlen(value);
    size_t need = (section != nullptr ? sec_len + 3 : 0) + key_len + value_len + 2;
    size_t room = p->bufSize - p->bufIndex;
    if (need >= room) {  // the text and its NUL, as the formatter would need
        TOVI_LOG(log::kError, "sprintf_s secure function failed, destMax<%d>.", static_cast<int>(room));
        return false;
    }
    char *w = p->pBuffer + p->bufIndex;
    if (section != nullptr) {
        *w++ = '[';
        std::memcpy(w, section, sec_len);
        w += sec_len;
        *w++ = ']';
        *w++ = '\n';
    }
    std::memcpy(w, key, key_len);
    w += key_len;
    *w++ = '=';
    std::memcpy(w, value, value_len);
    w += value_len;
    *w++ = '\n';
    *w = '\0';
    p->bufIndex = static_cast<uint32_t>(w - p->pBuffer);
    return true;
}

constexpr int32_t kFormatFailed = 22;

const char *shown(const char *path)
{
    return path != nullptr ? path : "";
}

}  // namespace

int check_regular(int fd, const char *path)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        TOVI_LOG(log::kError, "Stat file (%s) failed, errno %d", shown(path), errno);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        TOVI_LOG(log::kError, "Config file (%s) is not a regular file, mode 0%o.", shown(path),
                 static_cast<unsigned>(st.st_mode));
        return -1;
    }
    if (static_cast<uint64_t>(st.st_size) > TOVI_CFG_FILE_MAX) {
        TOVI_LOG(log::kError, "Config file (%s) is too large, size %lld limit %u.", shown(path),
                 static_cast<long long>(st.st_size), TOVI_CFG_FILE_MAX);
        return -1;
    }
    return 0;
}

int open_regular(const char *path, int flags, mode_t mode)
{
    // Opening a FIFO with no writer must not wait.
    int fd = fileops::open_nowait(path, flags, mode);
    if (fd >= 0 && check_regular(fd, path) != 0) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// ---- LineReader ----

LineReader::LineReader(int fd, size_t block, size_t line_max, const char *path)
    : fd_(fd), path_(path), block_(block), line_max_(line_max)
{
}

LineReader::~LineReader()
{
    if (buf_ != nullptr)
        TOVI_FREE(buf_);
    if (big_ != nullptr)
        TOVI_FREE(big_);
}

bool LineReader::start()
{
    auto size = static_cast<uint32_t>(block_ + 1);
    buf_ = static_cast<char *>(CFG_MALLOC(size));
    if (buf_ == nullptr) {
        TOVI_LOG(log::kError, "Alloc memory fail, size(%u).", size);
        return false;
    }
    return true;
}

bool LineReader::fill()
{
    if (pos_ > 0) {
        std::memmove(buf_, buf_ + pos_, end_ - pos_);
        end_ -= pos_;
        pos_ = 0;
    }
    while (end_ < block_) {
        ssize_t n = read(fd_, buf_ + end_, block_ - end_);
        if (n > 0 && (total_ += static_cast<uint64_t>(n)) > TOVI_CFG_FILE_MAX) {
            // A file that grows while it is read, or never ends.
            TOVI_LOG(log::kError, "Read file (%s) failed, more than %u bytes.", shown(path_), TOVI_CFG_FILE_MAX);
            return false;
        }
        if (n > 0) {
            // Most files hold neither: their lines then need no second look.
            if (!has_cr_ && std::memchr(buf_ + end_, '\r', static_cast<size_t>(n)) != nullptr)
                has_cr_ = true;
            if (!has_nul_ && std::memchr(buf_ + end_, '\0', static_cast<size_t>(n)) != nullptr)
                has_nul_ = true;
            end_ += static_cast<size_t>(n);
            return true;
        }
        if (n == 0) {
            eof_ = true;
            return true;
        }
        if (errno == EINTR)
            continue;
        // Never taken for the end: an edit would drop the rest of the file.
        TOVI_LOG(log::kError, "Read file (%s) failed, errno %d.", shown(path_), errno);
        return false;
    }
    return true;
}

int LineReader::next(char **line, size_t *len)
{
    for (;;) {
        char *s = buf_ + pos_;
        size_t avail = end_ - pos_;
        auto *lf = avail > scanned_ ? static_cast<char *>(std::memchr(s + scanned_, '\n', avail - scanned_)) : nullptr;
        if (lf != nullptr) {
            auto n = static_cast<size_t>(lf - s);
            pos_ += n + 1;
            scanned_ = 0;
            if (has_cr_)
                n = strip_cr(s, n);  // a block is shorter than line_max_: no cut needed
            s[n] = '\0';
            *line = s;
            *len = n;
            return 1;
        }
        scanned_ = avail;
        if (eof_) {
            pos_ = end_;
            scanned_ = 0;
            size_t n = strip_cr(s, avail);
            if (n == 0)
                return 0;  // nothing but carriage returns before the end
            s[n] = '\0';   // within the block's extra byte at worst
            *line = s;
            *len = n;
            return 1;
        }
        if (pos_ == 0 && end_ == block_) {
            scanned_ = 0;
            return long_line(line, len);
        }
        if (!fill())
            return -1;
    }
}

// A line that fills a whole block: gathered into the big buffer.
int LineReader::long_line(char **line, size_t *len)
{
    if (big_ == nullptr) {
        auto size = static_cast<uint32_t>(line_max_ + 1);
        big_ = static_cast<char *>(CFG_MALLOC(size));
        if (big_ == nullptr) {
            TOVI_LOG(log::kError, "Alloc memory fail, size(%u).", size);
            return -1;
        }
    }
    size_t stored = 0;
    bool done = false;
    while (!done) {
        if (pos_ == end_) {
            pos_ = end_ = 0;
            if (!fill())
                return -1;
            if (end_ == 0)
                break;  // end of file
        }
        char *s = buf_ + pos_;
        size_t avail = end_ - pos_;
        auto *lf = static_cast<char *>(std::memchr(s, '\n', avail));
        size_t seg = lf != nullptr ? static_cast<size_t>(lf - s) + 1 : avail;
        size_t i = 0;
        while (i < seg && stored < line_max_) {
            auto *cr = static_cast<char *>(std::memchr(s + i, '\r', seg - i));
            size_t run = cr != nullptr ? static_cast<size_t>(cr - (s + i)) : seg - i;
            size_t take = run < line_max_ - stored ? run : line_max_ - stored;
            std::memcpy(big_ + stored, s + i, take);
            stored += take;
            i += take;
            if (take < run)
                break;  // full: the rest is the next line
            if (cr != nullptr)
                ++i;  // read, not kept
        }
        pos_ += i;
        done = (lf != nullptr && i == seg) || stored == line_max_;
    }
    if (stored == 0)
        return 0;
    if (big_[stored - 1] == '\n')
        --stored;
    big_[stored] = '\0';
    *line = big_;
    *len = stored;
    return 1;
}

// ---- Parser ----

int32_t tovi_cfg_ini_fd_parse(int fd, CfgFileNode *node, ParseCallback callback, void *ctx, const char *path)
{
    LineReader reader(fd, 64 * 1024, TOVI_CFG_LINE_MAX, path);
    if (!reader.start())
        return -1;
    char section[TOVI_CFG_NAME_MAX] = "NULL";
    for (;;) {
        char *line = nullptr;
        size_t len = 0;
        int got = reader.next(&line, &len);
        if (got == 0)
            return 0;
        if (got < 0)
            return -1;
        int32_t ret = parse_line(line, len, reader.may_hold_nul(), section, node, callback, ctx);
        if (ret != kContinue)
            return ret;
    }
}

CfgFileNode *tovi_cfg_ini_file_parse(const char *path, ParseCallback callback, void *ctx)
{
    if (path == nullptr) {
        TOVI_LOG(log::kError, "Filename null pointer");
        return nullptr;
    }
    if (strnlen(path, TOVI_CFG_PATH_MAX) >= TOVI_CFG_PATH_MAX) {
        TOVI_LOG(log::kError, "File name length too long.");
        return nullptr;
    }
    int fd = open_regular(path, O_RDONLY);
    if (fd < 0) {
        TOVI_LOG(log::kError, "Open file (%s) failed, fd %d errno %d", path, fd, errno);
        return nullptr;
    }
    CfgFileNode *node = parse_fd_node(fd, path, callback, ctx);
    close(fd);
    return node;
}

CfgFileNode *parse_fd_node(int fd, const char *name, ParseCallback callback, void *ctx)
{
    CfgFileNode *node = new_file_node(name);
    if (node == nullptr)
        return nullptr;
    tovi_rwlock_write_lock_mayblock(&node->llRwlock);
    int32_t ret = lseek(fd, 0, SEEK_SET) == 0 ? tovi_cfg_ini_fd_parse(fd, node, callback, ctx, name) : -1;
    lock::rwlock_write_unlock(&node->llRwlock);
    if (ret != 0) {
        free_file_node(node);
        return nullptr;
    }
    return node;
}

int32_t tovi_cfg_file_proc(CfgFileNode *node, const char *section, CfgItemNode *item, void *ctx)
{
    if (node == nullptr || section == nullptr || item == nullptr || item->pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Null pointer found, section or item.");
        return kContinue;
    }
    const char *name = item->acItemName;
    const char *value = item->pItemValue;
    auto *cache = static_cast<LoadCache *>(ctx);
    size_t name_len = strnlen(name, TOVI_CFG_NAME_MAX);
    size_t value_len = std::strlen(value);
    CfgItemNode *fresh = nullptr;
    CfgSectionNode *sec = nullptr;

    if (strnlen(section, TOVI_CFG_NAME_MAX) >= TOVI_CFG_NAME_MAX) {
        TOVI_LOG(log::kError, "Section name length too long.");
        goto fail;
    }
    if (name_len >= TOVI_CFG_NAME_MAX) {
        TOVI_LOG(log::kError, "Item name length too long.");
        goto fail;
    }
    if (value_len >= TOVI_CFG_VALUE_MAX) {
        TOVI_LOG(log::kError, "Item value length too long.");
        goto fail;
    }
    // The item first: a section is never created for an item that fails.
    fresh = new_loaded_item(name, name_len, value, value_len);
    if (fresh == nullptr)
        goto fail;
    if (cache != nullptr && cache->last != nullptr && std::strcmp(cache->last->acSectionName, section) == 0) {
        sec = cache->last;
    } else {
        sec = find_section(node, section, true);
        if (sec == nullptr) {
            sec = new_section(section);
            if (sec == nullptr)
                goto fail;
            append_section(node, sec);
        }
        if (cache != nullptr)
            cache->last = sec;
    }
    if (CfgItemNode *old = put_item(node, sec, fresh))
        free_item(old);
    return kContinue;

fail:
    if (fresh != nullptr)
        free_item(fresh);
    if (cache != nullptr)
        cache->dropped = true;
    TOVI_LOG(log::kError, "Set config [%s] : %s = %s fail.", section, name, value);
    return kContinue;
}

int32_t tovi_cfg_getFromFile_proc(CfgFileNode *, const char *section, CfgItemNode *item, void *ctx)
{
    auto *p = static_cast<CfgGetParam *>(ctx);
    if (std::strcmp(section, p->pSection) != 0 || std::strcmp(item->acItemName, p->pItemName) != 0)
        return kContinue;
    CfgItemResult *r = p->pItemResult;
    if (strcpy_s(r->acItemName, sizeof r->acItemName, item->acItemName) != 0 ||
        strcpy_s(r->acItemValue, sizeof r->acItemValue, item->pItemValue) != 0) {
        TOVI_LOG(log::kError, "Copy item (%s=%s) fail.", item->acItemName, item->pItemValue);
        p->iResult = -1;
        return -1;
    }
    p->iResult = 0;
    return 0;
}

int32_t append_target(CfgWriteParam *p)
{
    bool same = std::strcmp(p->acLastSection, p->acSection) == 0;
    if (!append(p, same ? nullptr : p->acSection, p->acItemName, p->pItemValue))
        return kFormatFailed;
    p->uiWritten = 1;
    return 0;
}

int32_t tovi_write_item_func(CfgFileNode *, const char *section, CfgItemNode *item, void *ctx)
{
    auto *p = static_cast<CfgWriteParam *>(ctx);
    if (p->bufIndex >= p->bufSize) {
        TOVI_LOG(log::kError, "Buffer size : (%d) is more than stantard size (%d).", static_cast<int>(p->bufIndex),
                 static_cast<int>(p->bufSize));
        return -1;
    }
    const char *key = item->acItemName;
    if (std::strcmp(section, p->acLastSection) != 0) {
        if (p->uiWritten == 0 && std::strcmp(p->acLastSection, p->acSection) == 0) {
            // Leaving the target section without having met the item: it goes last.
            if (!append(p, nullptr, p->acItemName, p->pItemValue))
                return kFormatFailed;
            p->uiWritten = 1;
        }
        bool target = std::strcmp(section, p->acSection) == 0 && std::strcmp(key, p->acItemName) == 0;
        if (!append(p, section, key, target ? p->pItemValue : item->pItemValue))
            return kFormatFailed;
        if (target)
            p->uiWritten = 1;
        errno_t ret = strcpy_s(p->acLastSection, sizeof p->acLastSection, section);
        if (ret != 0) {
            TOVI_LOG(log::kError, "strcpy_s secure function failed, ret<%d>, destMax<%d>.", static_cast<int>(ret),
                     static_cast<int>(sizeof p->acLastSection));
            return -1;
        }
        return kContinue;
    }
    // Same section as the line before: only the item name is compared, so a
    // later item of the target's name in any section takes the new value.
    bool target = std::strcmp(key, p->acItemName) == 0;
    if (!append(p, nullptr, key, target ? p->pItemValue : item->pItemValue))
        return kFormatFailed;
    if (target)
        p->uiWritten = 1;
    return kContinue;
}

}  // namespace tovi::cfg
