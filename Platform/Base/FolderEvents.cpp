#include <Base/FolderEvents.h>
#include <Base/Mutex.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

namespace Base {
namespace {

constexpr std::uint32_t kEntryLeft = IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr std::uint32_t kWatched =
    IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | kEntryLeft | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

bool listen(int poller, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    return epoll_ctl(poller, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

} // namespace

// The process's notifier, there as long as anybody needs it. The kernel knows a folder once in a notifier, so
// several objects may stand behind one watch. Any thread.
class FolderEvents::Notifier {
public:
    static std::shared_ptr<Notifier> shared(); // null, with errno, when there is none to be had

    explicit Notifier(FileDescriptor descriptor) : mDescriptor(std::move(descriptor)) {}

    int descriptor() const { return mDescriptor.get(); }
    bool add(const std::string& folder, FolderEvents& events);
    void remove(FolderEvents& events);
    Changes take(FolderEvents& events);

private:
    void distribute() REQUIRES(mMutex);
    void note(const inotify_event& event, const char* name) REQUIRES(mMutex);

    const FileDescriptor mDescriptor;
    Base::Mutex mMutex; // a leaf; also for what the objects have not taken yet
    std::multimap<int, FolderEvents*> mWatches GUARDED_BY(mMutex); // by the kernel's number of the folder
};

std::shared_ptr<FolderEvents::Notifier> FolderEvents::Notifier::shared() {
    struct Holder {
        Base::Mutex mutex;
        std::weak_ptr<Notifier> notifier GUARDED_BY(mutex);
    };
    static Holder& holder = *new Holder; // never destroyed: threads may outlive the static objects
    const Base::Lock lock(holder.mutex);
    if (auto notifier = holder.notifier.lock())
        return notifier;
    FileDescriptor descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!descriptor)
        return nullptr;
    auto notifier = std::make_shared<Notifier>(std::move(descriptor));
    holder.notifier = notifier;
    return notifier;
}

bool FolderEvents::Notifier::add(const std::string& folder, FolderEvents& events) {
    const Base::Lock lock(mMutex);
    distribute(); // what happened before is none of the new one's business
    const int watch = inotify_add_watch(mDescriptor.get(), folder.c_str(), kWatched);
    if (watch >= 0)
        mWatches.emplace(watch, &events);
    return watch >= 0;
}

void FolderEvents::Notifier::remove(FolderEvents& events) {
    const Base::Lock lock(mMutex);
    for (auto entry = mWatches.begin(); entry != mWatches.end(); ++entry) {
        if (entry->second != &events)
            continue;
        const int watch = entry->first;
        mWatches.erase(entry);
        if (!mWatches.contains(watch))
            inotify_rm_watch(mDescriptor.get(), watch);
        return;
    }
}

FolderEvents::Changes FolderEvents::Notifier::take(FolderEvents& events) {
    const Base::Lock lock(mMutex);
    distribute();
    eventfd_t count = 0;
    eventfd_read(events.mPutBy.get(), &count);
    return std::exchange(events.mChanges, {});
}

void FolderEvents::Notifier::distribute() {
    alignas(inotify_event) std::array<char, 4096> block;
    for (;;) {
        const ssize_t count = read(mDescriptor.get(), block.data(), block.size());
        if (count <= 0)
            return;
        for (ssize_t at = 0; at < count;) {
            inotify_event event;
            std::memcpy(&event, block.data() + at, sizeof event);
            note(event, event.len > 0 ? block.data() + at + sizeof event : "");
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}

void FolderEvents::Notifier::note(const inotify_event& event, const char* name) {
    const bool isOverflown = (event.mask & IN_Q_OVERFLOW) != 0;
    const auto [first, last] =
        isOverflown ? std::pair(mWatches.begin(), mWatches.end()) : mWatches.equal_range(event.wd);
    for (auto entry = first; entry != last; ++entry) {
        Changes& changes = entry->second->mChanges;
        if (isOverflown)
            changes.isOverflown = true;
        else if (event.mask & kFolderGone)
            changes.isFolderGone = true;
        else
            changes.touched.insert(name);
        if (event.mask & kEntryLeft)
            changes.left.insert(name);
        eventfd_write(entry->second->mPutBy.get(), 1);
    }
    if (event.mask & IN_IGNORED)
        mWatches.erase(event.wd); // the number may come again
}

bool FolderEvents::watch(const std::string& folder) {
    stop();
    std::shared_ptr<Notifier> notifier = Notifier::shared();
    if (!notifier)
        return false;
    mPutBy.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    mReady.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!mPutBy || !mReady || !listen(mReady.get(), mPutBy.get()) ||
        !listen(mReady.get(), notifier->descriptor()) || !notifier->add(folder, *this))
        return false;
    mNotifier = std::move(notifier);
    return true;
}

void FolderEvents::stop() {
    if (const auto notifier = std::exchange(mNotifier, nullptr))
        notifier->remove(*this);
    mChanges = {};
}

FolderEvents::Changes FolderEvents::take() {
    if (!isWatching())
        return {};
    Changes changes = mNotifier->take(*this);
    if (changes.isFolderGone)
        stop();
    return changes;
}

bool FolderEvents::isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOSPC || error == ENOMEM;
}

} // namespace Base
