#pragma once

#include <Base/Mutex.h>

#include <functional>
#include <string>
#include <thread>

namespace TaviSDK {

// The SDK's own thread: it follows the hardware file, and does what has to be done on no caller's thread.
//
// The file's folder is watched, since writers replace the file; where that cannot be done the file is looked
// at once a second. Otherwise the thread sleeps until something happens. Any thread may call.
class Follower {
public:
    // Both run on the SDK's thread: fileChanged with the file's path when it may have changed, woken after
    // wake().
    Follower(std::function<void(const std::string&)> fileChanged, std::function<void()> woken);
    ~Follower() = delete; // lives as long as the process; stop() ends the thread

    // The file to follow from now on; "" for none.
    void follow(const std::string& path);
    // Starts the thread unless it runs.
    void start();
    void wake();
    // Ends the thread and waits for that, though not for ever: a callback may hang. For the process's exit.
    void stop();

private:
    class Watch;
    void run();
    std::string path();

    const std::function<void(const std::string&)> mFileChanged;
    const std::function<void()> mWoken;
    const int mWakeDescriptor;

    Base::Mutex mMutex;
    Base::Condition mEndedCondition;
    std::string mPath GUARDED_BY(mMutex);
    bool mIsRunning GUARDED_BY(mMutex) = false;
    bool mIsStopping GUARDED_BY(mMutex) = false;
    std::thread::id mThread GUARDED_BY(mMutex);
};

} // namespace TaviSDK
