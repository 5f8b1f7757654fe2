#include "Bench.h"

#include <TaviSDK/Recording.h>

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

namespace {

using namespace TaviSDK;

// The recorder looks at its setting once in a process, with the first call, so there is one recording.
class RecorderTest : public Bench {
protected:
    RecorderTest() { ::setenv("TAVI_RECORDING", recordingFile().c_str(), 1); }
    std::string recordingFile() const { return file("recording.jsonl"); }
};

TEST_F(RecorderTest, threadsAndMessagesAreRecordedWhole) {
    Dl_info library{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&Tavi_Scan), &library), 0);
    ASSERT_NE(std::string(library.dli_fname).find("TaviRecorder"), std::string::npos);

    static std::atomic<int> presses{0};
    Tavi_RegisterDeviceMessageHandler([](Tavi_DeviceMessage, const char*) { ++presses; });
    constexpr int kThreads = 4;
    constexpr int kCalls = 200;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([number] {
            for (int round = 0; round < kCalls; ++round) {
                EXPECT_EQ(Tavi_SetPosition(static_cast<float>(number) + 0.1F, static_cast<float>(round)), 0);
                Tavi_GetOption("LastError");
            }
        });
    }
    for (int count = 1; count <= 5; ++count) {
        mSimulation.presses = count;
        apply();
        for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
             presses < count && std::chrono::steady_clock::now() < end;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string serialNumber = option("TaviTSerialNumber");
    mSimulation.fault = "Tavi_Calibrate:1:throw";
    apply();
    EXPECT_THROW(Tavi_Calibrate(), TaviSDK::Exception);
    Tavi_RegisterDeviceMessageHandler(nullptr);

    const Recording recording = readRecording(recordingFile());
    EXPECT_EQ(recording.table, serialNumber);
    std::map<int, float> next; // by thread: its calls are in order, and none is missing
    int messages = 0;
    for (const RecordedEvent& event : recording.events) {
        messages += event.call == nullptr ? 1 : 0;
        if (event.call == findCallForm("Tavi_SetPosition")) {
            const std::string wanted = "," + std::to_string(static_cast<int>(next[event.thread]++));
            EXPECT_TRUE(event.arguments.ends_with(wanted)) << event.arguments << " not " << wanted;
            EXPECT_EQ(event.arguments.find(".1"), 1U);
        }
    }
    EXPECT_EQ(next.size(), static_cast<std::size_t>(kThreads));
    for (const auto& [thread, count] : next) {
        EXPECT_EQ(count, static_cast<float>(kCalls));
    }
    EXPECT_EQ(messages, presses);
    ASSERT_GE(recording.events.size(), 2U);
    EXPECT_TRUE(recording.events[recording.events.size() - 2].exception.has_value());
    EXPECT_EQ(recording.events.back().shown(), "Tavi_RegisterDeviceMessageHandler(null)");
}

} // namespace
