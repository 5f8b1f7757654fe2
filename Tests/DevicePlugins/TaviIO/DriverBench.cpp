#include "DriverBench.h"

#include "../../../Platform/VellDevice/Testing.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

using namespace VellDevice;

namespace test {

namespace {

std::string number(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

} // namespace

// --- Charts

double ChartOnTable::reflectance(int row, int column) const {
    if (equalNeighbours && row == 1)
        return 0.5;
    // Neighbours are far apart; no two patches are equal.
    const double base = (row + column) % 2 == 0 ? 0.15 : 0.6;
    return base + 0.002 * (row * columns + column);
}

std::string ChartOnTable::layout() const {
    const auto corner = [&](int row, int column) {
        return number(topLeft.x + pitchX * static_cast<float>(column)) + " " +
               number(topLeft.y + pitchY * static_cast<float>(row));
    };
    std::ostringstream text;
    text << "CGATS.17\n";
    for (const char* const keyword : {"CHART_ROWS", "CHART_COLUMNS", "CHART_LAST_ROW_COLUMNS",
                                      "CHART_TOP_LEFT", "CHART_BOTTOM_LEFT", "CHART_BOTTOM_RIGHT"})
        text << "KEYWORD \"" << keyword << "\"\n";
    text << "CHART_ROWS \"" << rows << "\"\nCHART_COLUMNS \"" << columns << "\"\nCHART_LAST_ROW_COLUMNS \""
         << lastRowColumns << "\"\nCHART_TOP_LEFT \"" << corner(0, 0) << "\"\nCHART_BOTTOM_LEFT \""
         << corner(rows - 1, 0) << "\"\nCHART_BOTTOM_RIGHT \"" << corner(rows - 1, columns - 1) << "\"\n";
    text << "NUMBER_OF_FIELDS 39\nBEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN";
    for (int wavelength = 380; wavelength <= 730; wavelength += 10)
        text << " SPECTRAL_NM" << wavelength;
    std::ostringstream data;
    int sets = 0;
    for (int row = 0; row < rows; ++row)
        for (int column = firstColumnOf(row); column < columns; ++column) {
            data << "P" << ++sets << " " << row << " " << column;
            for (int band = 0; band < 36; ++band)
                data << " " << number(reflectance(row, column));
            data << "\n";
        }
    text << "\nEND_DATA_FORMAT\nNUMBER_OF_SETS " << sets << "\nBEGIN_DATA\n" << data.str() << "END_DATA\n";
    return text.str();
}

std::map<std::string, std::string> ChartOnTable::measureArguments() const {
    const auto x = [&](int column) { return number(topLeft.x + pitchX * static_cast<float>(column)); };
    const auto y = [&](int row) { return number(topLeft.y + pitchY * static_cast<float>(row)); };
    return {{"TopLeftX", x(0)},
            {"TopLeftY", y(0)},
            {"BotLeftX", x(0)},
            {"BotLeftY", y(rows - 1)},
            {"BotRightX", x(columns - 1)},
            {"BotRightY", y(rows - 1)},
            {"Rows", std::to_string(rows)},
            {"Columns", std::to_string(columns)},
            {"LastRowColumns", std::to_string(lastRowColumns)}};
}

// --- Calls

CallLog::CallLog() {
    TaviSDK::setCallHook([this](const TaviSDK::Call& call) { return note(call); });
}

CallLog::~CallLog() {
    TaviSDK::setCallHook({});
}

std::optional<int> CallLog::note(const TaviSDK::Call& call) {
    // Tests make calls of their own, but on their own thread.
    if (std::this_thread::get_id() != mTestThread && !TaviIO::SDKLock::heldByThisThread())
        ADD_FAILURE() << call.name << " without the SDK lock";
    std::function<std::optional<int>(int, const TaviSDK::Call&)> interference;
    int number = 0;
    {
        const std::lock_guard lock(mLock);
        mCalls.push_back(call.arguments.empty() ? call.name : call.name + " " + call.arguments);
        number = ++mCount;
        interference = mInterference;
    }
    return interference ? interference(number, call) : std::nullopt;
}

std::vector<std::string> CallLog::take() {
    const std::lock_guard lock(mLock);
    return std::move(mCalls);
}

int CallLog::count() {
    const std::lock_guard lock(mLock);
    return mCount;
}

void CallLog::interfere(std::function<std::optional<int>(int, const TaviSDK::Call&)> interference) {
    const std::lock_guard lock(mLock);
    mInterference = std::move(interference);
    mCount = 0;
}

// --- The bench

DriverBench::DriverBench(const char* logLevel) {
    setenv("VELL_LOG_LEVEL", logLevel, 1);
    renew();
}

void DriverBench::renew() {
    driver.reset();
    VellService::resetCenterForTesting();
    TaviSDK::powerCycle();
    TaviSDK::Simulation simulation;
    simulation.identifier = kDevicePath;
    simulation.timeScale = 0;
    TaviSDK::setSimulation(simulation);
    clearPosts();
    const VellStringRef path = VellStringCreateWithCString(kDevicePath);
    const VellStringRef bundle = VellStringCreateWithCString(scratch.bundle().c_str());
    driver = std::make_unique<BenchDriver>(path, bundle);
    VellRelease(path);
    VellRelease(bundle);
}

DriverBench::~DriverBench() {
    calls.interfere({});
    onSleep({});
    finishMeasurements();
    driver->disconnect();
    driver.reset();
    clearPosts();
}

void DriverBench::pass() {
    VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter());
}

void DriverBench::passUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "this takes too long";
        pass();
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

void DriverBench::connect(bool withSpectrophotometer) {
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kDevicePath, withSpectrophotometer));
    driver->startWithoutRunLoop();
    driver->mRunLoopRunning =
        true; // the loop is the test's, but the driver makes its passes as under start()
    passUntil([&] { return driver->mHardwareDevice != nullptr; });
    passUntil([&] { return *driver->device()->attributeForKey("DeviceLogName") != '\0'; });
}

