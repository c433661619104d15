// Shared memory: POSIX objects in a private, small /dev/shm; System V segments in a private IPC namespace.
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_shm.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

// The permissions /proc/self/maps shows for the mapping at `addr` ("rw-s").
std::string perms_of(const void *addr)
{
    const std::string maps = "\n" + tovi::test::read_file("/proc/self/maps");
    const size_t at = maps.find(tovi::test::fmt("\n%lx-", reinterpret_cast<unsigned long>(addr)));
    return at == std::string::npos ? "<unmapped>" : maps.substr(maps.find(' ', at) + 1, 4);
}

std::string listing()
{
    testing::internal::CaptureStdout();
    tovi_shm_show(std::printf);
    return std::fflush(stdout), testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(Shm, PosixObjectsFollowTheirAccessModeAndReserveTheirPages)
{
    EXPECT_CHILD_REPORT(tovi::test::in_private_mounts(0, {"/dev/shm:size=64k"}, []() -> std::string {
        LogCapture cap;
        umask(0);
        auto *first = static_cast<char *>(tovi_shm_create("a", O_CREAT | O_RDWR, 8192));
        CHILD_CHECK(first != nullptr && perms_of(first) == "rw-s" && (first[8191] = 'x'));
        struct stat st {};  // reserved, not sparse
        CHILD_CHECK(stat("/dev/shm/a", &st) == 0 && (st.st_mode & 0777) == TOVI_SHM_DEFAULT_MODE && st.st_size == 8192 && st.st_blocks * 512 >= 8192);
        const struct {
            const char *name;
            int oflag;
            size_t size;
            const char *perms;  // nullptr: no mapping
            Texts said;
        } cases[] = {
            {"a", O_RDWR, 8192, "rw-s", {}},
            {"a", O_RDONLY, 8192, "r--s", {}},
            {"a", O_CREAT | O_EXCL | O_RDWR, 8192, nullptr, {}},
            {"a", O_WRONLY, 8192, nullptr, {"Mmap shm mem fail, errno<13>."}},
            {"none", O_RDWR, 4096, nullptr, {"Open shm fail, fd<-1> errno<2>."}},
            {"big", O_CREAT | O_RDWR, 1 << 20, nullptr, {"Fallocate shm fail, ret<-1> errno<28>."}},
            {nullptr, O_CREAT | O_RDWR, 4096, nullptr, {}},
        };
        for (const auto &c : cases) {
            cap.clear();
            auto *p = static_cast<char *>(tovi_shm_create_ext(c.name, c.oflag, 0660, c.size));
            if (c.perms == nullptr ? p != nullptr : p == nullptr || perms_of(p) != c.perms || p[8191] != 'x' || cap.texts() != c.said)
                return tovi::test::fmt("case %s %d: got %s", c.name, c.oflag, p == nullptr ? "NULL" : perms_of(p).c_str());
        }
        // No access: the kernel refuses to map a descriptor without read or
        // write access; qemu-user grants the mapping, with no access.
        cap.clear();
        auto *none = static_cast<char *>(tovi_shm_create_ext("a", O_ACCMODE, 0660, 8192));
        const Texts refused{"Oflag open failed, oflag<3>.", "Mmap shm mem fail, errno<13>."};
        CHILD_CHECK((none == nullptr ? cap.texts() == refused : perms_of(none) == "---s" && cap.texts() == Texts{refused[0]}));
        // One entry per name (the last mapping); "big" never was mapped.
        const std::string list = listing();
        CHILD_CHECK(list.rfind("Shared memory of this process:\n  posix  a    ", 0) == 0 && list.find(" 8192 bytes at 0x") != std::string::npos);
        CHILD_CHECK(list.find("posix", 40) == std::string::npos && list.find("big") == std::string::npos);
        // Removing the name: the mapping stays, the name and the listing entry go.
        cap.clear();
        CHILD_CHECK(tovi_shm_destroy("a") == 0 && first[8191] == 'x' && access("/dev/shm/a", F_OK) != 0);
        CHILD_CHECK(tovi_shm_destroy("a") == TOVI_ERR && tovi_shm_destroy(nullptr) == TOVI_ERR);
        CHILD_CHECK(cap.texts() == Texts{"Destroy shm fail, ret<-1> errno<2>."});
        CHILD_CHECK(listing() == "Shared memory of this process:\n  none\n");
        return "";
    }));
}

TEST(Shm, SystemVSegmentsAttachAndGo)
{
    EXPECT_CHILD_REPORT(tovi::test::in_private_mounts(CLONE_NEWIPC, {}, []() -> std::string {
        int32_t id = tovi_shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
        auto *a = static_cast<char *>(tovi_shmat(id)), *b = static_cast<char *>(tovi_shmat(id));
        CHILD_CHECK(id >= 0 && a != nullptr && b != nullptr && a != b);
        a[100] = 'y';
        CHILD_CHECK(b[100] == 'y' && tovi_shmat(-1) == nullptr);
        char line[128];
        std::snprintf(line, sizeof line, "  sysv   key 0x00000000 id %-10d         4096 bytes\n", id);
        CHILD_CHECK(listing() == std::string("Shared memory of this process:\n") + line);
        CHILD_CHECK(tovi_shmdel(id) == 0 && listing().find("sysv") == std::string::npos);
        CHILD_CHECK(shmdt(a) == 0 && shmdt(b) == 0 && tovi_shmdel(id) == -1);
        return "";
    }));
}
