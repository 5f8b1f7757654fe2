#include "FrameChannel.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>

namespace VellService {
namespace {

constexpr std::size_t kReadSize = std::size_t{64} * 1024;
constexpr int kReadsInARow = 16; // before other descriptors get their turn
constexpr std::size_t kFramesPerWrite = 16;

} // namespace

FrameChannel::FrameChannel(Base::FileDescriptor socket, CFRunLoopRef loop, std::string peer)
    : mLoop(loop), mPeer(std::move(peer)), mSocket(std::move(socket)) {
    mLoop->retain();
}

FrameChannel::~FrameChannel() {
    mLoop->release();
}

void FrameChannel::start(Handlers handlers) {
    mHandlers = std::move(handlers);
    const Base::Lock lock(mMutex);
    mSource = std::make_unique<CoreFoundation::FileSource>(
        mLoop, mSocket.get(), EPOLLIN, [channel = weak_from_this()](std::uint32_t events) {
            const auto self = channel.lock();
            if (!self)
                return;
            if (events & EPOLLOUT)
                self->flush();
            if (events & ~static_cast<std::uint32_t>(EPOLLOUT))
                self->receive();
        });
    writeWaiting();
}

void FrameChannel::close() {
    mAtEnd = true;
    mHandlers = {};
    std::unique_ptr<CoreFoundation::FileSource> source;
    const Base::Lock lock(mMutex);
    source = std::move(mSource);
    giveUp();
}

void FrameChannel::receive() {
    // What was read last is not dealt with yet: the rest waits in the socket, and the sender with it.
    if (mDelivering || mAtEnd)
        return;
    for (int count = 0; count < kReadsInARow; ++count) {
        if (!readOnce() || mReader.hasFrame() || mReader.isMalformed())
            break;
    }
    if (mAtEnd || mReader.hasFrame() || mReader.isMalformed())
        enqueueDelivery();
}

bool FrameChannel::readOnce() {
    std::array<char, kReadSize> buffer;
    const ssize_t count = recv(mSocket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) {
        mReader.append(buffer.data(), static_cast<std::size_t>(count));
        return true;
    }
    mAtEnd = count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
    return false;
}

void FrameChannel::enqueueDelivery() {
    mDelivering = true;
    mLoop->enqueue([self = shared_from_this()] { self->deliverNext(); });
}

void FrameChannel::deliverNext() {
    if (mReader.hasFrame() && mHandlers.frame) {
        // Kept apart: the handler may close this channel.
        const auto handler = mHandlers.frame;
        const bool understood = handler(mReader.frame());
        mReader.pop();
        if (!understood && mHandlers.frame) {
            VellLogWarning("[FrameChannel] - malformed message from %s, connection closed\n", mPeer.c_str());
            end();
            return;
        }
    } else if (mReader.isMalformed() && mHandlers.frame) {
        VellLogWarning("[FrameChannel] - malformed frame from %s, connection closed\n", mPeer.c_str());
        end();
        return;
    }
    if (!mHandlers.frame)
        mDelivering = false; // closed: nobody wants the rest
    else if (mReader.hasFrame() || mReader.isMalformed())
        enqueueDelivery();
    else if (mAtEnd)
        end();
    else
        mDelivering = false;
}

void FrameChannel::end() {
    const auto ended = std::move(mHandlers.ended);
    close();
    if (ended)
        ended();
}

void FrameChannel::send(const Frame& frame) {
    if (!frame)
        return;
    const Base::Lock lock(mMutex);
    if (enqueue(frame) && mSource)
        writeWaiting();
}

void FrameChannel::sendWithNext(const Frame& frame) {
    const Base::Lock lock(mMutex);
    enqueue(frame);
}

bool FrameChannel::enqueue(const Frame& frame) {
    if (mGivenUp)
        return false;
    if (mWaitingBytes + frame->size() > kMaximumWaiting) {
        VellLogWarning("[FrameChannel] - %s does not read, connection closed\n", mPeer.c_str());
        giveUp();
        return false;
    }
    mWaiting.push_back(frame);
    mHasWaiting = true;
    mWaitingBytes += frame->size();
    return true;
}

bool FrameChannel::flush() {
    if (!mHasWaiting)
        return true;
    const Base::Lock lock(mMutex);
    if (mSource)
        writeWaiting();
    return mWaiting.empty() || !mSource;
}

void FrameChannel::hangUp() {
    const Base::Lock lock(mMutex);
    giveUp();
}

void FrameChannel::writeWaiting() {
    while (!mWaiting.empty()) {
        std::array<iovec, kFramesPerWrite> parts;
        std::size_t count = 0;
        for (const Frame& frame : mWaiting) {
            if (count == parts.size())
                break;
            const std::size_t written = count == 0 ? mFirstWritten : 0;
            parts[count++] = {const_cast<char*>(frame->data()) + written, frame->size() - written};
        }
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(mSocket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                giveUp();
                return;
            }
            break;
        }
        mWaitingBytes -= static_cast<std::size_t>(sent);
        mFirstWritten += static_cast<std::size_t>(sent);
        while (!mWaiting.empty() && mFirstWritten >= mWaiting.front()->size()) {
            mFirstWritten -= mWaiting.front()->size();
            mWaiting.pop_front();
        }
    }
    const bool watches = !mWaiting.empty();
    mHasWaiting = watches;
    if (watches != mWatchesWriting && mSource) {
        mWatchesWriting = watches;
        mSource->setEvents(watches ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
}

void FrameChannel::giveUp() {
    if (mGivenUp)
        return;
    mGivenUp = true;
    mWaiting.clear();
    mHasWaiting = false;
    mWaitingBytes = 0;
    mFirstWritten = 0;
    // Not closed: only the loop's thread does that, and it sees the end of the stream now.
    shutdown(mSocket.get(), SHUT_RDWR);
}

} // namespace VellService
