#include "OldLogs.h"

#include <Base/Number.h>
#include <VellDevice/RuntimeFolder.h>

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace service {

namespace {

constexpr std::size_t kKept = 20;

struct LogFile {
    std::filesystem::path path;
    std::filesystem::file_time_type written;
    pid_t process;
};

// The process of a plug-in's log file; nothing for other files, which are none of the service's.
std::optional<pid_t> processOf(const std::string& file) {
    std::string_view name = file;
    if (name.ends_with(".1"))
        name.remove_suffix(2);
    const std::size_t mark = name.rfind('_');
    if (!name.ends_with(".log") || mark == name.npos)
        return std::nullopt;
    name.remove_suffix(4);
    const auto process = Base::parseNumber<pid_t>(name.substr(mark + 1));
    return process && *process > 0 ? process : std::nullopt;
}

bool isRunning(pid_t process) {
    return kill(process, 0) == 0 || errno == EPERM;
}

} // namespace

void removeOldLogs() {
    std::vector<LogFile> files;
    std::error_code error;
    std::filesystem::directory_iterator entries(VellService::logFolderPath(), error);
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        std::error_code ignored;
        const auto process = processOf(entries->path().filename().string());
        if (process && entries->symlink_status(ignored).type() == std::filesystem::file_type::regular)
            files.push_back({entries->path(), entries->last_write_time(ignored), *process});
    }
    std::sort(files.begin(), files.end(),
              [](const LogFile& left, const LogFile& right) { return left.written > right.written; });
    for (std::size_t at = kKept; at < files.size(); ++at) {
        if (!isRunning(files[at].process))
            std::filesystem::remove(files[at].path, error);
    }
}

} // namespace service
