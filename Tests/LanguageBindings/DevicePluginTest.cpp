#include "PluginBench.h"

#include <CoreFoundation/Clock.h>

#include <unistd.h>

namespace test {
namespace {

using namespace VellDevice;

class Plugin : public PluginBench {};

TEST_F(Plugin, NamesItsLogAfterDeviceAndProcess) {
    EXPECT_TRUE(std::filesystem::exists(scratch.path() / "log" /
                                        ("TableDevice_" + std::to_string(getpid()) + ".log")));
    EXPECT_TRUE(scratch.logged("[DevicePlugin::DevicePlugin] - Plugin Device Path: Bus:/Table@7\n"));
    plugin->stopPolling();
    EXPECT_TRUE(scratch.logged(" void VellDevice::DevicePlugin::stopPolling()\n"));
}

TEST_F(Plugin, CommandTableReachesClients) {
    clearPosts();
    Command command("GetCommands");
    plugin->registerCommand("Extra");
    plugin->registerCommand("Extra");
    plugin->registerCommandArgument("Measure", "Rows");
    plugin->didReceiveCommand(command);
    ASSERT_EQ(posts().size(), 1U);
    EXPECT_EQ(posts()[0].code, 0);
    const CommandTable expected{{"GetCommands", {}},
                                {"Poll", {}},
                                {"poll", {}},
                                {"Status", {}},
                                {"Disable", {}},
                                {"Enable", {}},
                                {"Quit", {}},
                                {"Measure", {"source", "Rows"}},
                                {"SetMode", {"Mode"}},
                                {"Calibrate", {"source"}},
                                {"SetAttribute", {"Key", "value"}},
                                {"Extra", {}}};
    EXPECT_EQ(postedCommandTable(), expected);
}

TEST_F(Plugin, BuiltInCommands) {
    attach();
    EXPECT_EQ(ask("Quit").code, 0);
    EXPECT_EQ(ask("Disable").code, 0);
    EXPECT_EQ(ask("Enable").code, 0);
    EXPECT_EQ(statusPosts(), 1);
    EXPECT_EQ(plugin->lastErrorReads, 0) << "asked only about failures";
    clearPosts();
    for (const char* const silent : {"Poll", "poll", "Status"}) {
        Command command(silent);
        plugin->didReceiveCommand(command);
    }
    EXPECT_TRUE(posts().empty());
    EXPECT_EQ(statusPosts(), 6) << "one in the handler and one after it";

    plugin->handles = false;
    const Post unknown = ask("Dance");
    EXPECT_EQ(unknown.code, 15);
    EXPECT_EQ(unknown.message, "last error");
    EXPECT_EQ(ask("SetAttribute", {{"key", "x"}}).code, 15);
    EXPECT_EQ(ask("Measure").code, 11);
    plugin->setAutoCalibrateOnButtonPress(false);
    EXPECT_EQ(ask("Measure").code, 47);
    plugin->device()->setCalibrationStatus(1);
    EXPECT_EQ(ask("Measure").code, 13);
    EXPECT_EQ(ask("Measure", {{"source", "hardware"}}).code, -1) << "the base class measures nothing";
    plugin->device()->setCalibrationStatus(-1);
    plugin->asked.clear();
    EXPECT_EQ(ask("SetMode", {{"Mode", "A"}}).code, 8);
    EXPECT_EQ(plugin->asked, "");
    EXPECT_EQ(ask("ClearCalibration").code, 0);
    EXPECT_EQ(ask("SetMode", {{"mode", "A"}}).code, 0);
    EXPECT_EQ(plugin->asked, "setMode:A ");
}

TEST_F(Plugin, CalibrateTellsClientsFirst) {
    attach();
    plugin->setAutoCalibrateOnButtonPress(false);
    plugin->asked.clear();
    EXPECT_EQ(ask("Calibrate", {{"source", "hardware"}}).code, 47);
    EXPECT_EQ(posts()[0].command, "BeginCalibrate");
    EXPECT_EQ(posts()[0].code, 0);
    EXPECT_EQ(plugin->asked, "");
    EXPECT_EQ(ask("Calibrate").code, 0);
    plugin->throws = true;
    EXPECT_EQ(ask("Calibrate").code, 14);
}

TEST_F(Plugin, AutoCalibrationIsReadByItsFirstLetters) {
    attach();
    for (const auto& [value, on] : {std::pair{"Yes", true},
                                    {"TRUE", true},
                                    {"t", true},
                                    {"y", true},
                                    {"yacht", true},
                                    {"1", false},
                                    {"on", false},
                                    {"", false},
                                    {"false", false}}) {
        EXPECT_EQ(ask("SetAttribute", {{"key", "AutoCalibratesOnButtonPress"}, {"value", value}}).code, 0);
        EXPECT_EQ(plugin->autoCalibratesOnButtonPress(), on) << value;
    }
    clearPosts();
    plugin->setAutoCalibrateOnButtonPress(false);
    EXPECT_EQ(statusPosts(), 0);
}

TEST_F(Plugin, CommandsForOtherDevicesAreDropped) {
    attach();
    clearPosts();
    Command command("Quit");
    command.setDevicePath("Bus:/Table@8");
    plugin->didReceiveCommand(command);
    Command unproxy("__Unproxy__");
    plugin->didReceiveCommand(unproxy);
    EXPECT_TRUE(posts().empty());
    EXPECT_EQ(statusPosts(), 0);
    Command ours("Quit");
    ours.setDevicePath("BUS:/table@7");
    plugin->didReceiveCommand(ours);
    EXPECT_EQ(posts().size(), 1U);
}

// Without a client of another process every sender has the same, empty identifier: the holder is set by hand.
TEST_F(Plugin, LockRefusesOthersAndExpires) {
    CoreFoundation::VirtualClock clock;
    attach();
    plugin->mLockHolder = "4711";
    plugin->startLockTimer();
    EXPECT_EQ(ask("Quit").code, -1022);
    EXPECT_EQ(statusPosts(), 0);
    EXPECT_EQ(ask("Unlock").code, -1022);
    EXPECT_EQ(ask("GetCommands").code, 0);
    EXPECT_STREQ(plugin->device()->lockHolder(), "4711");
    EXPECT_EQ(ask("Measure", {{"source", "hardware"}}).code, 11) << "the button passes the lock";
    clock.advance(29);
    pass();
    EXPECT_TRUE(plugin->isLocked());
    clock.advance(1.5);
    pass();
    EXPECT_FALSE(plugin->isLocked());
    EXPECT_STREQ(plugin->device()->lockHolder(), "");
    for (const auto& [timeout, seconds] : {std::pair{120.0, 30.0}, {-5.0, 0.0}}) {
        plugin->lockTimeout = timeout;
        plugin->mLockHolder = "4711";
        plugin->startLockTimer();
        if (seconds > 0) {
            clock.advance(seconds - 1);
            pass();
            EXPECT_TRUE(plugin->isLocked());
            clock.advance(1.5);
        }
        pass();
        EXPECT_FALSE(plugin->isLocked()) << timeout;
    }
}

TEST_F(Plugin, PollsEveryThreeSeconds) {
    CoreFoundation::VirtualClock clock;
    plugin->stopPolling();
    EXPECT_FALSE(plugin->isPolling());
    plugin->beginPolling();
    plugin->beginPolling();
    pass();
    EXPECT_EQ(plugin->polls, 1);
    clock.advance(2.9);
    pass();
    EXPECT_EQ(plugin->polls, 1);
    clock.advance(0.2);
    pass();
    EXPECT_EQ(plugin->polls, 2);
    plugin->stopPolling();
    EXPECT_EQ(plugin->mPollingTimer, nullptr) << "however often it was begun";
    clock.advance(10);
    pass();
    EXPECT_EQ(plugin->polls, 2);
    plugin->beginPolling();
    pass();
    EXPECT_EQ(plugin->polls, 3);
}

TEST_F(Plugin, AttachesItsOwnHardwareOnce) {
    scratch.write(scratch.hardware() / "other.plist", hardwareFile("Bus:/Table@8"));
    plugin->startWithoutRunLoop();
    for (int time = 0; time < 20; ++time)
        pass();
    EXPECT_EQ(plugin->asked, "");
    scratch.write(scratch.hardware() / "ours.plist", hardwareFile("bus:/TABLE@7"));
    EXPECT_TRUE(passUntil([&] { return plugin->mConnected; }));
    EXPECT_EQ(plugin->asked, "connect ");
    plugin->hardwareWasMatched(plugin->mHardwareDevice);
    EXPECT_EQ(plugin->asked, "connect ");
}

// Another device of the same path came while the first one was connected.
TEST_F(Plugin, RemovalOfAnIgnoredDeviceEndsNothing) {
    attach();
    VellHardwareDeviceRef second = nullptr; // the same file, as another manager sees it
    const VellHardwareManagerRef manager = VellHardwareManagerCreate();
    VellHardwareManagerRegisterMatchCallback(
        manager,
        [](VellHardwareManagerRef, VellHardwareDeviceRef device, const void* context) {
            *static_cast<VellHardwareDeviceRef*>(const_cast<void*>(context)) =
                static_cast<VellHardwareDeviceRef>(VellRetain(device));
        },
        &second);
    VellHardwareManagerOpen(manager);
    ASSERT_TRUE(passUntil([&] { return second != nullptr; }));
    VellRelease(manager);
    plugin->hardwareWasMatched(second);
    plugin->hardwareWasRemoved(second);
    EXPECT_EQ(plugin->asked, "connect ");
    EXPECT_FALSE(plugin->IsDying());
    VellRelease(second);
}

TEST_F(Plugin, TriesASecondTimeAfterFiveSeconds) {
    plugin->connectResults = {kConnectTryAgain, kConnected};
    takeSleptSeconds();
    attach();
    EXPECT_EQ(plugin->asked, "connect connect ");
    EXPECT_EQ(takeSleptSeconds(), 5U);
    EXPECT_TRUE(plugin->mConnected);
}

TEST_F(Plugin, FailedConnectsAskForARestart) {
    for (const auto& results : {std::vector{kConnectFailed}, std::vector{kConnectTryAgain, kConnectTryAgain},
                                std::vector<DevicePluginConnectResult>{}}) {
        plugin.reset();
        VellService::resetCenterForTesting();
        plugin = make();
        plugin->connectResults = results;
        attach();
        EXPECT_EQ(plugin->exitCode(), -1020);
        EXPECT_TRUE(plugin->IsDying());
        EXPECT_FALSE(plugin->mConnected);
        EXPECT_FALSE(plugin->isPolling());
    }
}

TEST_F(Plugin, RefusedDisconnectKeepsItAlive) {
    attach();
    plugin->disconnects = false;
    std::filesystem::remove(scratch.hardware() / "table.plist");
    EXPECT_TRUE(passUntil([&] { return plugin->asked == "connect disconnect "; }));
    EXPECT_TRUE(plugin->mConnected);
    EXPECT_FALSE(plugin->IsDying());
    plugin->onDisconnect = [] { throw std::runtime_error("disconnect"); };
    plugin->didDetach(plugin->mHardwareDevice);
    EXPECT_TRUE(plugin->IsDying()) << "an exception counts as done";
    EXPECT_EQ(plugin->exitCode(), 0);
    Command command("DieAQuickDeath");
    plugin->didReceiveCommand(command);
    EXPECT_EQ(plugin->asked, "connect disconnect disconnect ") << "it dies once";
}

TEST_F(Plugin, NoPassWhileTheSdkLockIsHeld) {
    attach();
    plugin->mRunLoopRunning = true;
    const int before = plugin->polls;
    plugin->beginPolling();
    {
        const NotingPlugin::SDKLock lock(*plugin);
        plugin->announceStatus();
        EXPECT_EQ(plugin->polls, before);
        std::thread other([&] { EXPECT_FALSE(NotingPlugin::SDKLock::heldByThisThread()); });
        other.join();
    }
    plugin->announceStatus();
    EXPECT_EQ(plugin->polls, before + 1);
}

} // namespace
} // namespace test
