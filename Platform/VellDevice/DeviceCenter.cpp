#include "DeviceCenter.h"

#include "Retired.h"
#include "Testing.h"

#include <unistd.h>

#include <algorithm>

using namespace VellService;

__VellDeviceCenter& __VellDeviceCenter::shared() {
    // Never destroyed: threads may outlive the static objects.
    static __VellDeviceCenter& instance = *new __VellDeviceCenter;
    return instance;
}

__VellDeviceCenter::__VellDeviceCenter() : Object(kTypeName) {
    makeImmortal();
    setUp();
}

void __VellDeviceCenter::setUp() {
    mLoop = CFRunLoopGetCurrent();
    mLoop->retain();
    mServer = std::make_unique<Server>(mLoop,
                                       [this](const Ref<__VellDeviceCommand>& command) { deliver(command); });
    mClient = std::make_unique<Client>(mLoop);
}

void __VellDeviceCenter::reset() {
    mServer.reset();
    mClient.reset();
    mLoop->discardEvents();
    mLoop->release();
    Retired::shared().freeAll();
    mStopRequested = false;
    {
        const Base::Lock lock(mMutex);
        mObservers.clear();
        mSourceName = {};
        mPostedFields = {};
        mPostedStatus = nullptr;
    }
    setUp();
}

void __VellDeviceCenter::flush() {
    mServer->flush();
    mClient->flush();
}

void __VellDeviceCenter::run() {
    if (!mLoop->isOfThisThread() || mLoop->isBusy()) {
        VellLogError("[DeviceCenter] - the run loop is run by its own thread, and not inside itself\n");
        return;
    }
    while (!mStopRequested) {
        Retired::shared().freeAll();
        mLoop->pass(__CFRunLoop::Wait::forWork, [this] { return !mStopRequested; });
    }
    mServer->close(); // it may have been opened after the stop
    mStopRequested = false;
}

void __VellDeviceCenter::runOnce() {
    flush();
    if (!mLoop->isOfThisThread())
        return;
    if (!mLoop->isBusy())
        Retired::shared().freeAll();
    mLoop->pass(__CFRunLoop::Wait::no);
    flush();
}

void __VellDeviceCenter::stop() {
    mClient->flush();
    mServer->close();
    // Last: the caller may be a thread that ends the process next, while the loop's thread returns to its
    // program.
    mStopRequested = true;
    mLoop->wake();
}

void __VellDeviceCenter::setSourceName(Ref<__VellString> name) {
    const Base::Lock lock(mMutex);
    mSourceName = std::move(name);
}

void __VellDeviceCenter::addObserver(void* context, VellStringRef deviceName, VellCommandCallback callback) {
    const Base::Lock lock(mMutex);
    mObservers.push_back({++mLastObserver, context, Ref(deviceName), callback});
}

void __VellDeviceCenter::removeObserver(void* context, VellStringRef deviceName) {
    const Base::Lock lock(mMutex);
    std::erase_if(mObservers, [&](const Observer& observer) {
        return observer.context == context && compareObjects(observer.deviceName.get(), deviceName) == 0;
    });
}

bool __VellDeviceCenter::isRegistered(std::uint64_t number) const {
    const Base::Lock lock(mMutex);
    return std::any_of(mObservers.begin(), mObservers.end(),
                       [&](const Observer& observer) { return observer.number == number; });
}

void __VellDeviceCenter::deliver(const Ref<__VellDeviceCommand>& command) {
    const std::string& device = textOf(command->deviceName.get());
    std::vector<Observer> observers;
    {
        const Base::Lock lock(mMutex);
        std::copy_if(mObservers.begin(), mObservers.end(), std::back_inserter(observers),
                     [&](const Observer& observer) {
                         return !observer.deviceName || device.empty() || observer.deviceName->text == device;
                     });
    }
    for (const Observer& observer : observers) {
        // An earlier one may have unregistered it.
        if (isRegistered(observer.number))
            observer.callback(observer.context, command.get());
    }
}

void __VellDeviceCenter::postResponse(const __VellDeviceCommandResponse& response) {
    const Frame frame = responseFrame(response);
    const ConnectionIdentifier client = response.command ? response.command->connection : kOwnConnection;
    if (client == kOwnConnection)
        mServer->broadcast(frame);
    else
        mServer->send(client, frame);
}

void __VellDeviceCenter::postStatus(const __VellDevice& device) {
    // Most posts repeat the one before; what did not change is not encoded again.
    RecordFields fields = device.fields();
    Frame status;
    {
        const Base::Lock lock(mMutex);
        if (fields == mPostedFields)
            status = mPostedStatus;
    }
    if (!status) {
        status = statusFrame(fields);
        const Base::Lock lock(mMutex);
        std::swap(mPostedFields, fields);
        mPostedStatus = status;
    }
    mServer->publish(status);
}

