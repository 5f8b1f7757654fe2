#include <Base/File.h>
#include <Base/FileDescriptor.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace Base {
namespace {

constexpr std::size_t kFirstPiece = 4096;

FileContents failed(int error) {
    return {{}, std::error_code(error, std::generic_category())};
}

} // namespace

FileContents readFile(const std::string& path, std::size_t limit, FileKind kind) {
    const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | (kind == FileKind::regular ? O_NONBLOCK : 0);
    const FileDescriptor file(open(path.c_str(), flags));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return failed(errno);
    if (S_ISDIR(status.st_mode))
        return failed(EISDIR);
    if (kind == FileKind::regular && !S_ISREG(status.st_mode))
        return failed(EINVAL);
    const auto expected = static_cast<std::size_t>(std::max<off_t>(status.st_size, 0));
    if (expected > limit)
        return failed(EFBIG);
    // One byte more than is expected, so that the end is seen without growing.
    std::string bytes(std::max(expected + 1, kFirstPiece), '\0');
    std::size_t size = 0;
    for (;;) {
        const ssize_t count = read(file.get(), bytes.data() + size, bytes.size() - size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(errno);
        size += static_cast<std::size_t>(count);
        if (size > limit)
            return failed(EFBIG);
        if (count == 0)
            break;
        if (size == bytes.size())
            bytes.resize(2 * size);
    }
    bytes.resize(size);
    return {std::move(bytes), {}};
}

} // namespace Base
