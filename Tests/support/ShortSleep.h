// Replaces sleep and usleep in the test program: a second takes a fraction of a millisecond.
#pragma once

#include <functional>

namespace test {

// Seconds that sleep was asked for since the last call.
unsigned takeSleptSeconds();
// Is called in each sleep, on the sleeping thread. Empty removes it.
void onSleep(std::function<void(unsigned seconds)> hook);

} // namespace test
