#include "ServerSocket.h"

#include "RuntimeFolder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace VellService {
namespace {

constexpr int kBacklog = 512;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

// Held while a socket is looked at and replaced. The lock is on the folder itself, so it leaves no file
// behind and goes with its holder.
class FolderLock {
public:
    explicit FolderLock(const std::string& folder)
        : mFolder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        constexpr int attempts = 500;
        constexpr int pause = 10; // milliseconds
        for (int attempt = 0; mFolder && attempt < attempts; ++attempt) {
            if (flock(mFolder.get(), LOCK_EX | LOCK_NB) == 0)
                return;
            if (errno != EWOULDBLOCK && errno != EINTR)
                break;
            poll(nullptr, 0, pause);
        }
        fail("cannot lock " + folder);
    }

private:
    Base::FileDescriptor mFolder;
};

Base::FileDescriptor newSocket() {
    Base::FileDescriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        fail("cannot make a socket");
    return fd;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// A listener whose queue is full answers just as well.
bool answers(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    const auto probe = newSocket();
    return connect(probe.get(), generic(address), sizeof address) == 0 || errno == EAGAIN ||
           errno == EINPROGRESS;
}

} // namespace

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + " is too long for a socket (" + std::to_string(path.size()) +
                                 " bytes, at most " + std::to_string(sizeof address.sun_path - 1) +
                                 "); choose a shorter runtime folder");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

ServerSocket::ServerSocket(const std::string& path) : mPath(path) {
    if (const auto problem = ensureRuntimeFolder())
        throw std::runtime_error(*problem);
    socketAddress(mPath); // refuse early
    const FolderLock lock(runtimeFolderPath());
    if (answers(mPath))
        throw std::runtime_error(mPath + " belongs to a process that is running");
    // Clients see the socket only when it listens: it comes into the folder under another name.
    const std::string hidden = std::filesystem::path(mPath).replace_extension(".new");
    unlink(hidden.c_str());
    const sockaddr_un address = socketAddress(hidden);
    mSocket = newSocket();
    struct stat status {};
    if (bind(mSocket.get(), generic(address), sizeof address) != 0 || listen(mSocket.get(), kBacklog) != 0 ||
        lstat(hidden.c_str(), &status) != 0)
        fail("cannot listen on " + mPath);
    if (rename(hidden.c_str(), mPath.c_str()) != 0) {
        const int error = errno;
        unlink(hidden.c_str());
        errno = error;
        fail("cannot listen on " + mPath);
    }
    mDevice = status.st_dev;
    mInode = status.st_ino;
}

ServerSocket::~ServerSocket() {
    withdraw();
}

bool ServerSocket::isThere() const {
    struct stat status {};
    return lstat(mPath.c_str(), &status) == 0 && status.st_dev == mDevice && status.st_ino == mInode;
}

void ServerSocket::withdraw() {
    // Only once: afterwards a successor's socket may be there, under the same number even.
    if (mWithdrawn.exchange(true))
        return;
    // While this socket answers, nobody replaces it, so what is ours now is ours when it is unlinked.
    if (isThere())
        unlink(mPath.c_str());
    shutdown(mSocket.get(), SHUT_RDWR);
}

} // namespace VellService
