#include <CoreFoundation/Clock.h>
#include <CoreFoundation/RunLoop.h>

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

using CoreFoundation::VirtualClock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Action = std::function<void(CFRunLoopTimerRef)>;

// A timer whose callback is a closure. Its reference is its own, apart from the loop's.
class TestTimer {
public:
    TestTimer(CFAbsoluteTime date, CFTimeInterval interval, Action action) : mAction(std::move(action)) {
        CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
        mTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, date, interval, 0, 0, fire, &context);
    }
    ~TestTimer() {
        CFRunLoopTimerInvalidate(mTimer);
        CFRelease(mTimer);
    }
    TestTimer(const TestTimer&) = delete;
    TestTimer& operator=(const TestTimer&) = delete;
    void add() { CFRunLoopAddTimer(CFRunLoopGetCurrent(), mTimer, kCFRunLoopDefaultMode); }
    CFRunLoopTimerRef get() const { return mTimer; }

private:
    static void fire(CFRunLoopTimerRef timer, void* info) { static_cast<TestTimer*>(info)->mAction(timer); }
    Action mAction;
    CFRunLoopTimerRef mTimer;
};

class TimerTest : public ::testing::Test {
protected:
    Action note(const char* name) {
        return [this, name](CFRunLoopTimerRef) { fired.emplace_back(name); };
    }
    static void pass() { __CFRunLoop::current()->pass(__CFRunLoop::Wait::no); }

    VirtualClock clock{1000};
    std::vector<std::string> fired;
};

TEST_F(TimerTest, FiresByDateAndThenInTheOrderOfAdding) {
    TestTimer late(1002, 0, note("late"));
    TestTimer first(0, 0, note("first"));
    TestTimer second(0, 0, note("second"));
    TestTimer early(1001, 0, note("early"));
    for (TestTimer* timer : {&late, &second, &first, &early})
        timer->add();
    pass();
    EXPECT_THAT(fired, ElementsAre("second", "first"));
    clock.advance(5);
    pass();
    EXPECT_THAT(fired, ElementsAre("second", "first", "early", "late"));
    EXPECT_FALSE(CFRunLoopTimerIsValid(first.get()));
    pass();
    EXPECT_EQ(fired.size(), 4U);
}

TEST_F(TimerTest, RepeatsAndSkipsWhatItMissed) {
    TestTimer timer(0, 3, note("poll"));
    timer.add();
    pass();
    clock.advance(2.9);
    pass();
    EXPECT_EQ(fired.size(), 1U);
    clock.advance(0.1); // 1003
    pass();
    EXPECT_EQ(fired.size(), 2U);
    clock.advance(100); // 1103: once, and on from there
    pass();
    pass();
    EXPECT_EQ(fired.size(), 3U);
    clock.advance(2.9);
    pass();
    EXPECT_EQ(fired.size(), 3U);
    clock.advance(0.1);
    pass();
    EXPECT_EQ(fired.size(), 4U);
}

TEST_F(TimerTest, OneThatIsInvalidatedInThePassDoesNotFire) {
    TestTimer victim(0, 0, note("victim"));
    TestTimer killer(0, 0, [&](CFRunLoopTimerRef) { CFRunLoopTimerInvalidate(victim.get()); });
    killer.add();
    victim.add();
    pass();
    pass();
    EXPECT_THAT(fired, IsEmpty());
}

TEST_F(TimerTest, OneThatIsAddedInThePassWaitsForTheNext) {
    TestTimer added(0, 0, note("added"));
    TestTimer adder(0, 0, [&](CFRunLoopTimerRef) { added.add(); });
    adder.add();
    pass();
    EXPECT_THAT(fired, IsEmpty());
    pass();
    EXPECT_THAT(fired, ElementsAre("added"));
}

TEST_F(TimerTest, NestedPassFiresOthersButNotTheOneOnTheStack) {
    TestTimer outer(0, 1, [&](CFRunLoopTimerRef) {
        fired.emplace_back("outer");
        clock.advance(10);
        pass();
        fired.emplace_back("end");
    });
    TestTimer inner(0, 0, note("inner"));
    outer.add();
    inner.add();
    pass();
    EXPECT_THAT(fired, ElementsAre("outer", "inner", "end"));
}

TEST_F(TimerTest, CallbackMayInvalidateAndReleaseItsOwnTimer) {
    CFRunLoopTimerContext context{0, &fired, nullptr, nullptr, nullptr};
    const CFRunLoopTimerRef timer = CFRunLoopTimerCreate(
        kCFAllocatorDefault, 0, 1, 0, 0,
        [](CFRunLoopTimerRef self, void* info) {
            CFRunLoopTimerInvalidate(self);
            CFRelease(self);
            static_cast<std::vector<std::string>*>(info)->emplace_back("fired");
        },
        &context);
    CFRunLoopAddTimer(CFRunLoopGetCurrent(), timer, kCFRunLoopDefaultMode);
    pass();
    clock.advance(10);
    pass();
    EXPECT_THAT(fired, ElementsAre("fired"));
}

TEST_F(TimerTest, ContextIsHeldUntilTheTimerEnds) {
    static int held = 0;
    held = 0;
    CFRunLoopTimerContext context{0, &held,
                                  [](const void* info) {
                                      ++held;
                                      return info;
                                  },
                                  [](const void*) { --held; }, nullptr};
    const CFRunLoopTimerRef timer = CFRunLoopTimerCreate(
        kCFAllocatorDefault, 0, 0, 0, 0, [](CFRunLoopTimerRef, void*) { EXPECT_EQ(held, 1); }, &context);
    EXPECT_EQ(held, 1);
    CFRunLoopAddTimer(CFRunLoopGetCurrent(), timer, kCFRunLoopDefaultMode);
    CFRelease(timer); // the loop holds it
    pass();
    EXPECT_EQ(held, 0);
}

TEST_F(TimerTest, IsSafeToAddAndInvalidateFromManyThreads) {
    std::atomic<int> count{0};
    std::atomic<bool> done{false};
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    const auto work = [&] {
        for (int i = 0; i < 500; ++i) {
            CFRunLoopTimerContext context{0, &count, nullptr, nullptr, nullptr};
            const CFRunLoopTimerRef timer = CFRunLoopTimerCreate(
                kCFAllocatorDefault, 0, i % 2, 0, 0,
                [](CFRunLoopTimerRef, void* info) { ++*static_cast<std::atomic<int>*>(info); }, &context);
            CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
            if (i % 2 == 1)
                CFRunLoopTimerInvalidate(timer);
            CFRelease(timer);
        }
    };
    std::thread first(work);
    std::thread second([&] {
        work();
        first.join();
        done = true;
    });
    while (!done)
        pass();
    pass();
    second.join();
    EXPECT_GE(count, 500); // every one-shot of both threads
    EXPECT_LE(count, 2000);
}

} // namespace
