// The private-system-call registry, and its loopback server and client in a
// network namespace of the test's own (port 5583 of the host is never used).
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "shell_recorder.hpp"
#include "tovi_cfg.h"
#include "tovi_syscall.h"
#include "tovi_syscall.hpp"

using namespace tovi::test;
using Texts = std::vector<std::string>;

namespace {

// Echoes its input; command 0x1402 claims one byte more than it was given room for.
int32_t echo(uint32_t cmd, tovi_syscall_call_s *c)
{
    c->uiOutLen = cmd == 0x1402 ? c->uiOutBufLen + 1 : c->uiInLen;
    for (uint32_t i = 0; i < c->uiInLen && i < c->uiOutBufLen; ++i)
        c->pucOutBuf[i] = c->pucInBuf[i];
    return static_cast<int32_t>(cmd) - 0x1400;
}

const tovi_syscall_entry_s kGroup20[] = {{0x1401, TOVI_SYSCALL_INDIRECT, echo}, {0x1402, TOVI_SYSCALL_DIRECT, echo}};

}  // namespace

TEST(Syscall, RegistryRefusesBadGroupsAndKeepsTheTableUnchanged)
{
    LogCapture cap;
    const tovi_syscall_entry_s wrongType[] = {{0x1401, 2, echo}}, wrongGroup[] = {{0x0301, 0, echo}}, noFn[] = {{0x1401, 1, nullptr}};
    struct Bad {
        uint32_t group;
        const tovi_syscall_entry_s *calls;
        uint32_t count;
        Texts errors;
    } bad[] = {
        {32, kGroup20, 1, {"Param 1 v_uiGroupId 32 is larger than 32."}},
        {20, nullptr, 1, {"Parm 2(v_pstSysCalls) is NULL.", "Check the input param failed."}},
        {20, kGroup20, 256, {"Parm 3 256 is larger than 255.", "Check the input param failed."}},
        {20, wrongType, 1, {"Syscall type is wrong, it should be direct(0) or indirect(1).", "Check the input param failed."}},
        {2, wrongGroup, 1, {"Syscall's cmd 769  is wrong, it should be v_uiGroupId(2).", "Check the input param failed."}},
        {20, noFn, 1, {"pfnSysCall is NULL.", "Check the input param failed."}},
    };
    for (const Bad &b : bad) {
        cap.clear();
        EXPECT_EQ(NUBO_RegSysCall(b.group, b.calls, b.count), -1) << b.errors[0];
        EXPECT_EQ(cap.texts(3), b.errors);
        EXPECT_EQ(NUBO_FindSysCall(0x1401), nullptr);
    }
    cap.clear();
    ASSERT_EQ(NUBO_RegSysCall(20, kGroup20, 2), 0);
    EXPECT_EQ(NUBO_RegSysCall(20, kGroup20, 1), -1);
    EXPECT_EQ(cap.texts(6), (Texts{"NUBO reg syscall begin.", "NUBO reg syscall check groupid(20).", "NUBO reg syscall check rereg, uicount(2).",
                                   "NUBO reg syscall alloc memory.", "NUBO reg syscall begin.", "NUBO reg syscall check groupid(20).",
                                   "NUBO reg syscall check rereg, uicount(1).", "NUBO register syscall 20."}));
    const tovi_syscall_entry_s *e = NUBO_FindSysCall(0x1402);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->uiType, TOVI_SYSCALL_DIRECT);
    EXPECT_NE(e, &kGroup20[1]);  // a copy
    EXPECT_EQ(NUBO_FindSysCall(0x1403), nullptr);
    EXPECT_EQ(cap.texts(3), Texts{});
    EXPECT_EQ(NUBO_UnRegSysCall(33), -1);
    EXPECT_EQ(NUBO_UnRegSysCall(20), 0);
    EXPECT_EQ(NUBO_FindSysCall(0x1401), nullptr);
    EXPECT_EQ(NUBO_FindSysCall(0x2001), nullptr);
    EXPECT_EQ(cap.texts(3), (Texts{"Param 1 v_uiGroupId 33 is larger than 32.", "Syscall not registered usr, cmd = (0x1401).",
                                   "Syscall not registered usr, cmd = (0x2001)."}));
}

