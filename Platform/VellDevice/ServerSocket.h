#pragma once

#include <Base/FileDescriptor.h>

#include <sys/types.h>

#include <atomic>
#include <string>

struct sockaddr_un;

namespace VellService {

// The address of a Unix socket; throws std::runtime_error when the path is longer than the system allows.
sockaddr_un socketAddress(const std::string& path);

// A listening Unix socket in the runtime folder, which is made when it is missing. A socket that a dead
// process left there is replaced, one that answers is not; two processes that start at once do not both
// believe to be first.
class ServerSocket {
public:
    // Throws std::runtime_error with the reason as a sentence.
    explicit ServerSocket(const std::string& path);
    ~ServerSocket();
    ServerSocket(const ServerSocket&) = delete;
    ServerSocket& operator=(const ServerSocket&) = delete;

    int descriptor() const { return mSocket.get(); }
    const std::string& path() const { return mPath; }
    // Whether the path still names this socket.
    bool isThere() const;
    // Any thread: takes the socket out of the folder, as long as it is still ours, and turns clients away.
    void withdraw();

private:
    std::string mPath;
    Base::FileDescriptor mSocket;
    dev_t mDevice = 0;
    ino_t mInode = 0;
    std::atomic<bool> mWithdrawn{false};
};

} // namespace VellService
