#pragma once

#include <Base/FileDescriptor.h>

#include <functional>
#include <initializer_list>
#include <thread>

namespace tools {

// Receives signals on a thread of its own, where the handler may do what a signal handler may not. Make it on
// the main thread before any other thread exists: the signals are blocked there, and threads inherit that.
class SignalWatcher {
public:
    SignalWatcher(std::initializer_list<int> signals, std::function<void(int)> handler);
    ~SignalWatcher(); // the handler is not running when this returns

private:
    void watch();

    std::function<void(int)> mHandler;
    Base::FileDescriptor mSignals;
    Base::FileDescriptor mStop;
    std::thread mThread;
};

// A closed pipe and a full disk, which end a process by default, become errors of its writes like any other.
void makeFailedWritesErrors();

} // namespace tools
