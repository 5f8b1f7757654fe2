#include "Files.h"

#include "Errors.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tablectl {

namespace {

[[noreturn]] void failWriting(const std::string& file) {
    throw DeviceFailure(file + ": cannot be written: " + std::strerror(errno));
}

bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void overwrite(const std::string& file, std::string_view text) {
    std::ofstream stream(file, std::ios::binary);
    stream << text << std::flush;
    if (!stream)
        failWriting(file);
}

// The rights that a new file would have.
mode_t usualMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

} // namespace

bool isSameFile(const std::string& one, const std::string& other) {
    std::error_code error;
    if (std::filesystem::exists(one, error) && std::filesystem::exists(other, error))
        return std::filesystem::equivalent(one, other, error) && std::filesystem::is_regular_file(one, error);
    return std::filesystem::weakly_canonical(one, error) == std::filesystem::weakly_canonical(other, error);
}

void checkWritable(const std::string& file) {
    const std::filesystem::path path(file);
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        errno = EISDIR;
    else if (access((std::filesystem::exists(path, ignored) ? path : folder).c_str(), W_OK) == 0)
        return;
    failWriting(file);
}

std::string readFile(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(stream), {});
    if (!stream.is_open() || stream.bad())
        throw DeviceFailure(file + ": cannot be read");
    return text;
}

bool isReplaceable(const std::string& file) {
    std::error_code ignored;
    return !std::filesystem::exists(file, ignored) || std::filesystem::is_regular_file(file, ignored);
}

void replaceFile(const std::string& file, std::string_view text) {
    if (!isReplaceable(file))
        return overwrite(file, text);
    std::error_code ignored;
    // Of a link the file that it leads to.
    const std::filesystem::path target = std::filesystem::weakly_canonical(file, ignored);
    struct stat before {};
    const mode_t mode = stat(target.c_str(), &before) == 0 ? before.st_mode & 07777 : usualMode();
    std::string unfinished = (target.parent_path() / ("." + target.filename().string() + "-XXXXXX")).string();
    const int descriptor = mkstemp(unfinished.data());
    if (descriptor < 0)
        return overwrite(file, text); // in a folder that takes no new files
    const bool isWritten = fchmod(descriptor, mode) == 0 && writeAll(descriptor, text);
    const int problem = errno;
    if (close(descriptor) == 0 && isWritten && rename(unfinished.c_str(), target.c_str()) == 0)
        return;
    if (!isWritten)
        errno = problem;
    const int reason = errno;
    unlink(unfinished.c_str());
    errno = reason;
    failWriting(file);
}

std::filesystem::path temporaryFolder() {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
    if (error)
        throw DeviceFailure("no folder for temporary files, see $TMPDIR: " + error.message());
    return folder;
}

} // namespace tablectl
