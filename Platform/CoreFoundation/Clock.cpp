#include "Clock.h"

#include "Poller.h"

#include <time.h>

#include <atomic>

namespace CoreFoundation {
namespace {

constexpr double kUnixTimeOf2001 = 978307200.0;

std::atomic<bool> virtualTime{false};
std::atomic<double> virtualNow{0};

double seconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

} // namespace

CFAbsoluteTime Clock::now() {
    if (isVirtual())
        return virtualNow.load(std::memory_order_acquire);
    // The boot-time clock also counts while the machine sleeps.
    static const double epoch = seconds(CLOCK_REALTIME) - seconds(CLOCK_BOOTTIME) - kUnixTimeOf2001;
    return epoch + seconds(CLOCK_BOOTTIME);
}

bool Clock::isVirtual() {
    return virtualTime.load(std::memory_order_acquire);
}

VirtualClock::VirtualClock(CFAbsoluteTime start) {
    virtualNow = start;
    virtualTime = true;
    Poller::wakeAll();
}

VirtualClock::~VirtualClock() {
    virtualTime = false;
    Poller::wakeAll();
}

CFAbsoluteTime VirtualClock::now() const {
    return Clock::now();
}

void VirtualClock::set(CFAbsoluteTime time) {
    virtualNow = time;
    Poller::wakeAll();
}

void VirtualClock::advance(CFTimeInterval seconds) {
    double before = virtualNow;
    while (!virtualNow.compare_exchange_weak(before, before + seconds)) {
    }
    Poller::wakeAll();
}

} // namespace CoreFoundation

CFAbsoluteTime CFAbsoluteTimeGetCurrent() {
    return CoreFoundation::Clock::now();
}
