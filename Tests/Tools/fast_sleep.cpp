// Preloaded into the processes under test: seconds that a plug-in sleeps pass a hundred times as fast.
#include <time.h>
#include <unistd.h>

namespace {

void pause(long long nanoseconds) {
    const timespec duration{static_cast<time_t>(nanoseconds / 1'000'000'000),
                            static_cast<long>(nanoseconds % 1'000'000'000)};
    nanosleep(&duration, nullptr);
}

} // namespace

extern "C" unsigned sleep(unsigned seconds) {
    pause(seconds * 10'000'000LL);
    return 0;
}

extern "C" int usleep(useconds_t microseconds) {
    pause(microseconds * 10LL);
    return 0;
}
