#pragma once

#include "FrameReader.h"
#include "Wire.h"

#include <Base/FileDescriptor.h>
#include <Base/Mutex.h>
#include <CoreFoundation/RunLoop.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace VellService {

// One connected socket that carries frames both ways. Frames that arrive are handed over one at a time as
// events of the loop, so that several channels take turns; a channel reads on when what it has read is dealt
// with. Frames that are sent leave at once as far as the socket takes them, the rest as it becomes writable;
// a peer that lets too much wait is cut off.
//
// Sending and flushing are for any thread, everything else for the loop's.
class FrameChannel : public std::enable_shared_from_this<FrameChannel> {
public:
    // What may wait for a peer that does not read.
    static constexpr std::size_t kMaximumWaiting = 64 << 20;

    struct Handlers {
        // Answers false when the payload makes no sense; the channel is closed then.
        std::function<bool(std::string_view payload)> frame;
        // The channel has ended by itself: the peer left, was cut off or sent nonsense. Called once, as an
        // event.
        std::function<void()> ended;
    };

    // `peer` names the other end in the log.
    FrameChannel(Base::FileDescriptor socket, CFRunLoopRef loop, std::string peer);
    ~FrameChannel();

    void start(Handlers handlers);
    // Ends the channel without a call of `ended`.
    void close();

    void send(const Frame& frame);
    // Leaves with the next frame that is sent, or with the next flush.
    void sendWithNext(const Frame& frame);
    // Writes what the socket takes now; true when nothing waits any more.
    bool flush();
    // The peer sees the end of the stream, and so does the loop.
    void hangUp();

private:
    void receive();
    bool readOnce();
    void deliverNext();
    void enqueueDelivery();
    void end();
    bool enqueue(const Frame& frame) REQUIRES(mMutex);
    void writeWaiting() REQUIRES(mMutex);
    void giveUp() REQUIRES(mMutex);

    const CFRunLoopRef mLoop;
    const std::string mPeer;
    const Base::FileDescriptor mSocket;

    // The loop's thread only.
    Handlers mHandlers;
    FrameReader mReader;
    bool mDelivering = false; // a delivery event is queued or running
    bool mAtEnd = false;      // nothing more will be read

    // A leaf but for the log: no handler is called while it is held.
    Base::Mutex mMutex;
    std::unique_ptr<CoreFoundation::FileSource>
        mSource GUARDED_BY(mMutex); // null before the start and after the end
    std::deque<Frame> mWaiting GUARDED_BY(mMutex);
    std::atomic<bool> mHasWaiting{
        false}; // set under the lock; to see without it that there is nothing to flush
    std::size_t mWaitingBytes GUARDED_BY(mMutex) = 0;
    std::size_t mFirstWritten GUARDED_BY(mMutex) = 0; // bytes of the first waiting frame that have left
    bool mWatchesWriting GUARDED_BY(mMutex) = false;
    bool mGivenUp GUARDED_BY(mMutex) = false; // nothing more will be written
};

} // namespace VellService
