// Preloaded into the processes under test: a test says how time passes there.
//
// CLOCK_SPEED=N: time limits of waits, and the clocks that they are measured with, pass N times as fast.
// DATE_STEP=FILE: the system's date is off by as many seconds as the file's 8 bytes say. The file is mapped,
// so a test steps the date of a running process.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000; // nanoseconds

std::int64_t nanoseconds(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

timespec timeOf(std::int64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
}

// The system's own clock.
std::int64_t trueTime(clockid_t clock) {
    timespec time{};
    syscall(SYS_clock_gettime, clock, &time);
    return nanoseconds(time);
}

std::int64_t speed() {
    static const std::int64_t value = [] {
        const char* text = std::getenv("CLOCK_SPEED");
        return text ? std::atol(text) : 1L;
    }();
    return value;
}

// Since when a clock that nobody can set has been fast.
std::int64_t begin(clockid_t clock) {
    static const std::int64_t monotonic = trueTime(CLOCK_MONOTONIC);
    static const std::int64_t boot = trueTime(CLOCK_BOOTTIME);
    return clock == CLOCK_BOOTTIME ? boot : monotonic;
}

std::int64_t dateStep() {
    static const std::atomic<std::int64_t>* const seconds = []() -> const std::atomic<std::int64_t>* {
        const char* path = std::getenv("DATE_STEP");
        const int file = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
        if (file < 0)
            return nullptr;
        void* const mapped = mmap(nullptr, sizeof *seconds, PROT_READ, MAP_SHARED, file, 0);
        close(file);
        return mapped == MAP_FAILED ? nullptr : static_cast<const std::atomic<std::int64_t>*>(mapped);
    }();
    return seconds ? seconds->load() * kSecond : 0;
}

bool isFast(clockid_t clock) {
    return speed() != 1 && (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME);
}

std::int64_t now(clockid_t clock) {
    const std::int64_t time = trueTime(clock);
    if (clock == CLOCK_REALTIME)
        return time + dateStep();
    return isFast(clock) ? begin(clock) + (time - begin(clock)) * speed() : time;
}

template <typename Function>
Function systemsOwn(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    *time = timeOf(now(clock));
    return 0;
}

extern "C" int gettimeofday(timeval* time, void*) noexcept {
    const timespec date = timeOf(now(CLOCK_REALTIME));
    *time = {date.tv_sec, date.tv_nsec / 1000};
    return 0;
}

extern "C" time_t time(time_t* result) noexcept {
    const time_t date = timeOf(now(CLOCK_REALTIME)).tv_sec;
    if (result)
        *result = date;
    return date;
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int count, int milliseconds) {
    static const auto wait = systemsOwn<int (*)(int, epoll_event*, int, int)>("epoll_wait");
    const int factor = static_cast<int>(speed());
    return wait(epoll, events, count, milliseconds > 0 ? (milliseconds + factor - 1) / factor : milliseconds);
}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      const timespec* deadline) {
    static const auto wait =
        systemsOwn<int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
            "pthread_cond_clockwait");
    if (!isFast(clock))
        return wait(condition, mutex, clock, deadline);
    const timespec earlier = timeOf(begin(clock) + (nanoseconds(*deadline) - begin(clock)) / speed());
    return wait(condition, mutex, clock, &earlier);
}
