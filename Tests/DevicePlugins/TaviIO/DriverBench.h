// The driver on a bench: the real class, the virtual instrument, and the service's own libraries, in one
// process and without waiting for anything. A test plays the client: it hands commands to the dispatcher and
// reads what was posted.
#pragma once

#include "PostRecorder.h"
#include "ScratchFolder.h"
#include "ShortSleep.h"
#include "TaviIO.h"

#include <TaviSDK/VirtualInstrument.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace test {

constexpr const char* kDevicePath = "IOService:/Virtual/Table@1";

// Opens the driver's protected parts to tests.
class BenchDriver : public TaviIO {
public:
    using TaviIO::__FPtr_Tavi_MessageHandler;
    using TaviIO::_checkForCancelledMeasure;
    using TaviIO::hasWorkers;
    using TaviIO::isConnected;
    using TaviIO::isReversed;
    using TaviIO::mHardwareDevice;
    using TaviIO::mRunLoopRunning;
    using TaviIO::setTaviIsConnected;
    using TaviIO::TaviIO;
    using TaviIO::taviIsConnected;

    // The watcher thread looks now, not only when its interval is over.
    void lookForParent() { mParentWatch.arm(); }
};

// A chart whose patches all differ, so that strips succeed; `rows` by `columns`, pitches of 10, first patch
// at (40, 30).
struct ChartOnTable {
    int rows = 3;
    int columns = 5;
    int lastRowColumns = 0;
    float pitchX = 10;
    float pitchY = 10;
    bool equalNeighbours = false; // in row 1: its strips come back short
    IOPoint topLeft{40, 30};

    int columnsOf(int row) const { return row == rows - 1 && lastRowColumns > 0 ? lastRowColumns : columns; }
    int firstColumnOf(int row) const { return columns - columnsOf(row); }
    double reflectance(int row, int column) const;
    std::string layout() const;
    std::map<std::string, std::string> measureArguments() const;
};

// Notes the SDK's calls as "Tavi_SetOption TaviTHoldPosition=no", without reading the options that the
// attribute pass polls, and lets a test interfere at one of them.
class CallLog {
public:
    CallLog();
    ~CallLog();
    std::vector<std::string> take();
    int count();
    // Is asked at each call with its number from now on, counted from 1.
    void interfere(std::function<std::optional<int>(int number, const TaviSDK::Call& call)> interference);

private:
    std::optional<int> note(const TaviSDK::Call& call);

    const std::thread::id mTestThread = std::this_thread::get_id();
    std::mutex mLock; // guards everything below
    std::vector<std::string> mCalls;
    int mCount = 0;
    std::function<std::optional<int>(int, const TaviSDK::Call&)> mInterference;
};

class DriverBench : public ::testing::Test {
protected:
    // Logs from `logLevel` on: thousands of measurements need not tell their story.
    explicit DriverBench(const char* logLevel = "runtime");
    ~DriverBench() override;

    // A plug-in process begins: service, instrument and driver as new. The driver before it is gone.
    void renew();
    // Starts and connects; with the spectrophotometer on the table or not.
    void connect(bool withSpectrophotometer = true);
    // Connects, calibrates and switches to scanning, so that charts can be measured.
    void makeReady();
    void place(const ChartOnTable& chart);
    // The sibling leaves or joins the hardware file, and the driver has noticed.
    void liftSpectrophotometer(bool lifted);

    // Hands a command to the dispatcher, as the service does, and returns its ticket.
    std::string send(const std::string& name, const std::map<std::string, std::string>& arguments = {});
    // The same, and the one answer to it.
    Post ask(const std::string& name, const std::map<std::string, std::string>& arguments = {});
    std::vector<Post> answersTo(const std::string& ticket);
    // Passes of the main loop until no worker is left.
    void finishMeasurements();
    // A measurement from command to last answer.
    std::vector<Post> measure(const ChartOnTable& chart, std::map<std::string, std::string> extra = {});
    void pass();
    void passUntil(const std::function<bool()>& condition);

    // A chart of its own is measured right, from whatever state the test left behind.
    void expectCleanScan();
    void expectRow(const Post& post, const ChartOnTable& chart, int row, int spots = 1);

    ScratchFolder scratch;
    std::unique_ptr<BenchDriver> driver;
    CallLog calls;

private:
    int mTickets = 0;
};

} // namespace test
