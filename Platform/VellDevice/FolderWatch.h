#pragma once

#include "Delay.h"

#include <Base/FolderEvents.h>
#include <CoreFoundation/RunLoop.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace VellService {

// Tells its owner whenever the entries of a folder may have changed, the first time as soon as it watches.
// The folder is first made or looked at by `ensure`, which answers why it cannot be watched ("": it is only
// not there yet); then, and when it goes, that is tried again every second. The loop's thread only.
class FolderWatch {
public:
    // `gone` are the names of entries that have left since the last call, even if they are there again by
    // now.
    using Changed = std::function<void(const std::set<std::string>& gone)>;

    FolderWatch(CFRunLoopRef loop, std::string folder, std::function<std::optional<std::string>()> ensure,
                Changed changed);
    ~FolderWatch();

    void start();

private:
    bool watch();
    void lose();
    void readEvents();

    const CFRunLoopRef mLoop;
    const std::string mFolder;
    const std::function<std::optional<std::string>()> mEnsure;
    const Changed mChanged;
    std::optional<Base::FolderEvents> mEvents;
    std::unique_ptr<CoreFoundation::FileSource> mSource;
    Delay mRetry;
    bool mComplained = false; // one log line for one trouble
};

} // namespace VellService
