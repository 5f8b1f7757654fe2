#include "SharedLockOpen.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// O_NONBLOCK only matters for what is no regular file: it keeps the open of a pipe from waiting for a writer.
constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// A file that exists is opened without O_CREAT: in a sticky folder the kernel may refuse O_CREAT on another
// user's file although reading it is allowed.
int openOrCreate(const char* path) {
    for (;;) {
        int fd = open(path, kFlags);
        if (fd >= 0 || errno != ENOENT)
            return fd;
        fd = open(path, kFlags | O_CREAT | O_EXCL, 0644);
        if (fd >= 0 || errno != EEXIST)
            return fd;
        // Somebody created it between the two calls: open theirs.
    }
}

// Descriptor 0 would read as "none" to the callers.
int aboveZero(int fd) {
    if (fd != 0)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

} // namespace

int OpenWithSharedLock(const char* path) {
    const int fd = aboveZero(openOrCreate(path));
    if (fd < 0)
        return -1;
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) != 0)
        error = errno;
    else if (!S_ISREG(status.st_mode))
        error = EINVAL;
    else {
        int locked = 0;
        do {
            locked = flock(fd, LOCK_SH);
        } while (locked != 0 && errno == EINTR);
        if (locked != 0)
            error = errno;
    }
    if (error == 0)
        return fd;
    close(fd);
    errno = error;
    return -1;
}
