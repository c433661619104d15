// String helpers and the process-wide tokenizer.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#define TOVI_LOG_SOURCE "tovi_str"
#include "tovi_log.hpp"
#include "tovi_str.h"

namespace {

// The tokenizer's position in the text it is working through; shared by
// every thread on purpose (one caller tokenizes at a time).
char *g_tok_saved;

bool has_hex_prefix(const char *s)
{
    return s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
}

bool is_delim(char c, const char *delim)
{
    return c != '\0' && std::strchr(delim, c) != nullptr;
}

}  // namespace

extern "C" {

int32_t tovi_str_isuint(const char *s)
{
    if (s == nullptr)
        return -22;
    if (has_hex_prefix(s)) {
        for (const char *p = s + 2; *p != '\0'; ++p)
            if (std::isxdigit(static_cast<unsigned char>(*p)) == 0)
                return -1;
        return 0;
    }
    for (const char *p = s; *p != '\0'; ++p)
        if (std::isdigit(static_cast<unsigned char>(*p)) == 0)
            return -1;
    return 0;
}

uint64_t tovi_str_tou64(const char *s)
{
    if (s == nullptr) {
        TOVI_LOG(tovi::log::kError, "Strtou64 fail because pStr is null.");
        return 0;
    }
    int base = has_hex_prefix(s) ? 16 : 10;
    errno = 0;
    unsigned long long value = std::strtoull(s, nullptr, base);
    int err = errno;
    if (err != 0) {
        char text[128];
        const char *msg = strerror_r(err, text, sizeof text);
        TOVI_LOG(tovi::log::kError, "Strtou64 fail because of error %d, %s.", err, msg);
    }
    return static_cast<uint64_t>(value);
}

int64_t tovi_str_tos64(const char *s)
{
    if (s == nullptr) {
        TOVI_LOG(tovi::log::kInfo, "Strtos64 fail because pStr is null.");
        return 0;
    }
    if (s[0] == '-')
        return -static_cast<int64_t>(tovi_str_tou64(s + 1));
    return static_cast<int64_t>(tovi_str_tou64(s));
}

void tovi_str_tolower(char *s)
{
    if (s == nullptr)
        return;
    for (; *s != '\0'; ++s)
        *s = static_cast<char>(std::tolower(static_cast<unsigned char>(*s)));
}

char *check_parameter(char *s, char **saved, const char *delim)
{
    if (delim == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param(%p)  is null.", static_cast<const void *>(delim));
        return nullptr;
    }
    if (s != nullptr)
        return s;
    char *from = saved != nullptr ? *saved : nullptr;
    if (from == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param(%p %p )  is null.", static_cast<void *>(s),
                 static_cast<void *>(from));
        return nullptr;
    }
    return from;
}

char *tovi_str_tok(char *s, const char *delim)
{
    char *start = check_parameter(s, &g_tok_saved, delim);
    if (start == nullptr)
        return nullptr;
    if (*start == '\0') {
        g_tok_saved = nullptr;
        return start;
    }
    char *p = start;
    while (*p != '\0') {
        if (!is_delim(*p, delim)) {
            ++p;
            continue;
        }
        char *run = p;
        while (is_delim(*p, delim))
            *p++ = '\0';
        if (*p == '\0') {
            g_tok_saved = nullptr;
            return start;
        }
        if (run != start) {
            g_tok_saved = p;
            return start;
        }
        start = p;  // leading delimiters: the token begins after them
    }
    g_tok_saved = nullptr;
    return start;
}

}  // extern "C"
