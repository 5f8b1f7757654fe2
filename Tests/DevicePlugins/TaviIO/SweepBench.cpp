#include "SweepBench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace test {

namespace {

constexpr std::chrono::seconds kLongestStep{40}; // under a sanitizer, on a loaded machine
constexpr int kMostCalls = 1000;

bool movesHead(const std::string& call) {
    return call.starts_with("Tavi_GoToHomePosition") || call.starts_with("Tavi_SetPosition") ||
           call.starts_with("Tavi_Scan");
}

std::size_t threadsOfThisProcess() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Follows an operation's calls, which the driver makes one at a time, up to the one that is waited for.
class CallsOfOperation {
public:
    explicit CallsOfOperation(int at) : mAt(at) {}

    // Whether this is the call.
    bool note(int number, const TaviSDK::Call& call) {
        const std::string text = call.arguments.empty() ? call.name : call.name + " " + call.arguments;
        const int occurrence = ++mSeen[text];
        if (text == "Tavi_SetOption MeasurementMode=SingleReflectance")
            mReadsSpots = true;
        else if (text == "Tavi_SetOption MeasurementMode=ScanningReflectance")
            mReadsSpots = false;
        mSpot = !mReadsSpots ? 0 : call.name == "Tavi_SetPosition" ? mSpot + 1 : mSpot;
        if (number != mAt)
            return false;
        hit = {.number = number, .call = text, .occurrence = occurrence, .spot = mSpot};
        return true;
    }

    Hit hit;

private:
    const int mAt;
    std::map<std::string, int> mSeen;
    bool mReadsSpots = false;
    int mSpot = 0;
};

} // namespace

// --- The deadline
// --------------------------------------------------------------------------------------------------

StepDeadline::StepDeadline() : mThread([this] { watch(); }) {
    begin("set-up");
}

