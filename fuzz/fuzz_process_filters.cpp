// Fuzzes the command filters and the tokenizer. Commands go to a recording
// fake shell, never a real one; the invariant: no command holding a
// forbidden character that its allow list does not name is ever started by
// a safe form, and none that tovi_system's own filter refuses is started by
// tovi_system. The tokenizer is checked against a model.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "tovi_process.h"
#include "tovi_process.hpp"
#include "tovi_str.h"
#include "vrlog.h"

namespace {

const std::string kForbidden("|;&$<>!\n`");

std::vector<std::string> g_started;

pid_t record_start(const char *cmd, int, int, int)
{
    g_started.emplace_back(cmd);
    return 4242;
}

int record_wait(pid_t pid, int *status)
{
    if (pid != 4242)
        abort();
    *status = 7 << 8;
    return 0;
}

constexpr tovi::process::Launcher kRecorder{record_start, record_wait};

bool dangerous(const std::string &cmd, const std::string &allow)
{
    for (char c : cmd)
        if (kForbidden.find(c) != std::string::npos && allow.find(c) == std::string::npos)
            return true;
    return false;
}

bool system_refuses(const std::string &cmd)
{
    if (cmd.size() == 1)
        return false;
    for (size_t i = 0; i + 1 < cmd.size(); ++i)
        if (cmd[i] == ';' || (cmd[i] == '|' && cmd[i + 1] == '|'))
            return true;
    return false;
}

// Starts expected: exactly `cmd` once when `runs`, nothing otherwise.
void expect_started(bool runs, const std::string &cmd)
{
    if (runs ? (g_started.size() != 1 || g_started[0] != cmd) : !g_started.empty())
        abort();
    g_started.clear();
}

void check_filters(const std::string &cmd, const std::string &allow, bool write_mode)
{
    const char *al = allow.empty() ? nullptr : allow.c_str();
    bool bad = dangerous(cmd, allow);
    bool refused = system_refuses(cmd);
    if (isDangerousCmd(cmd.c_str(), al) != (bad ? 1 : 0))
        abort();

    int32_t rc = tovi_system(cmd.c_str());
    if (rc != (refused ? -1 : 7 << 8))
        abort();
    expect_started(!refused, cmd);

    rc = tovi_system_s(cmd.c_str(), al);
    if (rc != (bad ? -29 : refused ? -1 : 7 << 8))
        abort();
    expect_started(!bad && !refused, cmd);

    const char *mode = write_mode ? "w" : "r";
    FILE *f = tovi_popen_s(cmd.c_str(), mode, al);
    if ((f != nullptr) == bad)
        abort();
    expect_started(!bad, cmd);
    if (f != nullptr && tovi_pclose(f) != 7 << 8)
        abort();

    int32_t pid = 0;
    f = tovi_popen_s_with_pid(cmd.c_str(), mode, allow.c_str(), &pid);
    if ((f != nullptr) == bad || (f != nullptr && pid != 4242))
        abort();
    expect_started(!bad, cmd);
    if (f != nullptr)
        fclose(f);
}

std::vector<std::string> model_tokens(const std::string &text, const std::string &delim)
{
    std::vector<std::string> out;
    std::string cur;
    for (char c : text) {
        if (delim.find(c) != std::string::npos) {
            if (!cur.empty())
                out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty())
        out.push_back(cur);
    if (out.empty())
        out.push_back("");  // empty, or delimiters only: one empty token
    return out;
}

void check_tokenizer(const std::string &text, const std::string &delim)
{
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    std::vector<std::string> got;
    for (char *t = tovi_str_tok(buf.data(), delim.c_str()); t != nullptr; t = tovi_str_tok(nullptr, delim.c_str())) {
        if (t < buf.data() || t >= buf.data() + buf.size())
            abort();
        got.emplace_back(t);
        if (got.size() > text.size() + 1)
            abort();
    }
    if (got != model_tokens(text, delim))
        abort();
    for (size_t i = 0; i < text.size(); ++i)
        if (buf[i] != text[i] && (buf[i] != '\0' || delim.find(text[i]) == std::string::npos))
            abort();  // only delimiters are overwritten, and only with NUL
}

std::string c_string(std::string s)
{
    s.resize(std::strlen(s.c_str()));
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    vrlog_loglevel_set(VRLOG_ALL_MODULES, 0);  // the tokenizer's end is logged
    tovi::process::set_launcher(&kRecorder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    bool write_mode = in.ConsumeBool();
    std::string allow = c_string(in.ConsumeRandomLengthString(12));
    std::string delim = c_string(in.ConsumeRandomLengthString(6));
    std::string cmd = c_string(in.ConsumeRandomLengthString(1024));
    std::string text = c_string(in.ConsumeRemainingBytesAsString());

    check_filters(cmd, allow, write_mode);
    check_tokenizer(text, delim);
    check_tokenizer(cmd, kForbidden);

    int32_t u = tovi_str_isuint(cmd.c_str());
    if (u != 0 && u != -1)
        abort();
    (void)tovi_str_tos64(text.c_str());
    return 0;
}
