#include "FolderWatch.h"

#include <VellDevice/VellDevice.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

namespace VellService {
namespace {

constexpr CFTimeInterval kRetryPause = 1.0;
constexpr CFTimeInterval kNamePause = 2.0;
constexpr int kLooksSkipped = 9;

std::tuple<ino_t, off_t, long, long> lookOf(const struct stat& status) {
    return {status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

// Device and inode; nothing where there is no file.
std::pair<dev_t, ino_t> fileAt(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? std::pair(status.st_dev, status.st_ino)
                                            : std::pair<dev_t, ino_t>();
}

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
        mRetry.start(kNamePause, [this] { lookAtName(); });
    else
        mRetry.start(kRetryPause, [this] { start(); });
    if (mEntries)
        lookAgain();
    else
        mChanged({});
}

// True when changes are reported from now on.
bool FolderWatch::watch() {
    if (const std::optional<std::string> problem = mEnsure()) {
        mEntries.reset();
        complain(*problem);
        return false;
    }
    try {
        mWatched = fileAt(mFolder); // before: what takes its place meanwhile is noticed later
        if (!mEvents.watch(mFolder))
            throw std::system_error(errno, std::generic_category());
        mSource = std::make_unique<CoreFoundation::FileSource>(mLoop, mEvents.descriptor(), EPOLLIN,
                                                               [this](std::uint32_t) { readEvents(); });
        mEntries.reset();
        mComplained = false;
        return true;
    } catch (const std::system_error& error) {
        mEvents.stop();
        if (Base::FolderEvents::isShortage(error.code().value())) {
            beginLooking(error.what());
        } else {
            mEntries.reset();
            complain("cannot watch " + mFolder + ": " + error.what());
        }
        return false;
    }
}

void FolderWatch::beginLooking(const char* reason) {
    mComplained = false;
    if (!std::exchange(mSaidShort, true))
        VellLogInfo("[FolderWatch] - %s is looked at once a second: %s\n", mFolder.c_str(), reason);
    if (mEntries)
        return;
    mEntries.emplace();
    mLooksToSkip = 0;
}

void FolderWatch::complain(const std::string& problem) {
    if (!mComplained && !problem.empty())
        VellLogWarning("[FolderWatch] - %s\n", problem.c_str());
    mComplained = !problem.empty();
}

void FolderWatch::readEvents() {
    const Base::FolderEvents::Changes changes = mEvents.take();
    if (changes.isFolderGone) {
        mSource.reset();
        mRetry.start(0, [this] { start(); });
    }
    if (changes.any())
        mChanged(changes.left);
}

// While somebody has a folder open the kernel does not tell that it was deleted.
void FolderWatch::lookAtName() {
    if (mWatched == fileAt(mFolder)) {
        mRetry.start(kNamePause, [this] { lookAtName(); });
        return;
    }
    mSource.reset();
    mEvents.stop();
    start();
}

// Many processes may look at a folder with many files. So its entries are gone through when the folder says
// that one came or went, once more after that, since it may not have been whole yet, and every tenth time,
// for what was written in place.
void FolderWatch::lookAgain() {
    struct stat status {};
    const Look folder = stat(mFolder.c_str(), &status) == 0 ? lookOf(status) : Look();
    const bool isFirst = mEntries->empty();
    const bool isTouched = std::exchange(mFolderLook, folder) != folder;
    if (!isTouched && mLooksToSkip-- > 0)
        return;
    Entries now = entries();
    std::set<std::string> gone;
    for (const auto& [name, look] : *mEntries) {
        if (!now.contains(name))
            gone.insert(name);
    }
    const bool isChanged = now != *mEntries;
    mLooksToSkip = isChanged ? 0 : kLooksSkipped;
    mEntries = std::move(now);
    if (isFirst || isChanged)
        mChanged(gone);
}

FolderWatch::Entries FolderWatch::entries() const {
    Entries found;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(mFolder.c_str()), closedir);
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        struct stat status {};
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && fstatat(dirfd(directory.get()), entry->d_name, &status, 0) == 0)
            found[name] = lookOf(status);
    }
    return found;
}

} // namespace VellService
