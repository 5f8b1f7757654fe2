#pragma once

#include "Client.h"
#include "Command.h"
#include "DeviceRecord.h"
#include "Server.h"

#include <Base/Mutex.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

// The process's device center: the run loop everything happens on, the commands' way to their observers, and
// the two sides of the transport, of which a plug-in uses the server and a client program the client.
//
// It belongs to the thread that asks for it first. Locks: the center's own, the server's and the client's are
// never held together, and none while anybody's callback runs; under the server's and the client's a
// channel's may be taken.
struct __VellDeviceCenter final : VellService::Object {
    static constexpr const char* kTypeName = "VellDeviceCenterRef";

    static __VellDeviceCenter& shared(); // any thread

    CFRunLoopRef runLoop() const { return mLoop; }
    VellService::Server& server() { return *mServer; }
    VellService::Client& client() { return *mClient; }

    // The operations of the header.
    void run();
    void runOnce(); // any thread
    void stop();    // any thread
    void setSourceName(VellService::Ref<__VellString> name);
    void addObserver(void* context, VellStringRef deviceName, VellCommandCallback callback); // any thread
    void removeObserver(void* context, VellStringRef deviceName);                            // any thread

    // Any thread.
    void postResponse(const __VellDeviceCommandResponse& response);
    void postStatus(const __VellDevice& device);
    void postClose(const __VellDevice& device);
    // The receipt, null when the plug-in of a mirror is away.
    VellService::Ref<__VellReceipt> sendCommand(__VellDevice& device, const __VellDeviceCommand& command);

    // As new, and the calling thread's from now on; for tests.
    void reset();

private:
    struct Observer {
        std::uint64_t number;
        void* context;
        VellService::Ref<__VellString> deviceName; // null: any
        VellCommandCallback callback;
    };

    __VellDeviceCenter();
    void setUp();
    void flush();
    void deliver(const VellService::Ref<__VellDeviceCommand>& command);
    bool isRegistered(std::uint64_t observer) const;
    VellService::Ref<__VellReceipt> newReceipt() const;

    CFRunLoopRef mLoop = nullptr;
    std::unique_ptr<VellService::Server> mServer;
    std::unique_ptr<VellService::Client> mClient;
    std::atomic<bool> mStopRequested{false};

    mutable Base::Mutex mMutex;
    std::vector<Observer> mObservers GUARDED_BY(mMutex);
    std::uint64_t mLastObserver GUARDED_BY(mMutex) = 0;
    VellService::Ref<__VellString> mSourceName GUARDED_BY(mMutex);
    VellService::RecordFields mPostedFields GUARDED_BY(mMutex); // as mPostedStatus says them
    VellService::Frame mPostedStatus GUARDED_BY(mMutex);
};
