#pragma once

#include "Device.h"

#include <support/CenterLoop.h>
#include <support/Ref.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tablectl {

class Exchange;

// The connection to the plug-ins of the runtime folder.
//
// The main thread makes the session and runs the device center's loop; the command runs on a thread of its
// own and may therefore wait, step by step, for what it asks for. Its waits end with `Interrupted` when a
// signal asks the program to end; in a `CleanUp` only a second signal ends them.
class Session {
public:
    using Seconds = std::chrono::duration<double>;

    Session(); // main thread, which becomes the center's
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    void run();                 // main thread: until finish()
    void finish();              // any thread
    void interrupt(int signal); // any thread

    // The rest is for the command's thread.

    std::vector<DeviceStatus> devices();
    std::optional<DeviceStatus> status(const std::string& path); // nothing when the device is gone
    // Waits until the predicate holds for what is there: checked at once and after each change. False: time
    // is up. The predicate must not ask the session for anything.
    bool waitUntil(const std::function<bool(const std::vector<DeviceStatus>&)>& predicate, Seconds timeout);
    // The same for one device; null when it is gone.
    bool waitUntil(const std::string& path, const std::function<bool(const DeviceStatus*)>& predicate,
                   Seconds timeout);
    // Waits for the next status that the device at `path` posts after `revision`, a count of its posts.
    // Nothing when time is up or the device is gone.
    unsigned revision(const std::string& path);
    bool waitForNewStatus(const std::string& path, unsigned revision, Seconds timeout);
    void sleep(Seconds duration);

    // Throws DeviceFailure when the device is gone.
    Exchange send(const std::string& path, const Command& command);
    // Sends without waiting for anything; from a timer of the center's loop, too.
    void sendAndForget(const std::string& path, const Command& command);

    // The scope of what is left to do after an interruption.
    class CleanUp {
    public:
        explicit CleanUp(Session& session) : mSession(session) { mSession.mCleanUps++; }
        CleanUp(const CleanUp&) = delete;
        CleanUp& operator=(const CleanUp&) = delete;
        ~CleanUp() { mSession.mCleanUps--; }

    private:
        Session& mSession;
    };

private:
    friend class Exchange;

    struct Entry {
        tools::Ref<VellDeviceRef> record; // used on the center's thread only
        DeviceStatus status;
        unsigned revision = 0;
    };

    static void deviceChanged(void* context, VellDeviceRef device, unsigned event);
    static void responded(void* context, VellDeviceCommandResponseRef response);

    bool waitLocked(std::unique_lock<std::mutex>& lock, std::optional<Seconds> timeout,
                    const std::function<bool()>& predicate);
    std::vector<DeviceStatus> statusesLocked() const;
    std::string sendOnLoop(const std::string& path, const Command& command, bool wantsReplies);

    VellDeviceCenterRef mCenter;
    int mCleanUps = 0; // command's thread

    // Guards what follows, which the center's thread fills and the command's thread waits for.
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::map<std::string, Entry> mDevices;             // by path
    std::map<std::string, std::deque<Reply>> mReplies; // by ticket, for those somebody waits for
    int mInterruptions = 0;
    int mSignal = 0;
};

// A command that was sent, and the replies to it as they come.
class Exchange {
public:
    Exchange(Exchange&& other) noexcept;
    Exchange& operator=(Exchange&&) = delete;
    ~Exchange();

    // Nothing when time is up; without a timeout it waits for as long as it takes. Throws DeviceFailure when
    // the device goes away first.
    std::optional<Reply> next(std::optional<Session::Seconds> timeout = std::nullopt);

private:
    friend class Session;
    Exchange(Session& session, std::string path, std::string ticket);

    Session& mSession;
    std::string mPath;
    std::string mTicket; // "" when moved from
};

} // namespace tablectl
