// A client of the device service: moves the head of the first table it finds, when it is told where to, and
// prints where the head is then.
//
//     table-position [X Y]
#include <VellDevice/VellDevice.h>

#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr double kPatience = 10; // seconds until a table must have been found
constexpr unsigned kDeviceGone = 3;

// What a `...Create...`, `...Copy...` or `...Send...` call returns belongs to the caller.
struct Releaser {
    void operator()(VellObjectRef object) const { VellRelease(object); }
};
template <class Handle>
using Owned = std::unique_ptr<std::remove_pointer_t<Handle>, Releaser>;

Owned<VellStringRef> makeString(const std::string& text) {
    return Owned<VellStringRef>(VellStringCreateWithCString(text.c_str()));
}

std::string textOf(VellStringRef string) {
    const char* text = VellStringGetCString(string);
    return text ? text : "";
}

// Everything happens on the device center's run loop: a table appears, commands are sent to it, responses
// come.
class Client {
public:
    using Arguments = std::vector<std::pair<std::string, std::string>>;

    explicit Client(Arguments target) : mTarget(std::move(target)) {
        VellDeviceCenterRegisterSourceName(mCenter, makeString("table-position").get());
        VellDeviceCenterRegisterResponseObserver(mCenter, this, responded);
        VellDeviceCenterRegisterDeviceObserver(mCenter, this, nullptr, deviceChanged);
        CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
        mTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + kPatience, 0, 0, 0,
                                      nothingFound, &context);
        CFRunLoopAddTimer(VellDeviceCenterGetRunLoop(mCenter), mTimer, kCFRunLoopDefaultMode);
    }
    ~Client() {
        CFRunLoopTimerInvalidate(mTimer);
        CFRelease(mTimer);
        VellDeviceCenterUnregisterDeviceObserver(mCenter, this, nullptr);
        VellDeviceCenterUnregisterResponseObserver(mCenter, this);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // The exit status: 0 done, 1 refused, 3 no table.
    int run() {
        VellDeviceCenterRunLoop(mCenter);
        return mStatus;
    }

private:
    static void deviceChanged(void* context, VellDeviceRef device, unsigned event) {
        auto& self = *static_cast<Client*>(context);
        if (!self.mTable && event != kDeviceGone) {
            self.mTable.reset(static_cast<VellDeviceRef>(VellRetain(device)));
            if (self.mTarget.empty())
                self.send("GetDevicePosition");
            else
                self.send("SetDevicePosition", self.mTarget);
        } else if (self.mTable.get() == device && event == kDeviceGone) {
            self.end(1, "the table went away");
        }
    }

    static void responded(void* context, VellDeviceCommandResponseRef response) {
        auto& self = *static_cast<Client*>(context);
        const Owned<VellDeviceCommandRef> command(VellDeviceCommandResponseCopyCommand(response));
        if (textOf(VellReceiptGetTicket(VellDeviceCommandGetReceipt(command.get()))) != self.mTicket)
            return; // to a press of the instrument's button
        const std::string name = textOf(VellDeviceCommandGetCommandName(command.get()));
        const int code = VellDeviceCommandResponseGetCode(response);
        const std::string message = textOf(VellDeviceCommandResponseGetMessage(response));
        if (code != 0) {
            self.end(1, name + ": " + std::to_string(code) + ": " + message);
        } else if (name == "SetDevicePosition") {
            self.send("GetDevicePosition");
        } else {
            std::printf("%s %s\n", textOf(VellDeviceGetPath(self.mTable.get())).c_str(), message.c_str());
            self.end(0);
        }
    }

    static void nothingFound(CFRunLoopTimerRef, void* info) {
        auto& self = *static_cast<Client*>(info);
        if (!self.mTable)
            self.end(3, "no table");
    }

    // A response is known by its command's ticket.
    void send(const std::string& name, const Arguments& arguments = {}) {
        const Owned<VellDeviceCommandRef> command(VellDeviceCommandCreate(makeString(name).get()));
        for (const auto& [key, value] : arguments)
            VellDeviceCommandSetArgument(command.get(), makeString(key).get(), makeString(value).get());
        const Owned<VellReceiptRef> receipt(VellDeviceSendCommand(mTable.get(), command.get()));
        mTicket = textOf(VellReceiptGetTicket(receipt.get()));
    }

    void end(int status, const std::string& problem = "") {
        if (!problem.empty())
            std::fprintf(stderr, "table-position: %s\n", problem.c_str());
        mStatus = status;
        VellDeviceCenterStopRunLoop(mCenter);
    }

    const VellDeviceCenterRef mCenter = VellDeviceCenterGetDistributedCenter();
    CFRunLoopTimerRef mTimer;
    Arguments mTarget;
    Owned<VellDeviceRef> mTable; // the first that appeared
    std::string mTicket;
    int mStatus = 1;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 1 && argc != 3) {
        std::fputs("usage: table-position [X Y]\n", stderr);
        return 2;
    }
    Client::Arguments target;
    if (argc == 3)
        target = {{"x", argv[1]}, {"y", argv[2]}};
    return Client(std::move(target)).run();
}
