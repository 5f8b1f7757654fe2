// How the process of a plug-in ends. Each case runs in a child process of its own.

#include "PluginBench.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {
namespace {

namespace fs = std::filesystem;

// The record says so when its loop runs and it has announced itself.
void waitUntilConnected(NotingPlugin& plugin) {
    while (*plugin.device()->attributeForKey("DeviceLogName") == '\0')
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class Process : public ::testing::Test {
protected:
    static constexpr int kReturned = 100; // is added when the run returns, instead of ending the process

    // Runs the plug-in with its loop, in a process that was forked for it.
    template <typename Prepare>
    [[noreturn]] void runHere(Prepare prepare) {
        VellService::resetCenterForTesting();
        const VellStringRef path = VellStringCreateWithCString(kPath);
        const VellStringRef bundle = VellStringCreateWithCString(scratch.bundle().c_str());
        auto* const plugin = new NotingPlugin(path, bundle);
        prepare(*plugin);
        const char* arguments[] = {kPath, "bundle"};
        _exit(kReturned + __InternalDevicePluginRunWithInstance(plugin, 2, arguments));
    }
    // The same in a child; its exit status.
    template <typename Prepare>
    int run(Prepare prepare) {
        const pid_t child = fork();
        if (child == 0)
            runHere(prepare);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        for (const auto& entry : fs::directory_iterator(scratch.path()))
            EXPECT_NE(entry.path().extension(), ".sock");
        return WEXITSTATUS(status);
    }

    ScratchFolder scratch;
};

TEST_F(Process, FailedConnectExitsForRestart) {
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kPath));
    EXPECT_EQ(run([](NotingPlugin& plugin) { plugin.connectResults = {VellDevice::kConnectFailed}; }),
              VellDevice::kExitForRestart & 0xff);
}

TEST_F(Process, RemovedHardwareExitsWithZero) {
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kPath));
    EXPECT_EQ(run([&](NotingPlugin& plugin) {
                  std::thread([&] {
                      waitUntilConnected(plugin);
                      fs::remove(scratch.hardware() / "table.plist");
                  }).detach();
              }),
              0);
}

// The parent is a process in between, which dies; its child is handed to this process, as to a session
// manager.
TEST_F(Process, ParentThatIsGoneEndsThePlugin) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t between = fork();
    if (between == 0) {
        if (fork() == 0)
            runHere([&](NotingPlugin&) {
                const char sign = 'r';
                [[maybe_unused]] const auto written = write(ready[1], &sign, 1);
            });
        char sign = 0;
        [[maybe_unused]] const auto got = read(ready[0], &sign, 1);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(between, &status, 0), between);
    const pid_t orphan = waitpid(-1, &status, 0);
    ASSERT_GT(orphan, 0);
    // It may have noticed before its loop ran; then its run returned.
    EXPECT_EQ(WEXITSTATUS(status) % kReturned, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

// The end comes before the loop runs: the process ends all the same, with the right code.
TEST_F(Process, EndBeforeTheLoopRuns) {
    EXPECT_EQ(run([](NotingPlugin& plugin) { plugin.exitDeviceService(7); }), kReturned + 7);
}

// Another thread ends the process while the main thread is in the loop.
TEST_F(Process, EndFromAnotherThread) {
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kPath));
    EXPECT_EQ(run([](NotingPlugin& plugin) {
                  std::thread([&] {
                      waitUntilConnected(plugin);
                      plugin.die_a_QuickDeath();
                  }).detach();
              }),
              0);
}

} // namespace
} // namespace test
