#pragma once

#include <Base/FileDescriptor.h>

#include <memory>
#include <set>
#include <string>

namespace Base {

// What the kernel tells of the entries of one folder.
//
// A user has few of the kernel's notifiers (128 as a rule) and many watches, so all objects of a process
// share one notifier, whatever thread they belong to: whoever looks first takes the reports and puts those
// for others by. An object belongs to one thread; another thread may watch the same folder with another one.
class FolderEvents {
public:
    struct Changes {
        std::set<std::string> touched; // names that came, were written to or left
        std::set<std::string> left;    // those of them that left, even if they are there again by now
        bool isOverflown = false;      // more happened than the kernel kept: anything may have changed
        bool isFolderGone = false;     // nothing will be told any more

        bool any() const { return isOverflown || isFolderGone || !touched.empty(); }
    };

    FolderEvents() = default;
    ~FolderEvents() { stop(); }
    FolderEvents(const FolderEvents&) = delete;
    FolderEvents& operator=(const FolderEvents&) = delete;

    // To poll for reading, while it watches; -1 before the first watch.
    int descriptor() const { return mReady.get(); }
    bool isWatching() const { return mNotifier != nullptr; }
    // Watches this folder from now on, and no other. False, with errno, when that cannot be done.
    bool watch(const std::string& folder);
    void stop();
    // Everything since the last call, perhaps nothing; does not wait. When the folder has gone, the watch is
    // over.
    Changes take();

    // An errno of `watch` that says that notifiers or watches have run out: the folder can only be looked at
    // now and then.
    static bool isShortage(int error);

private:
    class Notifier;

    FileDescriptor mPutBy; // signalled when another took the reports
    FileDescriptor mReady; // readable when mPutBy or the notifier is
    std::shared_ptr<Notifier> mNotifier;
    Changes mChanges; // guarded by the notifier's mutex
};

} // namespace Base
