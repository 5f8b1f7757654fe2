#pragma once

#include <Base/FileDescriptor.h>

#include <set>
#include <string>

namespace Base {

// What the kernel tells of the entries of one folder. One thread.
class FolderEvents {
public:
    struct Changes {
        std::set<std::string> touched; // names that came, were written to or left
        std::set<std::string> left;    // those of them that left, even if they are there again by now
        bool isOverflown = false;      // more happened than the kernel kept: anything may have changed
        bool isFolderGone = false;     // nothing will be told any more
    };

    // To poll for reading; -1 before the first watch.
    int descriptor() const { return mNotifier.get(); }
    bool isWatching() const { return mWatch >= 0; }
    // Watches this folder from now on, and no other. False, with errno, when that cannot be done.
    bool watch(const std::string& folder);
    void stop();
    // Everything since the last call; does not wait. When the folder has gone, the watch is over.
    Changes take();

private:
    FileDescriptor mNotifier;
    int mWatch = -1;
};

} // namespace Base
