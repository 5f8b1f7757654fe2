#include <Base/FolderEvents.h>

#include <sys/inotify.h>

#include <array>
#include <cstring>

namespace Base {
namespace {

constexpr std::uint32_t kEntryLeft = IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr std::uint32_t kWatched =
    IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | kEntryLeft | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

} // namespace

bool FolderEvents::watch(const std::string& folder) {
    stop();
    if (!mNotifier)
        mNotifier.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!mNotifier)
        return false;
    mWatch = inotify_add_watch(mNotifier.get(), folder.c_str(), kWatched);
    return isWatching();
}

void FolderEvents::stop() {
    if (isWatching())
        inotify_rm_watch(mNotifier.get(), mWatch);
    mWatch = -1;
}

FolderEvents::Changes FolderEvents::take() {
    Changes changes;
    alignas(inotify_event) std::array<char, 4096> block;
    for (;;) {
        const ssize_t count = read(mNotifier.get(), block.data(), block.size());
        if (count <= 0)
            break;
        for (ssize_t at = 0; at < count;) {
            inotify_event event;
            std::memcpy(&event, block.data() + at, sizeof event);
            const char* const name = event.len > 0 ? block.data() + at + sizeof event : "";
            at += static_cast<ssize_t>(sizeof event + event.len);
            if (event.mask & IN_Q_OVERFLOW)
                changes.isOverflown = true;
            else if (event.wd != mWatch)
                continue; // of a folder before
            else if (event.mask & kFolderGone)
                changes.isFolderGone = true;
            else
                changes.touched.insert(name);
            if (event.mask & kEntryLeft)
                changes.left.insert(name);
        }
    }
    if (changes.isFolderGone)
        stop();
    return changes;
}

} // namespace Base
