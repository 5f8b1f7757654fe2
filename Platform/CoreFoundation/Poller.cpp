#include "Poller.h"

#include <Base/Mutex.h>

#include <sys/eventfd.h>

#include <cerrno>
#include <set>
#include <system_error>

namespace CoreFoundation {
namespace {

constexpr Poller::Identifier kWakeSignal = 0;
constexpr std::size_t kEventsPerWait = 128;

// Every poller of the process, for wakeAll. Never destroyed: threads may outlive the static objects.
struct Registry {
    Base::Mutex mutex;
    std::set<Poller*> pollers GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

[[noreturn]] void fail(const char* call) {
    throw std::system_error(errno, std::generic_category(), call);
}

} // namespace

Poller::Poller()
    : mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mWakeSignal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mReady(kEventsPerWait) {
    if (!mEpoll || !mWakeSignal)
        fail("run loop");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeSignal;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mWakeSignal.get(), &event) != 0)
        fail("epoll_ctl");
    const Base::Lock lock(registry().mutex);
    registry().pollers.insert(this);
}

Poller::~Poller() {
    const Base::Lock lock(registry().mutex);
    registry().pollers.erase(this);
}

Poller::Identifier Poller::add(int fd, std::uint32_t events, Handler handler) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = ++mLastIdentifier;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        fail("epoll_ctl");
    mHandlers.emplace(mLastIdentifier, std::make_shared<Handler>(std::move(handler)));
    return mLastIdentifier;
}

void Poller::modify(Identifier identifier, int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = identifier;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, fd, &event);
}

void Poller::remove(Identifier identifier, int fd) {
    if (mHandlers.erase(identifier) != 0)
        epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void Poller::waitAndDispatch(int milliseconds) {
    const int count = epoll_wait(mEpoll.get(), mReady.data(), static_cast<int>(mReady.size()), milliseconds);
    // A handler may run a nested pass, which reuses the buffer.
    const std::vector<epoll_event> ready(mReady.begin(), mReady.begin() + (count > 0 ? count : 0));
    for (const epoll_event& event : ready) {
        if (event.data.u64 == kWakeSignal) {
            drainWakeSignal();
            continue;
        }
        // An earlier handler may have removed this one.
        const auto found = mHandlers.find(event.data.u64);
        if (found == mHandlers.end())
            continue;
        const std::shared_ptr<Handler> handler = found->second;
        (*handler)(event.events);
    }
}

void Poller::wake() {
    // One signal serves all who wake before the loop gets to see it.
    if (mWakePending.exchange(true, std::memory_order_acq_rel))
        return;
    eventfd_write(mWakeSignal.get(), 1);
}

void Poller::wakeAll() {
    const Base::Lock lock(registry().mutex);
    for (Poller* poller : registry().pollers)
        poller->wake();
}

void Poller::drainWakeSignal() {
    // The signal is taken down before the flag: whoever wakes in between finds the flag still up, and what
    // they wanted seen is seen by the pass that begins now.
    eventfd_t value = 0;
    eventfd_read(mWakeSignal.get(), &value);
    mWakePending.exchange(false, std::memory_order_acq_rel);
}

} // namespace CoreFoundation