void __VellDeviceCenter::postClose(const __VellDevice& device) {
    const RecordFields fields = device.fields();
    mServer->forgetPublished();
    mServer->broadcast(closeFrame(fields.pathOrAttribute()));
}

Ref<__VellReceipt> __VellDeviceCenter::newReceipt() const {
    static std::atomic<std::uint64_t> lastTicket{0};
    const std::string process = std::to_string(getpid());
    auto receipt = Ref<__VellReceipt>::adopt(new __VellReceipt);
    receipt->ticket = makeString(process + "-" + std::to_string(++lastTicket));
    receipt->processIdentifier = makeString(process);
    const Base::Lock lock(mMutex);
    receipt->source = mSourceName;
    return receipt;
}

Ref<__VellReceipt> __VellDeviceCenter::sendCommand(__VellDevice& device, const __VellDeviceCommand& command) {
    auto copy = duplicateOf(const_cast<__VellDeviceCommand*>(&command));
    copy->receipt = newReceipt();
    copy->connection = kOwnConnection;
    const RecordFields fields = device.fields();
    if (textOf(copy->deviceName.get()).empty())
        copy->deviceName = fields.name;
    if (textOf(copy->devicePath.get()).empty())
        copy->devicePath = Ref(fields.pathOrAttribute());
    Ref<__VellReceipt> receipt = copy->receipt;
    if (device.kind == __VellDevice::Kind::mirror)
        return mClient->send(device.link, copy) ? receipt : Ref<__VellReceipt>();
    mLoop->enqueue([this, copy] { deliver(copy); });
    return receipt;
}

void VellService::resetCenterForTesting() {
    __VellDeviceCenter::shared().reset();
}

// --- The header's functions

VellDeviceCenterRef VellDeviceCenterGetDistributedCenter() {
    return &__VellDeviceCenter::shared();
}

CFRunLoopRef VellDeviceCenterGetRunLoop(VellDeviceCenterRef center) {
    return center ? center->runLoop() : nullptr;
}

void VellDeviceCenterRunLoop(VellDeviceCenterRef center) {
    if (center)
        center->run();
}

void VellDeviceCenterRunLoopOnce(VellDeviceCenterRef center) {
    if (center)
        center->runOnce();
}

void VellDeviceCenterStopRunLoop(VellDeviceCenterRef center) {
    if (center)
        center->stop();
}

void VellDeviceCenterRegisterSourceName(VellDeviceCenterRef center, VellStringRef name) {
    if (center)
        center->setSourceName(Ref(name));
}

void VellDeviceCenterRegisterSourceNameAsServer(VellDeviceCenterRef center, VellStringRef name) {
    if (!center || !name)
        return;
    center->setSourceName(Ref(name));
    center->server().listen(*name);
}

void VellDeviceCenterRegisterCommandObserver(VellDeviceCenterRef center, void* context,
                                             VellStringRef deviceName, VellCommandCallback callback, int) {
    if (center && callback)
        center->addObserver(context, deviceName, callback);
}

void VellDeviceCenterUnregisterCommandObserver(VellDeviceCenterRef center, void* context,
                                               VellStringRef deviceName) {
    if (center)
        center->removeObserver(context, deviceName);
}

void VellDeviceCenterRegisterDeviceObserver(VellDeviceCenterRef center, void* context,
                                            VellStringRef deviceName, VellDeviceCallback callback) {
    if (center && callback)
        center->client().addDeviceObserver(context, deviceName, callback);
}

void VellDeviceCenterUnregisterDeviceObserver(VellDeviceCenterRef center, void* context,
                                              VellStringRef deviceName) {
    if (center)
        center->client().removeDeviceObserver(context, deviceName);
}

void VellDeviceCenterRegisterResponseObserver(VellDeviceCenterRef center, void* context,
                                              VellResponseCallback callback) {
    if (center && callback)
        center->client().addResponseObserver(context, callback);
}

void VellDeviceCenterUnregisterResponseObserver(VellDeviceCenterRef center, void* context) {
    if (center)
        center->client().removeResponseObserver(context);
}

VellDeviceRef VellDeviceCenterGetDeviceByName(VellDeviceCenterRef center, VellStringRef name) {
    return center && name ? center->client().deviceByName(name->text) : nullptr;
}

VellArrayRef VellDeviceCenterCopyDevices(VellDeviceCenterRef center) {
    return center ? center->client().copyDevices().leak() : nullptr;
}

void VellDeviceCenterPostSimpleMessage(VellDeviceCenterRef center, VellStringRef first,
                                       VellStringRef second) {
    if (center)
        center->server().broadcast(messageFrame(first, second));
}
