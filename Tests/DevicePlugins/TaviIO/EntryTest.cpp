// The bundle as the service uses it: loaded, and called by the names that it exports. Each run of the entry
// is in a process of its own.

#include "ScratchFolder.h"

#include <VellDevice/VellDevice.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace test {
namespace {

class Bundle : public ::testing::Test {
protected:
    template <typename Type>
    static Type exported(const char* name) {
        static void* const code = dlopen(TAVI_BUNDLE "/Contents/Linux/TaviIO", RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(code, nullptr) << dlerror();
        return reinterpret_cast<Type>(dlsym(code, name));
    }

    // The entry's result; 100 is added when it came back only after its loop had been stopped.
    static int run(std::vector<const char*> arguments) {
        const pid_t process = fork();
        if (process == 0) {
            VellDeviceCenterRef center = VellDeviceCenterGetDistributedCenter();
            std::atomic<bool> stopped{false};
            std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                stopped = true;
                VellDeviceCenterStopRunLoop(center);
            }).detach();
            const auto entry = exported<int (*)(int, const char**)>("DevicePluginEntry");
            const int code = entry(static_cast<int>(arguments.size()), arguments.data());
            _exit(code + (stopped ? 100 : 0));
        }
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WEXITSTATUS(status);
    }

    ScratchFolder scratch;
};

TEST_F(Bundle, EntryNeedsBothPathsAndRunsTheLoopUnlessToldOtherwise) {
    const char* const path = "usb:entry-test";
    EXPECT_EQ(run({path}), 1);
    EXPECT_FALSE(std::filesystem::exists(scratch.path() / "log"));
    EXPECT_EQ(run({path, TAVI_BUNDLE, "-norunloop"}), 0);
    EXPECT_EQ(run({path, TAVI_BUNDLE}), 100);
    EXPECT_EQ(run({path, TAVI_BUNDLE, "-runloop"}), 100);
    EXPECT_EQ(run({path, TAVI_BUNDLE, "-norunloop", "more"}), 100);
    EXPECT_TRUE(scratch.logged("[DevicePluginEntry] - Exiting with code 0\n"));
}

std::ptrdiff_t threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

TEST_F(Bundle, DeviceInfoTouchesNothing) {
    const std::ptrdiff_t before = threads();
    const auto copyInfo = exported<VellDictionaryRef (*)()>("DevicePluginCopyDeviceInfo");
    const VellDictionaryRef info = copyInfo();
    ASSERT_NE(VellCheckedCast(info, "VellDictionaryRef"), nullptr);
    EXPECT_EQ(VellDictionaryGetCount(info), 0);
    VellRelease(info);
    EXPECT_FALSE(std::filesystem::exists(scratch.path() / "log"));
    EXPECT_EQ(threads(), before);
}

TEST_F(Bundle, ModeNames) {
    for (const std::string name : {"Unknown", "Reflective", "Emissive", "Ambient", "OBC"}) {
        const auto mode = exported<const char* const*>(("MeasurementMode" + name).c_str());
        ASSERT_NE(mode, nullptr) << name;
        EXPECT_EQ(*mode, name);
    }
}

} // namespace
} // namespace test
