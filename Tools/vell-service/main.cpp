// The device service: one plug-in process for each attached instrument.
#include "Bundle.h"
#include "DeviceService.h"
#include "Log.h"
#include "OldLogs.h"

#include <Base/FileDescriptor.h>
#include <Base/Number.h>
#include <VellDevice/RuntimeFolder.h>

#include <fcntl.h>
#include <getopt.h>
#include <support/CenterLoop.h>
#include <support/SignalWatcher.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

constexpr const char* kUsage =
    "usage: vell-service [OPTION...]\n"
    "Starts a plug-in process for each attached instrument and keeps it running.\n"
    "\n"
    "  --bundle PATH            the plug-in (default: TaviIO.bundle in the lib folder beside the program's)\n"
    "  --runtime-dir DIR        sockets and state (default: $VELL_RUNTIME_DIR, $XDG_RUNTIME_DIR/vell\n"
    "                           or /tmp/vell-UID)\n"
    "  --hardware-dir DIR       the attached hardware (default: $VELL_HARDWARE_DIR or `hardware` in the\n"
    "                           runtime folder)\n"
    "  --restart-pause SECONDS  before the first restart of a plug-in; doubles up to a minute (default: 1)\n"
    "  --record DIR             record what passes between plug-in and instrument, a file per start\n"
    "  --temporary PID          end with the process PID, which has started the service, and remove then\n"
    "                           what is in the runtime folder, which must be empty or new\n"
    "  --verbose, --quiet       more on standard error, or problems only\n"
    "  --help, --version\n";

constexpr double kFolderPause = 0.5; // seconds between two looks at the hardware folder's name

struct Options {
    std::filesystem::path bundle;
    double restartPause = 1;
    std::filesystem::path recordings;  // a folder
    std::optional<pid_t> temporaryFor; // a process
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

UsageError badValue(const std::string& option, const std::string& wanted, const std::string& given) {
    return UsageError(option + ": not " + wanted + ": '" + given + "'");
}

double parsePause(const std::string& text) {
    const auto pause = Base::parseFinite<double>(text);
    if (!pause || *pause < 0)
        throw badValue("--restart-pause", "a number of seconds", text);
    return *pause;
}

pid_t parseProcess(const std::string& text) {
    const auto process = Base::parseNumber<pid_t>(text);
    if (!process || *process <= 0)
        throw badValue("--temporary", "a process", text);
    return *process;
}

std::filesystem::path parsePath(const std::string& option, const std::string& text) {
    if (text.empty())
        throw badValue(option, "a path", text);
    return std::filesystem::absolute(text);
}

// Nothing when the program has only been asked about itself. The plug-ins inherit the folders through the
// environment.
std::optional<Options> parseOptions(int argc, char** argv) {
    enum { kBundle, kRuntime, kHardware, kPause, kRecord, kTemporary, kVerbose, kQuiet, kHelp, kVersion };
    static const option kOptions[] = {{"bundle", required_argument, nullptr, kBundle},
                                      {"runtime-dir", required_argument, nullptr, kRuntime},
                                      {"hardware-dir", required_argument, nullptr, kHardware},
                                      {"restart-pause", required_argument, nullptr, kPause},
                                      {"record", required_argument, nullptr, kRecord},
                                      {"temporary", required_argument, nullptr, kTemporary},
                                      {"verbose", no_argument, nullptr, kVerbose},
                                      {"quiet", no_argument, nullptr, kQuiet},
                                      {"help", no_argument, nullptr, kHelp},
                                      {"version", no_argument, nullptr, kVersion},
                                      {}};
    Options options;
    for (;;) {
        switch (getopt_long(argc, argv, "", kOptions, nullptr)) {
        case -1:
            if (optind < argc)
                throw UsageError(std::string("unexpected argument: ") + argv[optind]);
            return options;
        case kBundle:
            options.bundle = parsePath("--bundle", optarg);
            break;
        case kRuntime:
            setenv("VELL_RUNTIME_DIR", parsePath("--runtime-dir", optarg).c_str(), 1);
            break;
        case kHardware:
            setenv("VELL_HARDWARE_DIR", parsePath("--hardware-dir", optarg).c_str(), 1);
            break;
        case kPause:
            options.restartPause = parsePause(optarg);
            break;
        case kRecord:
            options.recordings = parsePath("--record", optarg);
            break;
        case kTemporary:
            options.temporaryFor = parseProcess(optarg);
            break;
        case kVerbose:
            service::setVerbosity(service::Verbosity::verbose);
            break;
        case kQuiet:
            service::setVerbosity(service::Verbosity::quiet);
            break;
        case kHelp:
            std::fputs(kUsage, stdout);
            return std::nullopt;
        case kVersion:
            std::puts("vell-service " TOOLS_VERSION);
            return std::nullopt;
        default:
            throw UsageError("see vell-service --help");
        }
    }
}

struct AnotherService : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Two services would start two plug-ins for each device. The hardware folder itself carries the lock, so that
// nothing is left of it whichever way the service ends. When the folder is deleted or replaced, the lock
// moves to the one that then has its name.
class HardwareLock {
public:
    // Throws AnotherService, or std::runtime_error when the folder cannot be used.
    explicit HardwareLock(std::string folder) : mFolder(std::move(folder)) { take(); }

