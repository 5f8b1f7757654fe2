#include "GlobalLocks.h"

#include "Locks.h"
#include "ScratchFolder.h"
#include "SharedLockOpen.h"
#include "ShortSleep.h"

#include <CoreFoundation/Clock.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace test {
namespace {

class GlobalLocks : public ::testing::Test {
protected:
    ScratchFolder scratch;
    // A name that no other process locks.
    std::string name = "Locks Test:" + scratch.path().string() + "@" + std::to_string(getpid());

    std::string deviceFile() {
        std::string path;
        GlobalLock::EncodeMutexNameForPlatform(name, path);
        return path;
    }
    std::string familyFile() {
        std::string path;
        GlobalDeviceLock::EncodeMutexNameForPlatform(name, path);
        return path;
    }
};

TEST_F(GlobalLocks, NamesOfFiles) {
    std::string path;
    GlobalDeviceLock::EncodeMutexNameForPlatform("Table/One:Lab@Home", path);
    EXPECT_EQ(path, "/tmp/table_one_lab_home");
    GlobalLock::EncodeMutexNameForPlatform("a", path);
    EXPECT_EQ(path, "/tmp/-468965076") << "FNV-1a of \"a\", 0xe40c292c, as a signed number";
}

TEST_F(GlobalLocks, FileIsThereWhileTheLockIs) {
    {
        const GlobalLock device(name);
        const GlobalDeviceLock family(name);
        EXPECT_TRUE(device.mLocked);
        EXPECT_TRUE(family.mLocked);
        EXPECT_GT(device.mFd, 0);
        EXPECT_NE(fcntl(device.mFd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_TRUE(fs::exists(deviceFile()));
        EXPECT_TRUE(fs::exists(familyFile()));
    }
    EXPECT_FALSE(fs::exists(deviceFile()));
    EXPECT_FALSE(fs::exists(familyFile()));
}

// Many holders, each of which removes the file: never two at a time.
template <typename Lock>
void contend(const std::string& name) {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> turns{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            for (int turn = 0; turn < 150; ++turn) {
                const Lock lock(name);
                ASSERT_TRUE(lock.mLocked);
                most = std::max(most.load(), ++inside);
                ++turns;
                std::this_thread::yield();
                --inside;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(turns, 600);
}

TEST_F(GlobalLocks, ExclusionHoldsWhileFilesComeAndGo) {
    contend<GlobalLock>(name);
    EXPECT_FALSE(fs::exists(deviceFile()));
    contend<GlobalDeviceLock>(name);
    EXPECT_FALSE(fs::exists(familyFile()));
}

TEST_F(GlobalLocks, ADeadHolderBlocksNobody) {
    const pid_t child = fork();
    if (child == 0) {
        auto* const held = new GlobalLock(name);
        _exit(held->mLocked ? 0 : 1); // without releasing it
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(fs::exists(deviceFile())) << "left behind";
    EXPECT_TRUE(GlobalLock(name).mLocked);
    EXPECT_FALSE(fs::exists(deviceFile()));
}

TEST_F(GlobalLocks, AReplacedFileIsNotRemoved) {
    {
        const GlobalLock lock(name);
        ASSERT_EQ(unlink(deviceFile().c_str()), 0);
        scratch.write(deviceFile(), "somebody else's");
    }
    EXPECT_TRUE(fs::exists(deviceFile()));
    fs::remove(deviceFile());
}

TEST_F(GlobalLocks, RemovalAtExitTakesOnlyWhatNobodyElseHolds) {
    scratch.write(deviceFile(), "");
    const int other = open(deviceFile().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    GlobalLock::RemoveFile(deviceFile());
    EXPECT_TRUE(fs::exists(deviceFile())) << "its holder would lose its lock";
    close(other);
    GlobalLock::RemoveFile(deviceFile());
    EXPECT_FALSE(fs::exists(deviceFile()));
    {
        const GlobalLock own(name);
        GlobalLock::RemoveFile(deviceFile()); // as a process does that ends while it attaches
        EXPECT_FALSE(fs::exists(deviceFile()));
    }
    GlobalLock::RemoveFile(deviceFile()); // nothing there: nothing happens
    {
        const GlobalLock own(name);
        const GlobalDeviceLock ownFamily(name);
        fs::remove(deviceFile());
        scratch.write(deviceFile(), "somebody else's");
        GlobalLock::RemoveFile(deviceFile());
        GlobalLock::RemoveHeldFiles();
        EXPECT_TRUE(fs::exists(deviceFile()));
        EXPECT_FALSE(fs::exists(familyFile()));
    }
    fs::remove(deviceFile());
}

TEST_F(GlobalLocks, LinksAreNotFollowedAndAreBrokenInTheEnd) {
    const fs::path target = scratch.path() / "precious";
    scratch.write(target, "contents");
    fs::create_symlink(target, deviceFile());
    EXPECT_LT(OpenWithSharedLock(deviceFile().c_str()), 0);
    EXPECT_EQ(errno, ELOOP);
    takeSleptSeconds();
    EXPECT_TRUE(GlobalLock(name).mLocked);
    EXPECT_EQ(takeSleptSeconds(), 30U);
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(GlobalLocks, FamilyLockGivesUpAfterThirtySeconds) {
    CoreFoundation::VirtualClock clock;
    onSleep([&](unsigned seconds) { clock.advance(seconds); });
    ASSERT_EQ(mkfifo(familyFile().c_str(), 0600), 0);
    takeSleptSeconds();
    {
        const GlobalDeviceLock lock(name);
        EXPECT_FALSE(lock.mLocked);
        EXPECT_EQ(lock.mFd, 0);
    }
    onSleep({});
    EXPECT_EQ(takeSleptSeconds(), 31U);
    EXPECT_TRUE(fs::exists(familyFile())) << "what was not obtained is not removed";
    fs::remove(familyFile());
}

TEST(ThreadLocks, AreRecursive) {
    pthread_mutex_t mutex;
    ThreadLock::InitializeMechanism(mutex);
    {
        const ThreadLock once(mutex);
        { const ThreadLock twice(mutex); }
        std::thread other([&] { EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY); });
        other.join();
    }
    std::thread other([&] {
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
        pthread_mutex_unlock(&mutex);
    });
    other.join();
    pthread_mutex_destroy(&mutex);
}

} // namespace
} // namespace test
