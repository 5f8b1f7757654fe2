#include <CoreFoundation/Clock.h>
#include <CoreFoundation/RunLoop.h>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

using Base::FileDescriptor;
using CoreFoundation::FileSource;
using CoreFoundation::VirtualClock;
using ::testing::ElementsAre;

namespace {

using Wait = __CFRunLoop::Wait;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) == 0) {
            reader.reset(ends[0]);
            writer.reset(ends[1]);
        }
    }
    void put() const { EXPECT_EQ(write(writer.get(), "x", 1), 1); }
    void take() const {
        char byte = 0;
        EXPECT_EQ(read(reader.get(), &byte, 1), 1);
    }
    FileDescriptor reader;
    FileDescriptor writer;
};

CFRunLoopTimerRef newTimer(CFAbsoluteTime date, CFRunLoopTimerCallBack callback, void* info) {
    CFRunLoopTimerContext context{0, info, nullptr, nullptr, nullptr};
    return CFRunLoopTimerCreate(kCFAllocatorDefault, date, 0, 0, 0, callback, &context);
}

double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

TEST(RunLoopTest, EveryThreadHasItsOwnLoopWhichGoesWithIt) {
    const CFRunLoopRef mine = CFRunLoopGetCurrent();
    EXPECT_EQ(CFRunLoopGetCurrent(), mine);
    const auto descriptors = [] {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    };
    const auto before = descriptors();
    std::thread([&] {
        EXPECT_NE(CFRunLoopGetCurrent(), mine);
        CFRunLoopGetCurrent()->pass(Wait::no);
    }).join();
    EXPECT_EQ(descriptors(), before);
}

TEST(RunLoopTest, EventsRunInOrderAndNeverInsideEachOther) {
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    std::vector<int> ran;
    bool inside = false;
    for (int i = 0; i < 3; ++i) {
        loop->enqueue([&, i] {
            EXPECT_FALSE(inside);
            inside = true;
            loop->pass(Wait::no);
            loop->pass(Wait::forWork);
            inside = false;
            ran.push_back(i);
        });
    }
    loop->pass(Wait::no);
    EXPECT_THAT(ran, ElementsAre(0, 1, 2));
}

TEST(RunLoopTest, PassEndsAlthoughEventsQueueMoreEvents) {
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    int count = 0;
    std::function<void()> again = [&] {
        ++count;
        loop->enqueue(again);
    };
    loop->enqueue(again);
    loop->pass(Wait::no);
    EXPECT_LT(count, 1000);
    loop->discardEvents();
}

TEST(RunLoopTest, SourceMayRemoveItselfAndOthersInItsHandler) {
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    std::array<Pipe, 2> pipes;
    std::array<std::unique_ptr<FileSource>, 2> sources;
    int calls = 0;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        sources[i] = std::make_unique<FileSource>(loop, pipes[i].reader.get(), EPOLLIN, [&](std::uint32_t) {
            ++calls;
            for (auto& source : sources)
                source.reset();
        });
        pipes[i].put();
    }
    loop->pass(Wait::no);
    loop->pass(Wait::no);
    EXPECT_EQ(calls, 1);
}

TEST(RunLoopTest, WaitEndsForSocketTimerAndEventFromAnotherThread) {
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    Pipe pipe;
    int sourceCalls = 0;
    const FileSource source(loop, pipe.reader.get(), EPOLLIN, [&](std::uint32_t) {
        pipe.take();
        ++sourceCalls;
    });
    std::thread writer([&] { pipe.put(); });
    while (sourceCalls == 0)
        loop->pass(Wait::forWork);
    writer.join();

    bool fired = false;
    std::thread adder([&] {
        const CFRunLoopTimerRef timer = newTimer(
            0, [](CFRunLoopTimerRef, void* info) { *static_cast<bool*>(info) = true; }, &fired);
        CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
        CFRelease(timer);
    });
    while (!fired)
        loop->pass(Wait::forWork);
    adder.join();

    bool ran = false;
    std::thread sender([&] { loop->enqueue([&] { ran = true; }); });
    while (!ran)
        loop->pass(Wait::forWork);
    sender.join();
}

TEST(RunLoopTest, WaitingCostsNothingAndEndsWhenVirtualTimeReachesTheTimer) {
    VirtualClock clock;
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    bool fired = false;
    const CFRunLoopTimerRef timer = newTimer(
        clock.now() + 3600, [](CFRunLoopTimerRef, void* info) { *static_cast<bool*>(info) = true; }, &fired);
    CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
    std::thread mover([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        clock.advance(1800);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        clock.advance(1800);
    });
    const double before = processorSeconds();
    int passes = 0;
    for (; !fired; ++passes)
        loop->pass(Wait::forWork);
    EXPECT_LT(processorSeconds() - before, 0.02);
    EXPECT_LT(passes, 10);
    mover.join();
    CFRelease(timer);
}

TEST(RunLoopTest, RealTimersFireOnTimeAndNotBefore) {
    const CFRunLoopRef loop = CFRunLoopGetCurrent();
    bool fired = false;
    const CFAbsoluteTime date = CFAbsoluteTimeGetCurrent() + 0.02;
    const CFRunLoopTimerRef timer = newTimer(
        date, [](CFRunLoopTimerRef, void* info) { *static_cast<bool*>(info) = true; }, &fired);
    CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
    while (!fired)
        loop->pass(Wait::forWork);
    EXPECT_GE(CFAbsoluteTimeGetCurrent(), date);
    EXPECT_LT(CFAbsoluteTimeGetCurrent(), date + 1);
    CFRelease(timer);
}

TEST(BundleTest, ExistsWhereItsPropertiesAre) {
    char folder[] = "/tmp/bundle-test-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const auto bundleAt = [](const char* path) {
        const CFStringRef text = CFStringCreateWithCString(kCFAllocatorDefault, path, kCFStringEncodingUTF8);
        const CFURLRef url =
            CFURLCreateWithFileSystemPath(kCFAllocatorDefault, text, kCFURLPOSIXPathStyle, 1);
        const CFBundleRef bundle = CFBundleCreate(kCFAllocatorDefault, url);
        const bool exists = bundle != nullptr;
        CFRelease(bundle);
        CFRelease(url);
        CFRelease(text);
        return exists;
    };
    EXPECT_FALSE(bundleAt(folder));
    EXPECT_FALSE(bundleAt(nullptr));
    std::filesystem::create_directories(std::string(folder) + "/Contents");
    std::ofstream(std::string(folder) + "/Contents/Info.plist") << "<plist/>";
    EXPECT_TRUE(bundleAt(folder));
    std::filesystem::remove_all(folder);
}

} // namespace
