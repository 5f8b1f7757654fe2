#include "FolderWatch.h"

#include <VellDevice/VellDevice.h>

#include <sys/inotify.h>

#include <cerrno>
#include <system_error>

namespace VellService {
namespace {

constexpr CFTimeInterval kRetryPause = 1.0;
constexpr std::uint32_t kEntryGone = IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t kChanges =
    IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | kEntryGone | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

} // namespace

FolderWatch::FolderWatch(CFRunLoopRef loop, std::string folder,
                         std::function<std::optional<std::string>()> ensure, Changed changed)
    : mLoop(loop),
      mFolder(std::move(folder)),
      mEnsure(std::move(ensure)),
      mChanged(std::move(changed)),
      mRetry(loop) {}

FolderWatch::~FolderWatch() = default;

void FolderWatch::start() {
    if (watch())
        mComplained = false;
    else
        mRetry.start(kRetryPause, [this] { start(); });
    mChanged({});
}

bool FolderWatch::watch() {
    std::optional<std::string> problem = mEnsure();
    if (!problem) {
        try {
            mNotifier.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
            if (!mNotifier || inotify_add_watch(mNotifier.get(), mFolder.c_str(), kChanges) < 0)
                throw std::system_error(errno, std::generic_category());
            mSource = std::make_unique<CoreFoundation::FileSource>(mLoop, mNotifier.get(), EPOLLIN,
                                                                   [this](std::uint32_t) { readEvents(); });
            return true;
        } catch (const std::system_error& error) {
            problem = "cannot watch " + mFolder + ": " + error.what();
        }
    }
    if (!mComplained && !problem->empty())
        VellLogWarning("[FolderWatch] - %s\n", problem->c_str());
    mComplained = !problem->empty();
    return false;
}

void FolderWatch::lose() {
    mSource.reset();
    mNotifier.reset();
    mRetry.start(0, [this] { start(); });
}

void FolderWatch::readEvents() {
    alignas(inotify_event) char buffer[4096];
    bool isLost = false;
    std::set<std::string> gone;
    for (;;) {
        const ssize_t count = read(mNotifier.get(), buffer, sizeof buffer);
        if (count <= 0)
            break;
        for (ssize_t position = 0; position < count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + position);
            isLost = isLost || (event->mask & kFolderGone) != 0;
            if (event->mask & kEntryGone)
                gone.insert(event->name);
            position += static_cast<ssize_t>(sizeof *event + event->len);
        }
    }
    mChanged(gone);
    if (isLost)
        lose();
}

} // namespace VellService
