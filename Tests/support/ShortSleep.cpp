#include "ShortSleep.h"

#include <time.h>

#include <atomic>
#include <mutex>

namespace {

std::atomic<unsigned> gSlept{0};
std::mutex gHookLock; // guards gHook
std::function<void(unsigned)> gHook;

void pauseBriefly() {
    const timespec duration{0, 300'000};
    nanosleep(&duration, nullptr);
}

} // namespace

extern "C" unsigned sleep(unsigned seconds) {
    gSlept += seconds;
    std::function<void(unsigned)> hook;
    {
        const std::lock_guard lock(gHookLock);
        hook = gHook;
    }
    if (hook)
        hook(seconds);
    pauseBriefly();
    return 0;
}

extern "C" int usleep(useconds_t) {
    pauseBriefly();
    return 0;
}

namespace test {

unsigned takeSleptSeconds() {
    return gSlept.exchange(0);
}

void onSleep(std::function<void(unsigned)> hook) {
    const std::lock_guard lock(gHookLock);
    gHook = std::move(hook);
}

} // namespace test
