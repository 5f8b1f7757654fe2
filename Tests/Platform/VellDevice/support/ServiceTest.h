#pragma once

#include "FrameClient.h"
#include "RuntimeFolderFixture.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>

namespace VellTest {

// A center as new, in a runtime folder of its own, for each test.
class ServiceTest : public ::testing::Test {
protected:
    ServiceTest() { VellService::resetCenterForTesting(); }
    ~ServiceTest() override { VellService::resetCenterForTesting(); }

    static VellDeviceCenterRef center() { return VellDeviceCenterGetDistributedCenter(); }
    static void pass() { VellDeviceCenterRunLoopOnce(center()); }
    static std::string textOf(VellStringRef string) { return string ? VellStringGetCString(string) : ""; }

    ScopedRuntimeFolder folder;
};

// A plug-in in the test's own process: listens, and hands commands to the test.
class PluginTest : public ServiceTest {
protected:
    using Handler = std::function<void(VellDeviceCommandRef)>;

    static constexpr const char* kSource = "usb:1/table";
    static constexpr const char* kName = "Table";

    PluginTest() {
        VellDeviceCenterRegisterSourceNameAsServer(center(), constant(kSource));
        VellDeviceCenterRegisterCommandObserver(center(), this, constant(kName), deliver, 1);
        VellDeviceSetName(device(), constant(kName));
        VellDeviceSetAttributeForKey(device(), constant("DevicePath"), constant(kSource));
    }

    VellDeviceRef device() const { return static_cast<VellDeviceRef>(mDevice.get()); }
    FrameClient connect() const { return FrameClient(folder.socketPath(kSource)); }

    static void respond(VellDeviceCommandRef command, int code, const std::string& message = "") {
        const Owned response(VellDeviceCommandResponseCreate(command));
        const auto reference = static_cast<VellDeviceCommandResponseRef>(response.get());
        const Owned text(VellStringCreateWithCString(message.c_str()));
        VellDeviceCommandResponseSetCode(reference, code);
        VellDeviceCommandResponseSetMessage(reference, static_cast<VellStringRef>(text.get()));
        VellDeviceCommandResponsePost(reference);
    }
    static std::string argument(VellDeviceCommandRef command, const char* key) {
        return textOf(VellDeviceCommandGetArgument(command, constant(key)));
    }
    static std::string nameOf(VellDeviceCommandRef command) {
        return textOf(VellDeviceCommandGetCommandName(command));
    }

    // By default every command is answered with 0.
    Handler onCommand = [](VellDeviceCommandRef command) { respond(command, 0); };

private:
    static void deliver(void* context, VellDeviceCommandRef command) {
        static_cast<PluginTest*>(context)->onCommand(command);
    }
    Owned mDevice{VellDeviceCreate()};
};

} // namespace VellTest
