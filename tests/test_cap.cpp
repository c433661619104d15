// Capabilities: names and masks; dropping and leaving root for good inside
// a user namespace made by a forked child (the runner never changes).
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_cap.h"

namespace {

constexpr uint64_t bit(int c) { return 1ull << c; }

// Runs `body` in a grandchild inside a new user namespace whose ids 0 and 1
// map to 100000 and 100001 outside (written by its parent, which runs as root).
std::string in_user_namespace(const std::function<std::string()> &body)
{
    return tovi::test::report_from_child([&]() -> std::string {
        int up[2], go[2];
        CHILD_CHECK(pipe(up) == 0 && pipe(go) == 0);
        const pid_t pid = fork();
        char c = 0;
        if (pid == 0) {
            close(up[0]);
            close(go[1]);
            if (unshare(CLONE_NEWUSER) != 0)
                _exit(77);  // not everywhere: qemu-user, for one, runs threads of its own
            if (write(up[1], "u", 1) != 1 || read(go[0], &c, 1) != 1)
                _exit(3);
            const std::string r = body();
            _exit(r.empty() ? 0 : (std::fprintf(stderr, "%s\n", r.c_str()), 1));
        }
        close(up[1]);
        close(go[0]);
        int status = 0;
        if (read(up[0], &c, 1) != 1)
            return waitpid(pid, &status, 0) == pid && WEXITSTATUS(status) == 77 ? "skip" : "the child died";
        const std::string proc = "/proc/" + std::to_string(pid) + "/";
        CHILD_CHECK(tovi::test::write_file(proc + "uid_map", "0 100000 2\n") &&
                    tovi::test::write_file(proc + "gid_map", "0 100000 2\n") && write(go[1], "g", 1) == 1);
        CHILD_CHECK(waitpid(pid, &status, 0) == pid && status == 0);
        return "";
    });
}

}  // namespace

TEST(Cap, NamesAndMasks)
{
    tovi::test::LogCapture log;
    const struct { const char *names; int rc; uint64_t mask; } cases[] = {
        {"", 0, 0}, {"cap_net_admin", 0, bit(CAP_NET_ADMIN)}, {"cap_bogus", -EINVAL, 0}, {"cap_chown,", -EINVAL, 0},
        {"cap_sys_nice,cap_chown", 0, bit(CAP_SYS_NICE) | bit(CAP_CHOWN)},
    };
    for (const auto &c : cases) {
        uint64_t mask = 77;
        EXPECT_EQ(tovi_cap_parse(c.names, &mask), c.rc) << c.names;
        EXPECT_EQ(mask, c.rc == 0 ? c.mask : 77) << c.names;
    }
    EXPECT_EQ(log.texts(3)[0], "cap: unknown capability in 'cap_bogus'.");
    char buf[32];
    EXPECT_EQ(tovi_cap_format(bit(CAP_CHOWN) | bit(CAP_SYS_NICE), buf, sizeof buf), 22u);
    EXPECT_STREQ(buf, "cap_chown,cap_sys_nice");
    EXPECT_TRUE(tovi_cap_format(bit(CAP_CHOWN) | bit(CAP_SYS_NICE), buf, 12) == 22 && std::string(buf) == "cap_chown");
}

TEST(Cap, LeaveRootKeepingASet)
{
    const std::string report = in_user_namespace([]() -> std::string {
        tovi::test::LogCapture log;
        tovi_cap_set_s s;
        CHILD_CHECK(tovi_cap_get(&s) == 0 && (s.permitted & bit(CAP_SYS_ADMIN)) != 0 && s.effective == s.permitted);
        CHILD_CHECK(tovi_cap_run_without_root(0, 0, "") == -EINVAL);
        CHILD_CHECK(tovi_cap_drop_to("cap_setuid,cap_setgid,cap_setpcap,cap_net_admin,cap_net_bind_service") == 0);
        CHILD_CHECK(tovi_cap_run_without_root(1, 1, "cap_sys_admin") == -EPERM && prctl(PR_CAPBSET_READ, CAP_CHOWN) == 1);
        CHILD_CHECK(tovi_cap_run_without_root(1, 1, "cap_net_admin,cap_net_bind_service") == 0);
        CHILD_CHECK(getuid() == 1 && geteuid() == 1 && getgid() == 1);
        CHILD_CHECK(tovi_cap_get(&s) == 0 && s.permitted == (bit(CAP_NET_ADMIN) | bit(CAP_NET_BIND_SERVICE)));
        CHILD_CHECK(s.effective == s.permitted && s.inheritable == 0);
        CHILD_CHECK(prctl(PR_CAPBSET_READ, CAP_SYS_ADMIN) == 0 && prctl(PR_CAPBSET_READ, CAP_NET_ADMIN) == 1);
        CHILD_CHECK(setuid(0) != 0 && getuid() == 1);
        CHILD_CHECK(tovi_cap_drop_to("cap_net_bind_service") == 0);
        CHILD_CHECK(tovi_cap_drop_to("cap_net_admin") == -EPERM);
        CHILD_CHECK(tovi_cap_setuid_keep(1, 1, "cap_sys_admin") == -EPERM);
        CHILD_CHECK(tovi_cap_get(&s) == 0 && s.permitted == bit(CAP_NET_BIND_SERVICE));
        const std::vector<std::string> want{"cap: cannot run as uid 0 keeping ''.", "cap: cap_sys_admin not permitted.",
                                            "cap: running as uid 1 gid 1 keeping cap_net_admin,cap_net_bind_service.",
                                            "cap: cap_net_admin not permitted.", "cap: cap_sys_admin not permitted."};
        CHILD_CHECK(log.texts() == want);
        return "";
    });
    if (report == "skip")
        GTEST_SKIP() << "no user namespace can be made here";
    EXPECT_EQ(report, "");
}
