#pragma once

#include "Delay.h"

#include <Base/FolderEvents.h>
#include <CoreFoundation/RunLoop.h>

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

namespace VellService {

// Tells its owner whenever the entries of a folder may have changed, the first time as soon as it watches.
// The folder is first made or looked at by `ensure`, which answers why it cannot be watched ("": it is only
// not there yet); then, and when it goes or another one has its name, that is tried again. Where the kernel
// reports nothing because its notifiers have run out, the folder is looked at every second. The loop's thread
// only.
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
    // How a file or folder looks from outside: what changes with every replacement and every write.
    using Look = std::tuple<ino_t, off_t, long, long>;
    using Entries = std::map<std::string, Look>;

    bool watch();
    void lookAtName();
    void readEvents();
    void beginLooking(const char* reason);
    void lookAgain();
    Entries entries() const;
    void complain(const std::string& problem);

    const CFRunLoopRef mLoop;
    const std::string mFolder;
    const std::function<std::optional<std::string>()> mEnsure;
    const Changed mChanged;
    Base::FolderEvents mEvents;
    std::pair<dev_t, ino_t> mWatched;                    // the folder of mEvents
    std::unique_ptr<CoreFoundation::FileSource> mSource; // of mEvents
    // Where there are no events: the folder and its entries as last seen.
    std::optional<Entries> mEntries;
    Look mFolderLook;
    int mLooksToSkip = 0;
    Delay mRetry;
    bool mComplained = false; // one log line for one trouble
    bool mSaidShort = false;
};

} // namespace VellService
