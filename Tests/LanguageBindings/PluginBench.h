// A plug-in whose device class only notes what it is asked, for tests of the framework around it.
#pragma once

#include "../../Platform/VellDevice/Testing.h"
#include "DevicePlugin.h"
#include "PostRecorder.h"
#include "ScratchFolder.h"
#include "ShortSleep.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace test {

constexpr const char* kPath = "Bus:/Table@7";

class NotingPlugin : public VellDevice::DevicePlugin {
public:
    using DevicePlugin::DevicePlugin;
    ~NotingPlugin() override { endParentWatch(); }
    using DevicePlugin::mConnected;
    using DevicePlugin::mHardwareDevice;
    using DevicePlugin::mLockHolder;
    using DevicePlugin::mPollingTimer;
    using DevicePlugin::mRunLoopRunning;
    using SDKLock = DevicePlugin::SDKLock;

    const char* sdkGetLastError() override {
        ++lastErrorReads;
        return "last error";
    }
    VellDevice::DevicePluginConnectResult connect() override {
        asked += "connect ";
        if (connectResults.empty())
            throw std::runtime_error("connect");
        const auto result = connectResults.front();
        connectResults.erase(connectResults.begin());
        return result;
    }
    bool disconnect() override {
        asked += "disconnect ";
        if (onDisconnect)
            onDisconnect();
        return disconnects;
    }
    VellDevice::Error calibrate() override {
        asked += "calibrate ";
        if (throws)
            throw std::runtime_error("calibrate");
        return VellDevice::kSuccess;
    }
    VellDevice::Error setMode(const std::string& mode) override {
        asked += "setMode:" + mode + " ";
        return VellDevice::kSuccess;
    }
    bool processCommand(const VellDevice::Command& command, VellDevice::MutableResponse& response) override {
        asked += std::string("process:") + command.name() + " ";
        response.setMessage("handled");
        return handles;
    }
    void didPoll() override { ++polls; }
    double timeoutForLockInSeconds() override { return lockTimeout; }

    std::string asked;
    std::vector<VellDevice::DevicePluginConnectResult> connectResults{VellDevice::kConnected};
    std::function<void()> onDisconnect;
    bool disconnects = true;
    bool handles = true;
    bool throws = false;
    int polls = 0;
    int lastErrorReads = 0;
    double lockTimeout = 30;
};

class PluginBench : public ::testing::Test {
protected:
    PluginBench() {
        VellService::resetCenterForTesting();
        clearPosts();
        plugin = make();
    }
    ~PluginBench() override { clearPosts(); }

    std::unique_ptr<NotingPlugin> make() {
        const VellStringRef path = VellStringCreateWithCString(kPath);
        const VellStringRef bundle = VellStringCreateWithCString(scratch.bundle().c_str());
        auto made = std::make_unique<NotingPlugin>(path, bundle);
        VellRelease(path);
        VellRelease(bundle);
        return made;
    }
    void pass() { VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter()); }
    bool passUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition() && std::chrono::steady_clock::now() < deadline) {
            pass();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return condition();
    }
    void attach() {
        scratch.write(scratch.hardware() / "table.plist", hardwareFile(kPath));
        plugin->startWithoutRunLoop();
        passUntil([&] { return plugin->asked.find("connect") != std::string::npos; });
    }
    Post ask(const std::string& name, const std::map<std::string, std::string>& arguments = {}) {
        VellDevice::Command command(name);
        for (const auto& [key, value] : arguments)
            command.setArgumentForKey(value, key);
        clearPosts();
        plugin->didReceiveCommand(command);
        const auto answers = postsFor(name);
        EXPECT_EQ(answers.size(), 1U) << name;
        return answers.empty() ? Post{} : answers[0];
    }

    ScratchFolder scratch;
    std::unique_ptr<NotingPlugin> plugin;
};

} // namespace test
