#pragma once

#include <Base/FileDescriptor.h>

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace CoreFoundation {

// Waits for descriptors and for a wake-up from another thread. It belongs to one run loop; unless an
// operation says otherwise, only the loop's thread calls it.
class Poller {
public:
    // Is told the events (EPOLLIN, EPOLLOUT, ...) that are there. May add and remove descriptors, its own
    // included.
    using Handler = std::function<void(std::uint32_t events)>;
    using Identifier = std::uint64_t;

    Poller();
    ~Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    // Throws std::system_error when the descriptor cannot be watched.
    Identifier add(int fd, std::uint32_t events, Handler handler);
    // Any thread, as long as the descriptor is watched and open.
    void modify(Identifier identifier, int fd, std::uint32_t events);
    void remove(Identifier identifier, int fd);

    // Waits up to `milliseconds` (-1: without end) for the first event, then calls the handlers of all that
    // are there.
    void waitAndDispatch(int milliseconds);

    // Any thread: a wait that is going on, or the next one, returns.
    void wake();
    // Wakes every poller of the process: the clock has been moved.
    static void wakeAll();

private:
    void drainWakeSignal();

    Base::FileDescriptor mEpoll;
    Base::FileDescriptor mWakeSignal;
    std::atomic<bool> mWakePending{false};
    Identifier mLastIdentifier = 0;
    std::unordered_map<Identifier, std::shared_ptr<Handler>> mHandlers;
    std::vector<epoll_event> mReady;
};

} // namespace CoreFoundation
