#include "ChildProcess.h"

#include <Base/FileDescriptor.h>

#include <poll.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

extern char** environ;

namespace tools {

namespace {

// The attributes of a new process, freed at the end.
struct SpawnSettings {
    SpawnSettings() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&files);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_addclosefrom_np(&files, 3);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
};

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& additions) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (!additions.contains(text.substr(0, text.find('='))))
            result.push_back(text);
    }
    for (const auto& [name, value] : additions)
        result.push_back(name + "=" + value);
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

} // namespace

std::string ProcessEnd::text() const {
    if (!bySignal)
        return "exit status " + std::to_string(value);
    return "signal " + std::to_string(value) + " (" + strsignal(value) + ")";
}

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment) {
    std::vector<std::string> words = {program.string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = environmentWith(environment);
    const SpawnSettings settings;
    const int error = posix_spawn(&mProcess, program.c_str(), &settings.files, &settings.attributes,
                                  pointersTo(words).data(), pointersTo(variables).data());
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "cannot start " + program.string());
}

ChildProcess::~ChildProcess() {
    if (poll())
        return;
    signal(SIGKILL);
    while (waitpid(mProcess, nullptr, 0) < 0 && errno == EINTR) {
    }
}

std::optional<ProcessEnd> ChildProcess::poll() {
    int status = 0;
    if (!mEnd && waitpid(mProcess, &status, WNOHANG) == mProcess) {
        mEnd =
            WIFSIGNALED(status) ? ProcessEnd{true, WTERMSIG(status)} : ProcessEnd{false, WEXITSTATUS(status)};
    }
    return mEnd;
}

std::optional<ProcessEnd> ChildProcess::waitFor(std::chrono::milliseconds timeout) {
    if (mEnd)
        return mEnd;
    const Base::FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, mProcess, 0)));
    pollfd ended{process.get(), POLLIN, 0};
    ::poll(&ended, 1, static_cast<int>(timeout.count()));
    return poll();
}

void ChildProcess::signal(int number) {
    // Until it is reaped the identifier cannot belong to another process.
    if (!poll())
        kill(mProcess, number);
}

std::filesystem::path programFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

std::filesystem::path ownBundle() {
    return programFolder().parent_path() / "lib" / "TaviIO.bundle";
}

} // namespace tools
