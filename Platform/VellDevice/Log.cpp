#include "Library.h"
#include "RuntimeFolder.h"

#include <Base/FileDescriptor.h>
#include <Base/Mutex.h>
#include <CoreFoundation/Object.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

using namespace VellService;

namespace {

enum class Level { runtime, debug, info, warning, error };

struct LevelName {
    const char* setting; // in $VELL_LOG_LEVEL
    const char* label;   // in a line
};
constexpr std::array<LevelName, 5> kLevels{{{"runtime", "RUNTIME"},
                                            {"debug", "DEBUG"},
                                            {"info", "INFO"},
                                            {"warning", "WARNING"},
                                            {"error", "ERROR"}}};

Level chosenLevel() {
    const char* setting = std::getenv("VELL_LOG_LEVEL");
    for (std::size_t i = 0; setting && i < kLevels.size(); ++i) {
        if (equalIgnoringCase(setting, kLevels[i].setting))
            return static_cast<Level>(i);
    }
    return Level::debug;
}

constexpr std::int64_t kMaximumFile = 4 << 20; // bytes

// Where lines go. Writing takes no lock: a line is one write(2) to a descriptor that is opened for appending,
// and a change of file puts the new one under the same descriptor. A file that has reached its size is put
// aside, in the place of the one before it.
class Output {
public:
    static Output& shared() {
        // Never destroyed: threads may outlive the static objects.
        static Output& instance = *new Output;
        return instance;
    }

    bool wants(Level level) const { return level >= mLowest.load(std::memory_order_relaxed); }
    void write(const std::string& line);
    void setFile(const char* name);

private:
    Output() : mLowest(std::max(chosenLevel(), Level::warning)) {}
    void useStandardError();
    bool useFile(const std::string& path) REQUIRES(mMutex);
    void putAside();
    void complain(const std::string& problem);

