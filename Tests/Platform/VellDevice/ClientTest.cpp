#include "ServiceTest.h"

#include <CoreFoundation/Clock.h>

#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using namespace VellTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// A plug-in in a process of its own (RemotePlugin.cpp), killed at the end.
class RemotePlugin {
public:
    RemotePlugin(const char* name, const char* path) {
        std::string arguments[] = {REMOTE_PLUGIN, name, path};
        char* pointers[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
        EXPECT_EQ(posix_spawn(&mProcess, REMOTE_PLUGIN, nullptr, nullptr, pointers, environ), 0);
    }
    ~RemotePlugin() {
        kill(mProcess, SIGKILL);
        waitpid(mProcess, nullptr, 0);
    }
    RemotePlugin(const RemotePlugin&) = delete;
    RemotePlugin& operator=(const RemotePlugin&) = delete;

private:
    pid_t mProcess = 0;
};

class ClientTest : public ServiceTest {
protected:
    ClientTest() {
        VellDeviceCenterRegisterDeviceObserver(center(), this, nullptr, deviceEvent);
        VellDeviceCenterRegisterResponseObserver(center(), this, response);
    }
    VellDeviceRef waitForDevice(const char* name) {
        runUntil([&] { return VellDeviceCenterGetDeviceByName(center(), constant(name)) != nullptr; });
        return VellDeviceCenterGetDeviceByName(center(), constant(name));
    }
    static std::string send(VellDeviceRef device, const char* name, const Arguments& arguments = {}) {
        const Owned command(VellDeviceCommandCreate(constant(name)));
        for (const auto& [key, value] : arguments)
            VellDeviceCommandSetArgument(static_cast<VellDeviceCommandRef>(command.get()),
                                         constant(key.c_str()), constant(value.c_str()));
        const Owned receipt(VellDeviceSendCommand(device, static_cast<VellDeviceCommandRef>(command.get())));
        return textOf(VellReceiptGetTicket(static_cast<VellReceiptRef>(receipt.get())));
    }

