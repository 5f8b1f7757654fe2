#pragma once

#include <unistd.h>

#include <utility>

namespace Base {

// Owns one open descriptor; -1 is none.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : mFd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other)
            reset(std::exchange(other.mFd, -1));
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    void reset(int fd = -1) {
        if (mFd >= 0)
            close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

} // namespace Base
