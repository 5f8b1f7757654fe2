#include "RuntimeFolder.h"

#include "Values.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace VellService {
namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string errorText() {
    return std::generic_category().message(errno);
}

// Makes the folder itself private; the folders above it are made as mkdir makes them.
std::optional<std::string> makeFolder(const std::string& path) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return "cannot make " + path + ": " + errorText();
    return std::nullopt;
}

// Without a slash at its end, which would follow a link.
std::string runtimeFolderItself() {
    std::string path = runtimeFolderPath();
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

} // namespace

std::string runtimeFolderPath() {
    std::string path = environment("VELL_RUNTIME_DIR");
    if (!path.empty())
        return path;
    path = environment("XDG_RUNTIME_DIR");
    if (!path.empty())
        return path + "/vell";
    return "/tmp/vell-" + std::to_string(getuid());
}

std::string hardwareFolderPath() {
    const std::string path = environment("VELL_HARDWARE_DIR");
    return path.empty() ? runtimeFolderPath() + "/hardware" : path;
}

std::string logFolderPath() {
    const std::string path = environment("VELL_LOG_DIR");
    return path.empty() ? runtimeFolderPath() + "/log" : path;
}

std::string socketPath(const std::string& devicePath) {
    const auto source = makeString(inLowerCase(devicePath));
    char name[16];
    std::snprintf(name, sizeof name, "%08x.sock", VellHash(source.get()));
    return runtimeFolderPath() + "/" + name;
}

std::optional<std::string> checkRuntimeFolder() {
    const std::string path = runtimeFolderItself();
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return errno == ENOENT ? "" : "cannot look at " + path + ": " + errorText();
    if (!S_ISDIR(status.st_mode))
        return path + " is not a folder";
    if (status.st_uid != geteuid())
        return path + " belongs to another user";
    // A folder that is open to others by intention, such as /tmp, is none to take over.
    if (status.st_mode & S_ISVTX)
        return path + " is shared with other users";
    return std::nullopt;
}

std::optional<std::string> ensureRuntimeFolder() {
    const std::string path = runtimeFolderItself();
    if (auto problem = makeFolder(path))
        return problem;
    if (auto problem = checkRuntimeFolder())
        return problem->empty() ? path + " is gone again" : problem;
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && (status.st_mode & 0777) != 0700 &&
        chmod(path.c_str(), 0700) != 0)
        return "cannot make " + path + " private: " + errorText();
    return std::nullopt;
}

std::optional<std::string> ensureFolder(const std::string& path) {
    if (path.starts_with(runtimeFolderPath() + "/")) {
        if (auto problem = ensureRuntimeFolder())
            return problem;
    }
    if (auto problem = makeFolder(path))
        return problem;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return path + " is not a folder";
    return std::nullopt;
}

std::optional<std::string> ensureHardwareFolder() {
    const std::string path = hardwareFolderPath();
    if (auto problem = ensureFolder(path))
        return problem;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return path + " is gone again";
    if (status.st_uid != geteuid())
        return path + " belongs to another user";
    // In the runtime folder nobody else gets at it.
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !path.starts_with(runtimeFolderPath() + "/"))
        return path + " can be written to by others";
    return std::nullopt;
}

} // namespace VellService
