// Preloaded into the processes under test: seconds that a plug-in sleeps pass SLEEP_SPEED times as fast, a
// hundred times unless the environment says otherwise.
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace {

void pause(long long nanoseconds) {
    static const long long speed = [] {
        const char* text = std::getenv("SLEEP_SPEED");
        return text ? std::atoll(text) : 100LL;
    }();
    const long long rest = nanoseconds / speed;
    const timespec duration{static_cast<time_t>(rest / 1'000'000'000),
                            static_cast<long>(rest % 1'000'000'000)};
    nanosleep(&duration, nullptr);
}

} // namespace

extern "C" unsigned sleep(unsigned seconds) {
    pause(seconds * 1'000'000'000LL);
    return 0;
}

extern "C" int usleep(useconds_t microseconds) {
    pause(microseconds * 1'000LL);
    return 0;
}