StepDeadline::~StepDeadline() {
    {
        const std::lock_guard lock(mLock);
        mIsOver = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void StepDeadline::begin(const std::string& step) {
    const std::lock_guard lock(mLock);
    mStep = step;
    mEnd = std::chrono::steady_clock::now() + kLongestStep;
}

void StepDeadline::watch() {
    std::unique_lock lock(mLock);
    while (!mIsOver) {
        mChanged.wait_for(lock, std::chrono::milliseconds(500));
        if (mIsOver || std::chrono::steady_clock::now() < mEnd)
            continue;
        std::fprintf(stderr, "this does not end: %s\n", mStep.c_str());
        std::abort();
    }
}

// --- Sweeps
// --------------------------------------------------------------------------------------------------------

bool Hit::isInAttributePass() const {
    return is("Tavi_GetOption ") && !is("Tavi_GetOption LastError");
}

Operation ScanCase::operation() const {
    Operation operation{
        .label = label, .command = "Measure", .arguments = chart.measureArguments(), .onWorker = true};
    if (row != -1)
        operation.arguments["RowToScan"] = std::to_string(row);
    if (spots > 0)
        operation.arguments["SpotMeasureCount"] = std::to_string(spots);
    return operation;
}

void PrintTo(const ScanCase& scan, std::ostream* out) {
    *out << scan.label;
}

void SweepBench::SetUp() {
    makeReady();
    place(chart);
    settle();
    mThreads = threadsOfThisProcess();
}

// As the bench does, but within the deadline.
void SweepBench::TearDown() {
    deadline.begin("the end of the test");
    finishMeasurements();
    driver->disconnect();
}

void SweepBench::sweep(const Operation& operation, const std::string& what, const Event& event,
                       const Check& check, const std::function<void()>& meanwhile) {
    Hit none;
    const std::size_t total = carryOut(operation, operation.label, 0, {}, none).calls;
    startAgainIfEnded();
    int at = 1;
    for (;; ++at) {
        ASSERT_LT(at, kMostCalls);
        const std::string step = operation.label + ", " + what + ", call " + std::to_string(at);
        Hit hit;
        const Carried carried = carryOut(operation, step, at, event, hit, meanwhile);
        if (hit.number == 0 || (operation.onWorker && !hit.onWorker))
            break; // there is no such call
        SCOPED_TRACE(step + ", " + hit.call);
        check(hit, carried.answers);
        startAgainIfEnded();
        expectWhole();
        recover();
        expectFirstRow();
        if (HasFailure())
            return;
    }
    startAgainIfEnded();
    expectCleanScan();
    place(chart);
    RecordProperty(what, std::to_string(total) + " calls, " + std::to_string(at - 1) + " points");
    std::cout << "[   SWEPT  ] " << operation.label << ", " << what << ": " << total << " calls, " << at - 1
              << " points\n";
}

// Once, with `event` at call `at`; tells which call that was.
SweepBench::Carried SweepBench::carryOut(const Operation& operation, const std::string& step, int at,
                                         const Event& event, Hit& hit,
                                         const std::function<void()>& meanwhile) {
    const std::thread::id mainThread = std::this_thread::get_id();
    deadline.begin(step);
    if (operation.prepare)
        operation.prepare();
    settle();
    clearPosts();
    calls.take();
    CallsOfOperation its(at);
    std::size_t counted = 0;
    calls.interfere([&](int number, const TaviSDK::Call& call) -> std::optional<int> {
        const bool onWorker = std::this_thread::get_id() != mainThread;
        counted += onWorker || !operation.onWorker ? 1 : 0;
        if (!its.note(number, call))
            return std::nullopt;
        its.hit.onWorker = onWorker;
        if (!operation.command.empty())
            its.hit.answered = postsFor(operation.command).size();
        deadline.begin(step + ", " + its.hit.call);
        return event(its.hit);
    });
    std::string ticket;
    if (operation.command.empty())
        operation.act();
    else
        ticket = send(operation.command, operation.arguments);
    if (meanwhile)
        meanwhile();
    settle();
    calls.interfere({});
    hit = its.hit;
    mMoves = calls.take();
    std::erase_if(mMoves, [](const std::string& call) { return !movesHead(call); });
    return {counted, operation.command.empty() ? std::vector<Post>{} : answersTo(ticket)};
}

void SweepBench::settle() {
    // The button is a pass, its command another, its measurement a worker, and the poll after it a pass
    // again.
    for (int passes = 0; passes < 4; ++passes) {
        finishMeasurements();
        pass();
    }
}

void SweepBench::recover() {
    if (driver->device()->calibrationStatus() != 1) {
        ASSERT_EQ(ask("Calibrate").code, 0);
    }
    if (driver->device()->mode() != std::string("ScanningReflectance")) {
        ASSERT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 0);
    }
}

// As after the end of a plug-in process and the beginning of the next.
void SweepBench::startAgainIfEnded() {
    if (!driver->IsDying())
        return;
    expectNoThreadLeft();
    renew();
    makeReady();
    place(chart);
    settle();
}

Operation SweepBench::connecting() {
    return {.label = "connect",
            .act =
                [this] {
                    driver->startWithoutRunLoop();
                    passUntil([&] { return driver->mHardwareDevice != nullptr; });
                    driver->mRunLoopRunning = driver->isConnected();
                },
            .prepare =
                [this] {
                    renew();
                    place(chart);
                }};
}

void SweepBench::removeHardware() {
    driver->mRunLoopRunning = false; // else the end of the driver is that of the test program
    std::filesystem::remove(scratch.hardware() / "table.plist");
    passUntil([&] { return driver->IsDying(); });
}

// --- What holds
// ----------------------------------------------------------------------------------------------------

void SweepBench::expectWhole() {
    EXPECT_FALSE(driver->isMeasuring());
    EXPECT_FALSE(driver->hasWorkers());
    EXPECT_TRUE(driver->isPolling());
    EXPECT_FALSE(driver->IsDying());
    EXPECT_NE(driver->device()->calibrationStatus(), -1);
    std::vector<std::string> modes;
    driver->device()->modes(modes);
    EXPECT_EQ(modes, (std::vector<std::string>{"ScanningReflectance", "SingleReflectance"}));
    expectNoThreadLeft();
}

// A thread is still there for a moment after its last statement.
void SweepBench::expectNoThreadLeft() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (threadsOfThisProcess() > mThreads && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(threadsOfThisProcess(), mThreads);
}

void SweepBench::expectEmptyRecord() {
    EXPECT_FALSE(driver->isPolling());
    EXPECT_STREQ(driver->device()->serialNumber(), "");
    EXPECT_STREQ(driver->device()->attributeForKey("Beep"), "");
    EXPECT_EQ(driver->device()->calibrationStatus(), 0);
    std::vector<std::string> modes;
    driver->device()->modes(modes);
    EXPECT_TRUE(modes.empty());
}

void SweepBench::expectFirstRow() {
    ChartOnTable row = chart;
    row.rows = 1;
    row.lastRowColumns = 0;
    const std::vector<Post> answers = measure(row);
    ASSERT_EQ(answers.size(), 1U);
    expectRow(answers[0], row, 0);
}

void SweepBench::expectHeadAtHome() const {
    ASSERT_FALSE(mMoves.empty());
    EXPECT_EQ(mMoves.back(), "Tavi_GoToHomePosition");
}

bool SweepBench::headWasSentHome() const {
    return std::find(mMoves.begin(), mMoves.end(), "Tavi_GoToHomePosition") != mMoves.end();
}

} // namespace test
