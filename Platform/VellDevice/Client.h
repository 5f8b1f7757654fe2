#pragma once

#include "Delay.h"
#include "DeviceRecord.h"
#include "FolderWatch.h"
#include "FrameChannel.h"
#include "PendingCommands.h"

#include <Base/Mutex.h>

#include <sys/types.h>
#include <time.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace VellService {

// A client program's side of the transport: finds the plug-ins by their sockets in the runtime folder,
// mirrors the records they post, and brings commands to them and responses back.
//
// Observers are called on the loop's thread. The public operations are for any thread.
class Client {
public:
    explicit Client(CFRunLoopRef loop);
    ~Client();

    // An observer that comes later is told of the devices that are there.
    void addDeviceObserver(void* context, VellStringRef deviceName, VellDeviceCallback callback);
    void removeDeviceObserver(void* context, VellStringRef deviceName);
    void addResponseObserver(void* context, VellResponseCallback callback);
    void removeResponseObserver(void* context);

    // Both begin the search for plug-ins, too. What is lent lives as long as the process.
    VellDeviceRef deviceByName(const std::string& name);
    Ref<__VellArray> copyDevices();

    // False when the plug-in is away.
    bool send(LinkIdentifier link, const Ref<__VellDeviceCommand>& command);
    void flush();

private:
    enum Event : unsigned { appeared = 1, changed = 2, gone = 3 };

    struct DeviceObserver {
        std::uint64_t number;
        void* context;
        Ref<__VellString> deviceName; // null: any
        VellDeviceCallback callback;
        bool isIntroduced; // has been told of the devices that were there before it
    };
    struct ResponseObserver {
        std::uint64_t number;
        void* context;
        VellResponseCallback callback;
    };
    // The connection to one plug-in.
    struct Link {
        LinkIdentifier identifier = kNoLink;
        std::string socketPath;
        std::shared_ptr<FrameChannel> channel;
    };
    // What is known of a socket in the folder, connected or not.
    struct Socket {
        ino_t inode = 0;
        timespec changed{};  // numbers of files are used again
        bool isDead = false; // nobody listens; not worth another try until it is replaced
        LinkIdentifier link = kNoLink;
        CFAbsoluteTime nextTry = 0;
        CFTimeInterval pause = 0; // after the next failure
    };

    // The loop's thread.
    void beginSearch();
    void look();
    void lookAgainIn(CFTimeInterval seconds);
    void tryToConnect(const std::string& path, Socket& socket);
    void open(const std::string& path, Socket& socket, Base::FileDescriptor connection);
    bool receive(LinkIdentifier link, std::string_view payload);
    void ended(LinkIdentifier link);
    bool updateRecord(LinkIdentifier link, const Message& message);
    void deliverResponse(LinkIdentifier link, const Message& message);
    void closeRecord(LinkIdentifier link, const std::string& devicePath);
    void notify(const Ref<__VellDevice>& device, Event event);
    void introduce(std::uint64_t observer);
    Ref<__VellDevice> recordFor(LinkIdentifier link, const RecordFields& fields);
    std::vector<Ref<__VellDevice>> recordsOf(LinkIdentifier link) const;
    std::vector<DeviceObserver> observersOf(const std::string& deviceName) const;

    // Any thread.
    void requestSearch();
    std::shared_ptr<FrameChannel> channelOf(LinkIdentifier link) const;

    const CFRunLoopRef mLoop;

    // The loop's thread only.
    std::unique_ptr<FolderWatch> mWatch;
    std::string mFolder;
    std::map<std::string, Socket> mSockets; // by path
    Delay mNextLook;
    LinkIdentifier mLastLink = kNoLink;

    // Taken before a record's lock, never while an observer is called.
    mutable Base::Mutex mMutex;
    bool mSearchRequested GUARDED_BY(mMutex) = false;
    std::map<LinkIdentifier, Link> mLinks GUARDED_BY(mMutex);
    // Every record that was ever seen: a program may keep what it was lent while a plug-in is away, and finds
    // it usable when the plug-in comes back.
    std::vector<Ref<__VellDevice>> mRecords GUARDED_BY(mMutex);
    std::vector<DeviceObserver> mDeviceObservers GUARDED_BY(mMutex);
    std::vector<ResponseObserver> mResponseObservers GUARDED_BY(mMutex);
    std::uint64_t mLastObserver GUARDED_BY(mMutex) = 0;
    PendingCommands mPending GUARDED_BY(mMutex);
};

} // namespace VellService