void DriverBench::makeReady() {
    connect();
    ASSERT_EQ(ask("Calibrate").code, 0);
    ASSERT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 0);
    calls.take();
    clearPosts();
}

void DriverBench::place(const ChartOnTable& chart) {
    const auto file = scratch.path() / "chart.txt";
    scratch.write(file, chart.layout());
    TaviSDK::Simulation simulation = TaviSDK::simulation();
    simulation.chart = file;
    ASSERT_EQ(TaviSDK::setSimulation(simulation), "");
}

void DriverBench::liftSpectrophotometer(bool lifted) {
    TaviSDK::Simulation simulation = TaviSDK::simulation();
    simulation.spectrophotometer = !lifted;
    TaviSDK::setSimulation(simulation);
    scratch.write(scratch.hardware() / "table.plist", hardwareFile(kDevicePath, !lifted));
    passUntil([&] { return driver->hasTaviConnected() != lifted; });
    driver->didPoll();
}

std::string DriverBench::send(const std::string& name, const std::map<std::string, std::string>& arguments) {
    const std::string ticket = std::to_string(++mTickets);
    Command command(name);
    command.setArgumentForKey(ticket, "ticket");
    for (const auto& [key, value] : arguments)
        command.setArgumentForKey(value, key);
    driver->didReceiveCommand(command);
    return ticket;
}

Post DriverBench::ask(const std::string& name, const std::map<std::string, std::string>& arguments) {
    const std::vector<Post> answers = answersTo(send(name, arguments));
    EXPECT_EQ(answers.size(), 1U) << "answers to " << name;
    return answers.empty() ? Post{} : answers.front();
}

std::vector<Post> DriverBench::answersTo(const std::string& ticket) {
    std::vector<Post> answers = posts();
    std::erase_if(answers, [&](const Post& post) { return post.ticket != ticket; });
    return answers;
}

void DriverBench::finishMeasurements() {
    passUntil([&] { return !driver->hasWorkers(); });
}

std::vector<Post> DriverBench::measure(const ChartOnTable& chart, std::map<std::string, std::string> extra) {
    auto arguments = chart.measureArguments();
    extra.merge(arguments);
    const std::string ticket = send("Measure", extra);
    finishMeasurements();
    return answersTo(ticket);
}

void DriverBench::expectRow(const Post& post, const ChartOnTable& chart, int row, int spots) {
    EXPECT_EQ(post.code, 0) << post.message;
    EXPECT_EQ(post.message, "");
    EXPECT_TRUE(post.onMainThread);
    ASSERT_EQ(post.patches.size(), static_cast<std::size_t>(chart.columnsOf(row) * spots));
    for (std::size_t reading = 0; reading < post.patches.size(); ++reading) {
        const Patch& patch = post.patches[reading];
        const int column = chart.firstColumnOf(row) + static_cast<int>(reading) / spots;
        for (const auto& attributes : {patch.spectralAttributes, patch.labAttributes}) {
            EXPECT_EQ(attributes.at("Row"), std::to_string(row));
            EXPECT_EQ(attributes.at("Column"), std::to_string(column));
            EXPECT_EQ(attributes.at("SpotIndex"), std::to_string(static_cast<int>(reading) % spots));
        }
        ASSERT_EQ(patch.spectrum.size(), 36U);
        EXPECT_EQ(static_cast<float>(patch.spectrum[7]),
                  static_cast<float>(std::stod(number(chart.reflectance(row, column)))));
    }
}

void DriverBench::expectCleanScan() {
    calls.interfere({});
    const ChartOnTable chart;
    place(chart);
    if (driver->device()->calibrationStatus() != 1) {
        ASSERT_EQ(ask("Calibrate").code, 0);
    }
    ASSERT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 0);
    const std::vector<Post> rows = measure(chart);
    ASSERT_EQ(rows.size(), 3U);
    for (int row = 0; row < 3; ++row)
        expectRow(rows[static_cast<std::size_t>(row)], chart, row);
    EXPECT_FALSE(driver->isMeasuring());
    EXPECT_TRUE(driver->isPolling());
}

} // namespace test