    // Throws like the constructor; what cannot be used may be fit at the next call.
    void follow() {
        struct stat held {};
        struct stat named {};
        if (fstat(mLock.get(), &held) == 0 && stat(mFolder.c_str(), &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino)
            return;
        mLock.reset(); // the kernel tells of a folder's end when nobody has it open any more
        take();
        service::log("%s is another folder now", mFolder.c_str());
    }

private:
    void take() {
        for (const auto& problem :
             {VellService::ensureRuntimeFolder(), VellService::ensureHardwareFolder()}) {
            if (problem)
                throw std::runtime_error(*problem);
        }
        mLock.reset(open(mFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!mLock || flock(mLock.get(), LOCK_EX | LOCK_NB) != 0)
            throw AnotherService("a service is already watching " + mFolder);
    }

    const std::string mFolder;
    Base::FileDescriptor mLock;
};

// The runtime folder of a temporary service, which leaves nothing in it.
class TemporaryFolder {
public:
    // Throws std::runtime_error when something is in the folder already, unless whoever filled it has marked
    // it as one to be removed.
    TemporaryFolder() : mFolder(VellService::runtimeFolderPath()) {
        std::error_code error;
        mIsMarked = std::filesystem::exists(mFolder / ".temporary", error);
        mIsOurs = !std::filesystem::exists(std::filesystem::symlink_status(mFolder, error));
        if (!mIsOurs && !mIsMarked && !std::filesystem::is_empty(mFolder, error))
            throw std::runtime_error(mFolder.string() + " is not empty: it is none for a temporary service");
    }
    void clear() const {
        std::error_code error;
        if (mIsOurs || mIsMarked) {
            std::filesystem::remove_all(mFolder, error);
            return;
        }
        for (const auto& entry : std::filesystem::directory_iterator(mFolder, error))
            std::filesystem::remove_all(entry.path(), error);
    }

private:
    const std::filesystem::path mFolder;
    bool mIsMarked = false;
    bool mIsOurs = false; // made by this process
};

int run(const Options& options) {
    if (options.temporaryFor) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != *options.temporaryFor)
            throw std::runtime_error("the process that the service is for is gone");
    }
    const std::string hardware = VellService::hardwareFolderPath();
    std::optional<TemporaryFolder> temporary;
    if (options.temporaryFor)
        temporary.emplace();
    HardwareLock lock(hardware);
    service::removeOldLogs();
    const service::Bundle bundle(!options.bundle.empty() ? options.bundle : tools::ownBundle());

    if (!options.recordings.empty()) {
        if (const auto problem = VellService::ensureFolder(options.recordings))
            throw std::runtime_error(*problem);
    }
    VellDeviceCenterRef center = VellDeviceCenterGetDistributedCenter();
    {
        service::DeviceService devices({tools::programFolder() / "vell-plugin-host", bundle.path(),
                                        options.restartPause, options.recordings},
                                       bundle);
        const tools::SignalWatcher signals({SIGTERM, SIGINT, SIGHUP, SIGCHLD}, [&devices](int signal) {
            tools::runOnCenterLoop([&devices, signal] {
                if (signal == SIGCHLD)
                    devices.childrenChanged();
                else
                    devices.end();
            });
        });
        std::string told; // one line for one trouble
        const tools::LoopTimer follower(kFolderPause, kFolderPause, [&] {
            try {
                lock.follow();
                told.clear();
            } catch (const std::runtime_error& problem) {
                if (std::exchange(told, problem.what()) == problem.what())
                    return;
                service::logError("%s", problem.what());
                if (dynamic_cast<const AnotherService*>(&problem))
                    devices.end();
            }
        });
        service::log("watching %s", hardware.c_str());
        VellDeviceCenterRunLoop(center);
    }
    if (temporary)
        temporary->clear();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        tools::makeFailedWritesErrors(); // a log that takes no more is no reason to end
        const auto options = parseOptions(argc, argv);
        return options ? run(*options) : 0;
    } catch (const UsageError& error) {
        service::logError("%s", error.what());
        return 2;
    } catch (const std::exception& error) {
        service::logError("%s", error.what());
        return 1;
    }
}
