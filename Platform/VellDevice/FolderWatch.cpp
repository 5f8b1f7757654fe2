#include "FolderWatch.h"

#include <VellDevice/VellDevice.h>

#include <cerrno>
#include <system_error>

namespace VellService {
namespace {

constexpr CFTimeInterval kRetryPause = 1.0;

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
            mEvents.emplace();
            if (!mEvents->watch(mFolder))
                throw std::system_error(errno, std::generic_category());
            mSource = std::make_unique<CoreFoundation::FileSource>(mLoop, mEvents->descriptor(), EPOLLIN,
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
    mEvents.reset();
    mRetry.start(0, [this] { start(); });
}

void FolderWatch::readEvents() {
    const Base::FolderEvents::Changes changes = mEvents->take();
    mChanged(changes.left);
    if (changes.isFolderGone)
        lose();
}

} // namespace VellService
