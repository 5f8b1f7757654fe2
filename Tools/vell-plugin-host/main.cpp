// The process around a plug-in: loads the bundle's code and calls its entry.
#include <VellDevice/VellDevice.h>

#include <dlfcn.h>
#include <support/Ref.h>
#include <support/SignalWatcher.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

namespace {

using Entry = int (*)(int argc, const char** argv);

// How long the plug-in may take to come back from its loop once it is to end: it may be waiting for a lock
// that another process keeps.
constexpr std::chrono::milliseconds kPatience{1500};

constexpr const char* kUsage = "usage: vell-plugin-host DEVICE-PATH BUNDLE-PATH [-norunloop]\n";

// True when the service that started this process has ended meanwhile: nobody would ever end the plug-in
// then.
bool serviceIsGone() {
    const char* service = std::getenv("VELL_SERVICE_PID");
    return service && std::atol(service) != getppid();
}

// The bundle's code: the file that its properties name, else the one named like the bundle.
std::filesystem::path codeOf(const std::filesystem::path& bundle) {
    const auto bundlePath = tools::makeString(bundle.string());
    const tools::Ref<VellLibraryRef> library(VellLibraryCreate(bundlePath.get()));
    const tools::Ref<VellObjectRef> property(
        VellLibraryCopyPropertyForKey(library.get(), "CFBundleExecutable"));
    std::string name =
        tools::textOf(static_cast<VellStringRef>(VellCheckedCast(property.get(), "VellStringRef")));
    if (name.empty())
        name = (bundle.has_filename() ? bundle : bundle.parent_path()).stem().string();
    return bundle / "Contents" / "Linux" / name;
}

// The entry, or null after a line that says why not. The code stays loaded: its threads may outlive the
// entry.
Entry loadEntry(const std::filesystem::path& code) {
    void* library = dlopen(code.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* entry = library ? dlsym(library, "DevicePluginEntry") : nullptr;
    if (!entry)
        std::fprintf(stderr, "vell-plugin-host: %s\n", dlerror());
    return reinterpret_cast<Entry>(entry);
}

// Ends without running destructors: threads of the plug-in may still be about.
[[noreturn]] void leave(int code, int signal) {
    std::fflush(nullptr);
    if (signal != 0) {
        // Whoever waits for this process learns that it was ended from outside.
        std::signal(signal, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        raise(signal);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
    _exit(code);
}

} // namespace

int main(int argc, const char** argv) {
    if (argc < 3 || argc > 4 || (argc == 4 && std::strcmp(argv[3], "-norunloop") != 0)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (serviceIsGone()) {
        std::fputs("vell-plugin-host: the service that started this plug-in is gone\n", stderr);
        return 0;
    }
    tools::makeFailedWritesErrors(); // a log that takes no more is no reason to end
    const Entry entry = loadEntry(codeOf(argv[2]));
    if (!entry)
        return 1;

    // A request to end stops the run loop, so that the plug-in's socket is closed and removed. The center
    // belongs to the thread that asks first, which must be this one.
    VellDeviceCenterRef center = VellDeviceCenterGetDistributedCenter();
    static std::atomic<int> endedBy{0};
    const tools::SignalWatcher watcher({SIGTERM, SIGINT, SIGHUP}, [center](int signal) {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        endedBy = signal;
        VellDeviceCenterStopRunLoop(center);
        std::this_thread::sleep_until(end);
        leave(0, signal);
    });
    const int code = entry(argc - 1, argv + 1);
    if (argc == 4) // the entry has left the loop to this program
        VellDeviceCenterRunLoop(center);
    VellDeviceCenterStopRunLoop(center); // the loop may never have run
    leave(code, endedBy);
}
