// Where time comes from: the run loops, their timers and CFAbsoluteTimeGetCurrent read it here and nowhere
// else.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

namespace CoreFoundation {

// The system clock as it stood when the process first asked, carried on by a clock that nobody can set: a
// step of the system's date neither fires timers early nor holds them up. Any thread.
class Clock {
public:
    static CFAbsoluteTime now();
    // Time stands still until a test moves it: a wait for a timer cannot be bounded by real time.
    static bool isVirtual();
};

// Stands in for the clock of the whole process while it lives; for tests, one at a time. Time moves only when
// told to, and every run loop that waits takes notice of it. Any thread may move it.
class VirtualClock {
public:
    explicit VirtualClock(CFAbsoluteTime start = 1000.0);
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    CFAbsoluteTime now() const;
    void set(CFAbsoluteTime time);
    void advance(CFTimeInterval seconds);
};

} // namespace CoreFoundation