namespace {

// Runs body in a child with a network namespace of its own, loopback up.
void in_private_net(const std::function<std::string()> &body)
{
    std::string failure = report_from_child([&]() -> std::string {
        if (unshare(CLONE_NEWNET) != 0)
            return "SKIP";
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
        if (s < 0 || ioctl(s, SIOCSIFFLAGS, &ifr) != 0)
            return "SKIP";
        close(s);
        return body();
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private network namespace here";
    EXPECT_EQ(failure, "");
}

int raw_connect()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, htons(TOVI_SYSCALL_PORT), {htonl(INADDR_LOOPBACK)}, {}};
    return connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? fd : -1;
}

// Sends a request header (and len bytes of payload up to 600) and returns the result of a reply without
// payload, or -2 when the connection closed.
int64_t raw_call(int fd, uint32_t cmd, uint64_t len, uint64_t cap)
{
    unsigned char h[32], pad[600] = {};
    tovi::syscall::encode({cmd, len, cap, 0}, h);
    if (tovi::syscall::send_all(fd, h, 32) != 0 || tovi::syscall::send_all(fd, pad, len < 600 ? len : 600) != 0 ||
        tovi::syscall::recv_all(fd, h, 32) != 0)
        return -2;
    return tovi::syscall::decode(h).result;
}

// Names of this process's threads that belong to the server.
int server_threads()
{
    int n = 0;
    DIR *d = opendir("/proc/self/task");
    for (dirent *e; d != nullptr && (e = readdir(d)) != nullptr;)
        n += e->d_name[0] != '.' && read_file(std::string("/proc/self/task/") + e->d_name + "/comm").rfind("syscall_", 0) == 0;
    if (d != nullptr)
        closedir(d);
    return n;
}

}  // namespace

