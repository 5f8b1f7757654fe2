// The parent process dies, for real, while a scan stands at one of its calls of the SDK: at its first, at its
// second, and so on. Each time in a process of its own, with the loop running.

#include "../../../Platform/VellDevice/Testing.h"
#include "DriverBench.h"
#include "RemoteObjectPerformer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <optional>
#include <thread>

// Under the thread sanitizer every process else sleeps a second before it ends.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "atexit_sleep_ms=0";
}

namespace test {
namespace {

using namespace std::chrono_literals;

// Exit statuses.
constexpr int kNoSuchCall = 9; // the scan makes fewer calls
constexpr int kDidNotDie = 10;
constexpr int kReturned = 11; // from the loop, instead of ending
constexpr int kKilled = 12;

constexpr std::chrono::seconds kPatience{20};

void nap() {
    std::this_thread::sleep_for(200us);
}

template <typename Value>
void tell(int descriptor, Value value) {
    if (write(descriptor, &value, sizeof value) != sizeof value)
        _exit(kDidNotDie);
}

// What was told; nothing when the teller has ended or takes too long.
template <typename Value>
std::optional<Value> hear(int descriptor) {
    pollfd waiting{descriptor, POLLIN, 0};
    Value value{};
    if (poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1 ||
        read(descriptor, &value, sizeof value) != sizeof value)
        return std::nullopt;
    return value;
}

// Runs a function on the driver's main thread and waits for it.
class OnMainThread : public VellDevice::RemoteObjectPerformer {
public:
    explicit OnMainThread(std::function<void()> function) : mFunction(std::move(function)) {}
    void perform() override { mFunction(); }

private:
    std::function<void()> mFunction;
};

// What the child runs: a plug-in, and the client that lets it measure a chart.
class Orphan {
public:
    // Tells its identifier, and a sign when the scan stands at its call `at`.
    Orphan(const ScratchFolder& scratch, int at, int stands) : mAt(at), mStands(stands), mParent(getppid()) {
        tell(stands, getpid());
        VellService::resetCenterForTesting();
        TaviSDK::Simulation simulation;
        simulation.identifier = kDevicePath;
        simulation.timeScale = 0;
        simulation.chart = scratch.path() / "chart.txt";
        TaviSDK::setSimulation(simulation);
        const VellStringRef path = VellStringCreateWithCString(kDevicePath);
        const VellStringRef bundle = VellStringCreateWithCString(scratch.bundle().c_str());
        mDriver = new BenchDriver(path, bundle); // for the life of the process
    }

    [[noreturn]] void run(const ChartOnTable& chart) {
        std::thread([this, &chart] { measure(chart); }).detach();
        const char* arguments[] = {kDevicePath, "bundle"};
        __InternalDevicePluginRunWithInstance(mDriver, 2, arguments);
        _exit(kReturned);
    }

private:
    // The client.
    void measure(const ChartOnTable& chart) {
        while (*mDriver->device()->attributeForKey("DeviceLogName") == '\0')
            nap(); // not connected yet
        send("Calibrate");
        send("SetMode", {{"Mode", "ScanningReflectance"}});
        TaviSDK::setCallHook([this](const TaviSDK::Call&) { return noteCall(); });
        send("Measure", chart.measureArguments());
        while (mDriver->hasWorkers())
            nap();
        if (!mDriver->IsDying())
            _exit(kNoSuchCall);
    }
    void send(const std::string& name, const std::map<std::string, std::string>& arguments = {}) {
        OnMainThread([&] {
            VellDevice::Command command(name);
            for (const auto& [key, value] : arguments)
                command.setArgumentForKey(value, key);
            mDriver->didReceiveCommand(command);
        }).schedule(true);
    }
    std::optional<int> noteCall() {
        if (++mCalls != mAt)
            return std::nullopt;
        tell(mStands, 's');
        while (getppid() == mParent)
            nap();
        mDriver->lookForParent(); // sooner than in five seconds
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!mDriver->IsDying()) {
            if (std::chrono::steady_clock::now() > end)
                _exit(kDidNotDie);
            nap();
        }
        return std::nullopt;
    }

    const int mAt;
    const int mStands;
    const pid_t mParent;
    BenchDriver* mDriver = nullptr;
    std::atomic<int> mCalls{0};
};

class ParentDeath : public ::testing::Test {
protected:
    ParentDeath() { prctl(PR_SET_CHILD_SUBREAPER, 1); } // orphans come to this process
    ~ParentDeath() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

    // The exit status of a plug-in whose parent is killed when its scan stands at call `at`.
    int statusOfOrphan(int at) {
        int stands[2];
        EXPECT_EQ(pipe2(stands, O_CLOEXEC), 0);
        const pid_t parent = fork();
        if (parent == 0) {
            if (fork() == 0)
                Orphan(scratch, at, stands[1]).run(chart);
            close(stands[1]);
            for (;;)
                pause();
        }
        close(stands[1]);
        const auto orphan = hear<pid_t>(stands[0]);
        hear<char>(stands[0]); // or its end
        close(stands[0]);
        kill(parent, SIGKILL);
        EXPECT_EQ(waitpid(parent, nullptr, 0), parent);
        EXPECT_TRUE(orphan);
        return orphan ? statusOf(*orphan) : kKilled;
    }

    static int statusOf(pid_t process) {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        int status = 0;
        while (waitpid(process, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "the plug-in does not end";
                kill(process, SIGKILL);
                waitpid(process, &status, 0);
                return kKilled;
            }
            nap();
        }
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WEXITSTATUS(status);
    }

    ScratchFolder scratch;
    const ChartOnTable chart{.rows = 2, .columns = 2};
};

TEST_F(ParentDeath, AtEveryCallOfAScan) {
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kDevicePath));
    scratch.write(scratch.path() / "chart.txt", chart.layout());
    int at = 1;
    for (;; ++at) {
        SCOPED_TRACE(::testing::Message() << "call " << at);
        const int status = statusOfOrphan(at);
        if (status == kNoSuchCall)
            break;
        ASSERT_EQ(status, 0);
        for (const auto& entry : std::filesystem::directory_iterator(scratch.path()))
            EXPECT_NE(entry.path().extension(), ".sock");
    }
    EXPECT_GT(at, 40);
    RecordProperty("points", at - 1);
    std::cout << "[   SWEPT  ] Strips, death of the real parent: " << at - 1 << " points\n";
}

} // namespace
} // namespace test