    std::vector<std::string> events;
    std::vector<Owned> responses;

private:
    static void deviceEvent(void* context, VellDeviceRef device, unsigned event) {
        auto& events = static_cast<ClientTest*>(context)->events;
        events.push_back(textOf(VellDeviceGetPath(device)) + ":" + std::to_string(event));
    }
    static void response(void* context, VellDeviceCommandResponseRef response) {
        static_cast<ClientTest*>(context)->responses.emplace_back(VellRetain(response));
    }
};

TEST_F(ClientTest, FindsMirrorsAndLosesPluginsAndFindsThemAgain) {
    VellDeviceRef device = nullptr;
    {
        const RemotePlugin plugin("Table", "usb:1");
        device = waitForDevice("Table");
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(VellDeviceGetAvailable(device), 1);
        send(device, "Quit");
        ASSERT_TRUE(runUntil([&] { return responses.size() == 1; }));
        EXPECT_EQ(textOf(VellDeviceGetMode(device)), "Quit");
    }
    ASSERT_TRUE(runUntil([&] { return events.size() == 3; }));
    EXPECT_EQ(VellDeviceGetAvailable(device), 0);
    EXPECT_EQ(VellDeviceCenterGetDeviceByName(center(), constant("Table")), nullptr);
    EXPECT_EQ(send(device, "Quit"), ""); // away

    const RemotePlugin again("Table", "usb:1");
    EXPECT_EQ(waitForDevice("Table"), device); // what a program kept is usable again
    EXPECT_THAT(events, ElementsAre("usb:1:1", "usb:1:2", "usb:1:3", "usb:1:1"));
    EXPECT_NE(send(device, "Quit"), "");
    EXPECT_TRUE(runUntil([&] { return responses.size() == 2; }));
}

TEST_F(ClientTest, ResponsesCarryTheCommandAsItWasSent) {
    const RemotePlugin plugin("Table", "usb:1");
    VellDeviceRef device = waitForDevice("Table");
    ASSERT_NE(device, nullptr);
    const std::string rows = send(device, "Rows", {{"Row", "3"}});
    const std::string quit = send(device, "Quit");
    ASSERT_TRUE(runUntil([&] { return responses.size() == 4; }));
    const auto commandOf = [&](std::size_t i) {
        return Owned(VellDeviceCommandResponseCopyCommand(
            static_cast<VellDeviceCommandResponseRef>(responses[i].get())));
    };
    for (std::size_t i = 0; i < 3; ++i) {
        const Owned command = commandOf(i);
        const auto reference = static_cast<VellDeviceCommandRef>(command.get());
        EXPECT_EQ(textOf(VellReceiptGetTicket(VellDeviceCommandGetReceipt(reference))), rows);
        EXPECT_EQ(textOf(VellDeviceCommandGetArgument(reference, constant("row"))), "3");
        EXPECT_EQ(textOf(VellDeviceCommandGetDevicePath(reference)), "usb:1");
        const auto response = static_cast<VellDeviceCommandResponseRef>(responses[i].get());
        EXPECT_EQ(VellDeviceCommandResponseGetCode(response), static_cast<int>(i));
        const Owned set(VellDeviceCommandResponseCopyMeasurementSet(response));
        const VellMeasurementRef measurement =
            VellMeasurementSetGetMeasurementAtIndex(static_cast<VellMeasurementSetRef>(set.get()), 0);
        const VellMeasurementColorRef color =
            VellMeasurementGetColorForColorSpace(measurement, constant("Lab"));
        EXPECT_EQ(textOf(VellMeasurementColorGetAttribute(color, constant("Row"))), "7");
        const Owned values(VellMeasurementColorCopyValues(color));
        const auto value =
            static_cast<VellStringRef>(VellArrayGetValueAtIndex(static_cast<VellArrayRef>(values.get()), 0));
        EXPECT_EQ(VellStringGetDoubleValue(value), 0.1);
    }
    const Owned last = commandOf(3);
    EXPECT_EQ(textOf(VellReceiptGetTicket(
                  VellDeviceCommandGetReceipt(static_cast<VellDeviceCommandRef>(last.get())))),
              quit);
}

TEST_F(ClientTest, PluginsOfOneNameAreToldApartByPath) {
    const RemotePlugin first("Table", "usb:1");
    const RemotePlugin second("Table", "usb:2");
    ASSERT_TRUE(runUntil([&] { return events.size() == 2; }));
    const Owned devices(VellDeviceCenterCopyDevices(center()));
    const auto array = static_cast<VellArrayRef>(devices.get());
    ASSERT_EQ(VellArrayGetCount(array), 2);
    for (int i = 0; i < 2; ++i) {
        const auto device = static_cast<VellDeviceRef>(VellArrayGetValueAtIndex(array, i));
        const std::string path = textOf(VellDeviceGetPath(device));
        events.clear();
        send(device, "Die");
        ASSERT_TRUE(runUntil([&] { return !events.empty(); }));
        EXPECT_THAT(events, ElementsAre(path + ":3"));
    }
}

TEST_F(ClientTest, LateObserverIsToldOnceAndMayUnregisterInItsCallback) {
    const RemotePlugin plugin("Table", "usb:1");
    ASSERT_NE(waitForDevice("Table"), nullptr);
    static int calls = 0;
    calls = 0;
    const auto once = [](void* context, VellDeviceRef, unsigned event) {
        EXPECT_EQ(event, 1U);
        ++calls;
        VellDeviceCenterUnregisterDeviceObserver(center(), context, constant("Table"));
    };
    VellDeviceCenterRegisterDeviceObserver(center(), &calls, constant("Table"), once);
    VellDeviceCenterRegisterDeviceObserver(center(), &calls, constant("Another"), once);
    runSomePasses();
    send(VellDeviceCenterGetDeviceByName(center(), constant("Table")), "Quit");
    ASSERT_TRUE(runUntil([&] { return responses.size() == 1; }));
    EXPECT_EQ(calls, 1);
}

TEST_F(ClientTest, GarbageFromAPluginIsNoPluginAndIsNotAskedAgainAtOnce) {
    CoreFoundation::VirtualClock clock;
    const std::string path = folder.path() + "/0badf00d.sock";
    const Base::FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    listen(listener.get(), 8);
    const auto isAsked = [&] {
        pollfd connection{listener.get(), POLLIN, 0};
        return poll(&connection, 1, 0) == 1;
    };
    ASSERT_TRUE(runUntil(isAsked));
    for (const double pause : {0.1, 0.2, 0.4}) {
        const Base::FileDescriptor client(accept(listener.get(), nullptr, nullptr));
        const std::string garbage = FrameClient::frame("garbage");
        ASSERT_EQ(::send(client.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(garbage.size()));
        const auto hasHungUp = [&] {
            char byte = 0;
            return recv(client.get(), &byte, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET;
        };
        ASSERT_TRUE(runUntil(hasHungUp));
        clock.advance(pause * 0.9);
        runSomePasses();
        EXPECT_FALSE(isAsked());
        clock.advance(pause * 0.2);
        ASSERT_TRUE(runUntil(isAsked));
    }
    const RemotePlugin plugin("Table", "usb:1");
    ASSERT_NE(waitForDevice("Table"), nullptr);
    EXPECT_THAT(events, ElementsAre("usb:1:1"));
}

TEST_F(ClientTest, LooksForPluginsInAFolderThatComesLater) {
    VellService::resetCenterForTesting();
    const std::string later = folder.path() + "/later";
    const ScopedVariable variable("VELL_RUNTIME_DIR", later.c_str());
    VellDeviceCenterRegisterDeviceObserver(center(), this, nullptr, [](void*, VellDeviceRef, unsigned) {});
    runSomePasses();
    const RemotePlugin plugin("Table", "usb:1");
    EXPECT_NE(waitForDevice("Table"), nullptr);
}

} // namespace
