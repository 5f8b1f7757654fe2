#pragma once

#include "Delay.h"

#include <CoreFoundation/RunLoop.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace VellService {

// Tells its owner whenever the entries of a folder may have changed, the first time as soon as it watches. A
// folder that is missing, or goes, is made by `ensure` (which answers why it cannot be) and tried again every
// second. The loop's thread only.
class FolderWatch {
public:
    FolderWatch(CFRunLoopRef loop, std::string folder, std::function<std::optional<std::string>()> ensure,
                std::function<void()> changed);
    ~FolderWatch();

    void start();

private:
    bool watch();
    void lose();
    void readEvents();

    const CFRunLoopRef mLoop;
    const std::string mFolder;
    const std::function<std::optional<std::string>()> mEnsure;
    const std::function<void()> mChanged;
    CoreFoundation::FileDescriptor mNotifier;
    std::unique_ptr<CoreFoundation::FileSource> mSource;
    Delay mRetry;
    bool mComplained = false; // one log line for one trouble
};

} // namespace VellService
