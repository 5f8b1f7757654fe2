#pragma once

#include <VellDevice/Testing.h>
#include <VellDevice/VellDevice.h>

#include <poll.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace VellTest {

// A variable of the environment, put back at the end. Null unsets it.
class ScopedVariable {
public:
    ScopedVariable(std::string name, const char* value) : mName(std::move(name)) {
        if (const char* old = std::getenv(mName.c_str()))
            mOld = old;
        set(value);
    }
    ~ScopedVariable() { set(mOld ? mOld->c_str() : nullptr); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    void set(const char* value) {
        if (value)
            setenv(mName.c_str(), value, 1);
        else
            unsetenv(mName.c_str());
    }
    const std::string mName;
    std::optional<std::string> mOld;
};

// A runtime folder of the test's own, named to everything in the process by the environment and removed at
// the end.
class ScopedRuntimeFolder {
public:
    ScopedRuntimeFolder()
        : mPath(makeFolder()),
          mRuntime("VELL_RUNTIME_DIR", mPath.c_str()),
          mHardware("VELL_HARDWARE_DIR", nullptr),
          mLog("VELL_LOG_DIR", nullptr) {}
    ~ScopedRuntimeFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    ScopedRuntimeFolder(const ScopedRuntimeFolder&) = delete;
    ScopedRuntimeFolder& operator=(const ScopedRuntimeFolder&) = delete;

    const std::string& path() const { return mPath; }
    std::string hardwareFolder() const { return mPath + "/hardware"; }
    // Where a plug-in that registers under `source` listens.
    std::string socketPath(const std::string& source) const {
        const VellStringRef name = VellStringCreateWithCString(source.c_str());
        char file[32];
        std::snprintf(file, sizeof file, "/%08x.sock", VellHash(name));
        VellRelease(name);
        return mPath + file;
    }

private:
    static std::string makeFolder() {
        char path[] = "/tmp/vell-test-XXXXXX";
        if (!mkdtemp(path))
            throw std::runtime_error("no temporary folder");
        return path;
    }
    const std::string mPath;
    ScopedVariable mRuntime;
    ScopedVariable mHardware;
    ScopedVariable mLog;
};

// Writes a file as the tools do: the whole of it appears at once.
inline void replaceFile(const std::string& path, const std::string& contents) {
    const std::string temporary = path + ".tmp";
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(temporary, std::ios::binary) << contents;
    std::filesystem::rename(temporary, path);
}

// Makes passes of the center's loop until the condition holds; false when it does not within the time.
inline bool runUntil(const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter());
        poll(nullptr, 0, 1);
    }
    return true;
}

// Passes enough for everything that is on its way within this process to arrive.
inline void runSomePasses(int count = 20) {
    for (int i = 0; i < count; ++i)
        VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter());
}

} // namespace VellTest
