#include "Session.h"

#include "Errors.h"
#include "Records.h"

#include <future>
#include <utility>

namespace tablectl {

Session::Session() : mCenter(VellDeviceCenterGetDistributedCenter()) {
    VellDeviceCenterRegisterSourceName(mCenter, VellConstStringCreateWithCString("tablectl"));
    VellDeviceCenterRegisterDeviceObserver(mCenter, this, nullptr, deviceChanged);
    VellDeviceCenterRegisterResponseObserver(mCenter, this, responded);
}

Session::~Session() {
    VellDeviceCenterUnregisterResponseObserver(mCenter, this);
    VellDeviceCenterUnregisterDeviceObserver(mCenter, this, nullptr);
}

void Session::run() {
    VellDeviceCenterRunLoop(mCenter);
}

void Session::finish() {
    VellDeviceCenterStopRunLoop(mCenter);
}

void Session::interrupt(int signal) {
    {
        const std::lock_guard lock(mMutex);
        mInterruptions++;
        mSignal = signal;
    }
    mChanged.notify_all();
}

void Session::deviceChanged(void* context, VellDeviceRef device, unsigned event) {
    constexpr unsigned kGone = 3;
    auto& session = *static_cast<Session*>(context);
    DeviceStatus status = statusOf(device);
    {
        const std::lock_guard lock(session.mMutex);
        if (event == kGone) {
            session.mDevices.erase(status.path);
        } else {
            Entry& entry = session.mDevices[status.path];
            entry.record.reset(static_cast<VellDeviceRef>(VellRetain(device)));
            entry.status = std::move(status);
            entry.revision++;
        }
    }
    session.mChanged.notify_all();
}

void Session::responded(void* context, VellDeviceCommandResponseRef response) {
    auto& session = *static_cast<Session*>(context);
    const std::string ticket = ticketOf(response);
    {
        const std::lock_guard lock(session.mMutex);
        const auto found = session.mReplies.find(ticket);
        if (found == session.mReplies.end())
            return;
        found->second.push_back(replyOf(response));
    }
    session.mChanged.notify_all();
}

bool Session::waitLocked(std::unique_lock<std::mutex>& lock, std::optional<Seconds> timeout,
                         const std::function<bool()>& predicate) {
    const int tolerated = mCleanUps > 0 ? 1 : 0;
    const auto isOver = [&] { return predicate() || mInterruptions > tolerated; };
    if (!timeout) {
        mChanged.wait(lock, isOver);
    } else {
        const auto duration = std::chrono::duration_cast<std::chrono::steady_clock::duration>(*timeout);
        mChanged.wait_until(lock, std::chrono::steady_clock::now() + duration, isOver);
    }
    if (mInterruptions > tolerated)
        throw Interrupted(mSignal);
    return predicate();
}

std::vector<DeviceStatus> Session::statusesLocked() const {
    std::vector<DeviceStatus> result;
    for (const auto& [path, entry] : mDevices)
        result.push_back(entry.status);
    return result;
}

std::vector<DeviceStatus> Session::devices() {
    const std::lock_guard lock(mMutex);
    return statusesLocked();
}

std::optional<DeviceStatus> Session::status(const std::string& path) {
    const std::lock_guard lock(mMutex);
    const auto found = mDevices.find(path);
    if (found == mDevices.end())
        return std::nullopt;
    return found->second.status;
}

bool Session::waitUntil(const std::function<bool(const std::vector<DeviceStatus>&)>& predicate,
                        Seconds timeout) {
    std::unique_lock lock(mMutex);
    return waitLocked(lock, timeout, [&] { return predicate(statusesLocked()); });
}

bool Session::waitUntil(const std::string& path, const std::function<bool(const DeviceStatus*)>& predicate,
                        Seconds timeout) {
    std::unique_lock lock(mMutex);
    return waitLocked(lock, timeout, [&] {
        const auto found = mDevices.find(path);
        return predicate(found != mDevices.end() ? &found->second.status : nullptr);
    });
}

unsigned Session::revision(const std::string& path) {
    const std::lock_guard lock(mMutex);
    const auto found = mDevices.find(path);
    return found == mDevices.end() ? 0 : found->second.revision;
}

bool Session::waitForNewStatus(const std::string& path, unsigned revision, Seconds timeout) {
    std::unique_lock lock(mMutex);
    const auto isNew = [&] {
        const auto found = mDevices.find(path);
        return found == mDevices.end() || found->second.revision != revision;
    };
    return waitLocked(lock, timeout, isNew) && mDevices.contains(path);
}

void Session::sleep(Seconds duration) {
    std::unique_lock lock(mMutex);
    waitLocked(lock, duration, [] { return false; });
}

std::string Session::sendOnLoop(const std::string& path, const Command& command, bool wantsReplies) {
    tools::Ref<VellDeviceRef> record;
    {
        const std::lock_guard lock(mMutex);
        if (const auto device = mDevices.find(path); device != mDevices.end())
            record.reset(static_cast<VellDeviceRef>(VellRetain(device->second.record.get())));
    }
    const std::string ticket = record ? sendCommand(record.get(), command) : "";
    if (wantsReplies && !ticket.empty()) {
        // In time for the reply, which this thread delivers.
        const std::lock_guard lock(mMutex);
        mReplies[ticket];
    }
    return ticket;
}

Exchange Session::send(const std::string& path, const Command& command) {
    std::promise<std::string> sent;
    tools::runOnCenterLoop([&] { sent.set_value(sendOnLoop(path, command, true)); });
    const std::string ticket = sent.get_future().get();
    if (ticket.empty())
        throw DeviceFailure("the device is gone");
    return Exchange(*this, path, ticket);
}

void Session::sendAndForget(const std::string& path, const Command& command) {
    tools::runOnCenterLoop([this, path, command] { sendOnLoop(path, command, false); });
}

Exchange::Exchange(Session& session, std::string path, std::string ticket)
    : mSession(session), mPath(std::move(path)), mTicket(std::move(ticket)) {}

Exchange::Exchange(Exchange&& other) noexcept
    : mSession(other.mSession), mPath(std::move(other.mPath)), mTicket(std::exchange(other.mTicket, "")) {}

Exchange::~Exchange() {
    const std::lock_guard lock(mSession.mMutex);
    mSession.mReplies.erase(mTicket);
}

std::optional<Reply> Exchange::next(std::optional<Session::Seconds> timeout) {
    std::unique_lock lock(mSession.mMutex);
    std::deque<Reply>& replies = mSession.mReplies[mTicket];
    // What came before the device went is still delivered.
    const auto isOver = [&] { return !replies.empty() || !mSession.mDevices.contains(mPath); };
    if (!mSession.waitLocked(lock, timeout, isOver))
        return std::nullopt;
    if (replies.empty())
        throw DeviceFailure("the device went away");
    Reply reply = std::move(replies.front());
    replies.pop_front();
    return reply;
}

} // namespace tablectl
