// The part of CoreFoundation that the system uses: absolute time, run-loop timers, and the few string, URL
// and bundle objects that name a bundle to the log. Names, types and ownership follow the framework: what a
// `...Create...` call returns belongs to the caller, who gives it back with CFRelease; everything else is
// lent.
//
// Where this implementation promises more than the framework, code outside Platform must not rely on it.
#pragma once

#include <cstdint>

extern "C" {

using CFAbsoluteTime = double; // seconds since 2001-01-01 00:00:00 UTC
using CFTimeInterval = double; // seconds
using CFIndex = long;
using CFOptionFlags = unsigned long;
using Boolean = unsigned char;
using CFStringEncoding = std::uint32_t;
using CFURLPathStyle = CFIndex;

using CFTypeRef = const void*;
using CFAllocatorRef = const struct __CFAllocator*;
using CFStringRef = const struct __CFString*;
using CFURLRef = const struct __CFURL*;
using CFBundleRef = struct __CFBundle*;
using CFRunLoopRef = struct __CFRunLoop*;
using CFRunLoopTimerRef = struct __CFRunLoopTimer*;

extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFStringRef kCFRunLoopDefaultMode;
constexpr CFStringEncoding kCFStringEncodingUTF8 = 0x08000100;
constexpr CFURLPathStyle kCFURLPOSIXPathStyle = 0;

// The one clock of the run loops, and the wall clock of everything that asks for the time. Tests drive it
// (see Clock.h).
CFAbsoluteTime CFAbsoluteTimeGetCurrent();

// Any thread; null is allowed.
CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);

// Null when `text` is null.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding);
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef allocator, CFStringRef path, CFURLPathStyle style,
                                       Boolean isDirectory);
// Null when there is no bundle (no folder with Contents/Info.plist) at `url`.
CFBundleRef CFBundleCreate(CFAllocatorRef allocator, CFURLRef url);

using CFRunLoopTimerCallBack = void (*)(CFRunLoopTimerRef timer, void* info);

struct CFRunLoopTimerContext {
    CFIndex version;
    void* info; // handed to the callback
    const void* (*retain)(const void* info);
    void (*release)(const void* info);
    CFStringRef (*copyDescription)(const void* info);
};

// A timer that fires at `fireDate` and, when `interval` is above 0, again and again. A fire date that has
// passed (0 is the usual one) means the next pass of the loop it is added to.
CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                       CFRunLoopTimerCallBack callout, CFRunLoopTimerContext* context);
// Any thread. The timer never fires again once this returns, except that a callback that is on the stack of
// another thread at that moment finishes. A callback may invalidate and release its own timer.
void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer);
Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer);

// The calling thread's loop, made on first use and freed with the thread; lent.
CFRunLoopRef CFRunLoopGetCurrent();
// Any thread: wakes the loop when it waits. The loop retains the timer until it is invalid.
void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFStringRef mode);
}