    Base::Mutex mMutex;                // one change of file at a time
    int mFile GUARDED_BY(mMutex) = -1; // the descriptor of every log file, once there has been one
    std::string mPath GUARDED_BY(mMutex);
    std::atomic<std::int64_t> mRoom{kMaximumFile}; // in the file, in bytes
    std::atomic<int> mDescriptor{STDERR_FILENO};
    std::atomic<Level> mLowest;
    std::atomic<bool> mComplained{false};
};

void Output::write(const std::string& line) {
    const int descriptor = mDescriptor.load(std::memory_order_acquire);
    ssize_t written = 0;
    do {
        written = ::write(descriptor, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0)
        complain("the log cannot be written: " + std::generic_category().message(errno));
    else if (mRoom.fetch_sub(written, std::memory_order_relaxed) <= written)
        putAside();
}

void Output::putAside() {
    const Base::Lock lock(mMutex);
    if (mRoom > 0) // another thread has done it
        return;
    struct stat status {};
    if (mDescriptor == mFile && fstat(mFile, &status) == 0 && S_ISREG(status.st_mode)) {
        if (rename(mPath.c_str(), (mPath + ".1").c_str()) != 0)
            complain("the log cannot be put aside: " + std::generic_category().message(errno));
        else if (useFile(mPath))
            return;
    }
    mRoom = kMaximumFile; // to be tried again when as much has been written once more
}

void Output::complain(const std::string& problem) {
    if (mComplained.exchange(true))
        return;
    const std::string line = problem + "\n";
    // When standard error cannot be written either, there is nobody to tell.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void Output::useStandardError() {
    mLowest = std::max(chosenLevel(), Level::warning);
    mDescriptor.store(STDERR_FILENO, std::memory_order_release);
}

void Output::setFile(const char* name) {
    const Base::Lock lock(mMutex);
    mComplained = false;
    if (!name || !*name)
        return useStandardError();
    std::string file = name;
    std::replace(file.begin(), file.end(), '/', '_'); // a name, not a path
    const std::string folder = logFolderPath();
    if (const auto problem = ensureFolder(folder)) {
        complain("no log file: " + *problem);
        return useStandardError();
    }
    if (!useFile(folder + "/" + file))
        return useStandardError();
    mDescriptor.store(mFile, std::memory_order_release);
    mLowest = chosenLevel();
}

bool Output::useFile(const std::string& path) {
    const Base::FileDescriptor opened(
        open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    struct stat status {};
    if (!opened || fstat(opened.get(), &status) != 0) {
        complain("no log file: cannot open " + path + ": " + std::generic_category().message(errno));
        return false;
    }
    if (mFile < 0)
        mFile = fcntl(opened.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    else
        dup3(opened.get(), mFile, O_CLOEXEC);
    mPath = path;
    mRoom = kMaximumFile - status.st_size;
    return true;
}

// "2026-01-31 12:00:00.123 LEVEL [process:thread] ". Lines come in bursts, so what is the same in all of a
// second's is put together once.
void appendPrefix(std::string& line, Level level) {
    struct Known {
        time_t second = -1;
        char date[32] = "";
        std::string identity =
            " [" + std::to_string(getpid()) + ":" + std::to_string(syscall(SYS_gettid)) + "] ";
    };
    thread_local Known known;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != known.second) {
        tm local{};
        localtime_r(&now.tv_sec, &local);
        std::strftime(known.date, sizeof known.date, "%Y-%m-%d %H:%M:%S", &local);
        known.second = now.tv_sec;
    }
    const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
    const auto digit = [](unsigned value) { return static_cast<char>('0' + value % 10); };
    line += known.date;
    line += {'.', digit(milliseconds / 100), digit(milliseconds / 10), digit(milliseconds), ' '};
    line += kLevels[static_cast<std::size_t>(level)].label;
    line += known.identity;
}

// One line, whatever the text holds: names that clients choose must not be able to forge lines.
void appendOneLine(std::string& line, std::string_view text) {
    while (text.ends_with('\n'))
        text.remove_suffix(1);
    if (text.find('\n') == text.npos && text.find('\r') == text.npos) { // as nearly always
        line += text;
    } else {
        for (const char character : text) {
            if (character == '\n')
                line += "\\n";
            else if (character == '\r')
                line += "\\r";
            else
                line += character;
        }
    }
    line += '\n';
}

void log(Level level, const char* format, va_list arguments) {
    if (!Output::shared().wants(level))
        return;
    std::string line;
    line.reserve(256);
    appendPrefix(line, level);
    char text[1024];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    const auto size = static_cast<std::size_t>(std::max(length, 0));
    if (size < sizeof text) {
        appendOneLine(line, {text, size});
    } else {
        std::string longText(size + 1, '\0');
        std::vsnprintf(longText.data(), longText.size(), format, again);
        appendOneLine(line, std::string_view(longText).substr(0, size));
    }
    va_end(again);
    if (length >= 0)
        Output::shared().write(line);
}

std::string textFor(const Ref<__VellDictionary>& properties, const char* key) {
    const auto* value = as<__VellString>(properties->get(key));
    return value ? value->text : "unknown";
}

} // namespace

#define VELL_LOG(level)                                                                                      \
    va_list arguments;                                                                                       \
    va_start(arguments, format);                                                                             \
    log(level, format, arguments);                                                                           \
    va_end(arguments)

void VellLogRuntime(const char* format, ...) {
    VELL_LOG(Level::runtime);
}

void VellLogDebug(const char* format, ...) {
    VELL_LOG(Level::debug);
}

void VellLogInfo(const char* format, ...) {
    VELL_LOG(Level::info);
}

void VellLogWarning(const char* format, ...) {
    VELL_LOG(Level::warning);
}

void VellLogError(const char* format, ...) {
    VELL_LOG(Level::error);
}

#undef VELL_LOG

void VellLogSetOutputFile(const char* name) {
    Output::shared().setFile(name);
}

void VellLogBuildInformationForPlatform(CFBundleRef bundle) {
    if (!bundle) {
        VellLogInfo("VellDevice platform %s (%s build)\n", VELL_PLATFORM_VERSION, VELL_PLATFORM_BUILD);
        return;
    }
    const auto properties = bundleProperties(bundle->path);
    VellLogInfo("%s %s\n", textFor(properties, "CFBundleIdentifier").c_str(),
                textFor(properties, "CFBundleVersion").c_str());
}
