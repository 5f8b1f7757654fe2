#include "Files.h"

#include "Errors.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tablectl {

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
    throw DeviceFailure(file + ": cannot be written: " + std::strerror(errno));
}

std::filesystem::path temporaryFolder() {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
    if (error)
        throw DeviceFailure("no folder for temporary files, see $TMPDIR: " + error.message());
    return folder;
}

} // namespace tablectl