// One process starts, serves and stops its server; hostile requests are refused and the service goes on.
TEST(Syscall, ServerLifeCycleWithHostilePeers)
{
    in_private_net([]() -> std::string {
        const int fds_before = open_fds();
        CHILD_CHECK(NUBO_SysCall(0x1401, nullptr) == -1);  // nobody listens yet
        CHILD_CHECK(NUBO_RegSysCall(20, kGroup20, 2) == 0 && NUBO_PrivateSysCallInit() == 0 && NUBO_PrivateSysCallIntfInit() == 0);
        LogCapture cap;
        uint8_t in[8] = {1, 2, 3, 4, 5, 6, 7, 8}, out[4] = {};
        tovi_syscall_call_s c{8, 4, 0, in, out};
        CHILD_CHECK(NUBO_SysCall(0x1401, &c) == -1 && c.uiOutLen == 0);  // 8 bytes back, room for 4: dropped
        c.uiInLen = 3;
        CHILD_CHECK(NUBO_SysCall(0x1401, &c) == 1 && c.uiOutLen == 3 && out[2] == 3);  // the same connection goes on
        CHILD_CHECK(NUBO_SysCall(0x1405, &c) == -1 && c.uiOutLen == 0 && NUBO_SysCall(0x401, &c) == -1);
        int stalled = raw_connect(), hostile = raw_connect();
        CHILD_CHECK(stalled >= 0 && hostile >= 0 && send(stalled, "\x01\x14", 2, 0) == 2);  // half a header, then silence
        CHILD_CHECK(raw_call(hostile, 0x1401, 600, 4) == -1 && raw_call(hostile, 0x1401, 4, 511) == -1 && raw_call(hostile, 0x1402, 0, 510) == -1);
        CHILD_CHECK(raw_call(hostile, 0x1401, 2000000, 0) == -2);  // too much to drop: closed
        CHILD_CHECK(NUBO_SysCall(0x1401, &c) == 1);  // served while a connection stalls
        CHILD_CHECK(cap.texts(3) == (Texts{"syscall_user: buffer length too small, hdr.len=8 uiOutBufLen=4",
                                           "Syscall not registered usr, cmd = (0x1405).",
                                           "Syscall request refused, cmd = (0x1401), len = 600, outlen = 4.",
                                           "Syscall request refused, cmd = (0x1401), len = 4, outlen = 511.",
                                           "Syscall reply refused, cmd = (0x1402), outlen = 511.",
                                           "Syscall request refused, cmd = (0x1401), len = 2000000, outlen = 0."}));
        if (getuid() == 0) {  // another user's connection is closed before it is served
            pid_t pid = fork();
            if (pid == 0)
                _exit(setuid(65534) == 0 && raw_call(raw_connect(), 0x1401, 0, 0) == -2 ? 0 : 1);
            int status = -1;
            CHILD_CHECK(waitpid(pid, &status, 0) == pid && status == 0 && cap.contains("Syscall connection of uid 65534 refused."));
        }
        uid_t diag = 1, proc = 1;  // both ways of finding a peer's owner agree
        CHILD_CHECK(tovi::syscall::peer_uid(stalled, &diag) == 0 && tovi::syscall::peer_uid(stalled, &proc, true) == 0 &&
                    diag == geteuid() && proc == diag);
        CHILD_CHECK(wait_for([] { return server_threads() == 3; }));  // the accept thread, our client's and the stalled worker
        NUBO_PrivateSysCallIntfExit();
        CHILD_CHECK(wait_for([] { return server_threads() == 0; }));
        close(stalled);
        close(hostile);
        CHILD_CHECK(NUBO_SysCall(0x1401, &c) == -1);  // the client saw its connection end
        CHILD_CHECK(NUBO_PrivateSysCallInit() == 0 && NUBO_SysCall(0x1401, &c) == 1);  // and starts afresh
        NUBO_PrivateSysCallIntfExit();
        CHILD_CHECK(NUBO_SysCall(0x1401, &c) == -1);
        CHILD_CHECK(open_fds() == fds_before && wait_for([] { return server_threads() == 0; }));
        return "";
    });
}

// The connection bound and the stall limit come from the library's settings; excess connections are closed at
// once, one that stalls inside a message after the limit.
TEST(Syscall, ConnectionsBeyondTheBoundOrStalledAreClosed)
{
    in_private_net([]() -> std::string {
        const std::string ini = "/tmp/tovi_syscall_test_" + std::to_string(getpid()) + ".ini";
        CHILD_CHECK(write_file(ini, "[TOVI]\nSYSCALL_MAX_CONNECTIONS=2\nSYSCALL_STALL_MS=100\n") && tovi_cfg_init_ex(ini.c_str()) == 0);
        unlink(ini.c_str());
        LogCapture cap;
        CHILD_CHECK(NUBO_RegSysCall(20, kGroup20, 2) == 0 && NUBO_PrivateSysCallInit() == 0);
        int a = raw_connect(), b = raw_connect(), c = raw_connect();
        CHILD_CHECK(raw_call(a, 0x1401, 0, 0) == 1 && raw_call(b, 0x1401, 0, 0) == 1 && raw_call(c, 0x1401, 0, 0) == -2);
        close(a);
        CHILD_CHECK(wait_for([&] { int d = raw_connect(); bool ok = raw_call(d, 0x1401, 0, 0) == 1; close(d); return ok; }));
        usleep(300000);  // idling between messages is allowed
        char h[32] = {1, 0x14}, got = 0;
        CHILD_CHECK(send(b, h, 32, 0) == 32 && recv(b, h, 32, 0) == 32);
        const auto start = std::chrono::steady_clock::now();
        CHILD_CHECK(send(b, h, 31, 0) == 31 && recv(b, &got, 1, 0) == 0);  // a header one byte short: closed after the limit
        CHILD_CHECK(std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(100));
        close(b);
        close(c);
        NUBO_PrivateSysCallIntfExit();
        CHILD_CHECK(cap.contains("Syscall connection refused, 2 connections served already."));
        return "";
    });
}
