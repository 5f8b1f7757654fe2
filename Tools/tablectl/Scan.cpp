#include "Scan.h"

#include "Errors.h"
#include "HardwareFile.h"
#include "Report.h"

#include <VellDevice/RuntimeFolder.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace tablectl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Session::Seconds kRedraw{0.5};
constexpr Session::Seconds kCalibrationOfOthers{300};
// A strip that is under way is finished before the device looks at a cancellation.
constexpr Session::Seconds kCancellation{60};

int patchesInRows(const Color::ChartLayout& layout, int first, int last) {
    int count = 0;
    for (int row = first; row <= last; ++row)
        count += patchesInRow(layout, row);
    return count;
}

std::filesystem::path temporaryFile() {
    std::string name = (std::filesystem::temp_directory_path() / "tablectl-measured-XXXXXX").string();
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0)
        throw DeviceFailure("cannot make a file " + name);
    close(descriptor);
    return name;
}

} // namespace

MeasurementSink::MeasurementSink(const ScanRequest& request, const Color::ChartLayout& layout,
                                 Color::MeasurementCondition condition)
    : mOwn(request.outputFile.empty()),
      mFile(mOwn ? temporaryFile() : std::filesystem::path(request.outputFile)) {
    try {
        mMeasurements = std::make_unique<Color::MeasurementFile>(mFile.string(), layout, condition);
    } catch (const Color::CgatsError& error) {
        throw DeviceFailure(error.what());
    }
}

MeasurementSink::~MeasurementSink() {
    std::error_code ignored;
    if (mOwn)
        std::filesystem::remove(mFile, ignored);
}

void MeasurementSink::add(const Row& row) {
    try {
        mMeasurements->add(row.readings);
    } catch (const Color::CgatsError& error) {
        throw DeviceFailure(error.what());
    }
}

void MeasurementSink::copyTo(Output& output) const {
    if (!mOwn)
        return;
    std::ifstream stream(mFile, std::ios::binary);
    output.write(std::string(std::istreambuf_iterator<char>(stream), {}));
}

Scan::Scan(Context& context, const Table& table, const ScanRequest& request, const Color::ChartLayout& layout,
           std::pair<int, int> rows)
    : mContext(context),
      mTable(table),
      mRequest(request),
      mLayout(layout),
      mFirstRow(rows.first),
      mLastRow(rows.second),
      mProgress(context.output, mLastRow - mFirstRow + 1, patchesInRows(layout, mFirstRow, mLastRow)),
      mLog(std::filesystem::path(VellService::logFolderPath()) / table.status().attribute("DeviceLogName")) {}

void Scan::run() {
    try {
        prepare();
        measure();
    } catch (const Failure&) {
        abandon();
        try {
            finish();
        } catch (const Failure& further) {
            std::fprintf(stderr, "tablectl: %s\n", further.what());
        }
        throw;
    }
    finish();
}

void Scan::prepare() {
    if (mRequest.lowResolution)
        setLowResolution(true);
    if (mTable.status().mode != "ScanningReflectance")
        mTable.call({"SetMode", {{"Mode", "ScanningReflectance"}}});
    calibrate();
    const bool withoutUltraviolet = mTable.status().attribute("IlluminationMode") == "0";
    mSink.emplace(mRequest, mLayout,
                  withoutUltraviolet ? Color::MeasurementCondition::M2 : Color::MeasurementCondition::M0);
}

void Scan::calibrate() {
    const auto settled = [&](const auto&) {
        const auto status = mTable.session().status(mTable.path());
        return !status || status->calibrationStatus != -1;
    };
    if (mTable.status().calibrationStatus == 1)
        return;
    mProgress.step("calibrating", "calibrating");
    if (mTable.status().calibrationStatus == -1)
        mTable.session().waitUntil(settled, kCalibrationOfOthers);
    if (mTable.status().calibrationStatus != 1) {
        mMoved = true;
        mTable.call({"Calibrate", {}});
    }
}

void Scan::setLowResolution(bool on) {
    mTable.call({"SetAttribute", {{"key", "LowResolutionScan"}, {"value", on ? "yes" : "no"}}});
}

void Scan::measure() {
    mProgress.begin();
    if (!mRequest.rows.empty()) {
        for (int row = mFirstRow; row <= mLastRow; ++row)
            take(firstReply(measureCommand(mLayout, {row, mRequest.spotReadings}), 1));
        // The device parks the head by itself only after the chart's last row.
        if (mLastRow < mLayout.rows - 1)
            mTable.call({"GoHome", {}});
        return;
    }
    const Command command = measureCommand(mLayout, {std::nullopt, mRequest.spotReadings});
    take(firstReply(command, mLayout.rows));
    while (mOwed > 0) {
        const Reply reply = awaitReply();
        mTable.check(command, reply);
        take(reply);
    }
}

Reply Scan::firstReply(const Command& command, int replies) {
    const auto deadline = Clock::now() + kBusyRetry;
    for (;;) {
        mExchange.reset();
        mExchange.emplace(mTable.send(command));
        mOwed = replies;
        const Reply reply = awaitReply();
        if (!isBusy(reply.code) || Clock::now() > deadline) {
            mMoved = mMoved || !isBusy(reply.code);
            mTable.check(command, reply);
            return reply;
        }
        mTable.session().sleep(kBusyPause);
    }
}

Reply Scan::awaitReply() {
    std::optional<Reply> reply;
    while (!(reply = mExchange->next(mProgress.isLive() ? std::optional(kRedraw) : std::nullopt)))
        mProgress.tick();
    mOwed = reply->code == 0 ? mOwed - 1 : 0;
    return *reply;
}

void Scan::take(const Reply& reply) {
    Row row = rowOf(reply, mLayout);
    mSink->add(row);
    mLog.update();
    const bool spot = !mRequest.spotReadings && mLog.wasSpotRead(row.row);
    mProgress.row(row.row, patchesInRow(mLayout, row.row), spot);
    mRows.push_back(std::move(row));
}

// Ends what is under way on the device, and keeps the rows that still come.
void Scan::abandon() {
    if (!mMoved && mOwed == 0)
        return;
    const Session::CleanUp cleanUp(mTable.session());
    try {
        // Sends the head home when there is nothing left to cancel.
        mTable.send({"CancelMeasure", {}}).next(kCancellation);
        while (mOwed > 0) {
            const auto reply = mExchange->next(kCancellation);
            if (!reply || reply->code != 0)
                break;
            mOwed--;
            take(*reply);
        }
    } catch (const Failure&) {
        // What went wrong first is what the user is told.
    }
}

void Scan::finish() {
    const Session::CleanUp cleanUp(mTable.session());
    try {
        if (mRequest.lowResolution)
            setLowResolution(false);
    } catch (const Failure&) {
        // The device is gone or does not settle; the setting matters to nobody then.
    }
    const ProgressState& state = mProgress.state();
    const std::string rows = std::to_string(state.rowsDone) + " of " + std::to_string(state.rows) +
                             " rows, " + std::to_string(state.patchesDone) + " patches measured";
    mProgress.end(isComplete() ? "done" : "incomplete",
                  rows + (mSink && !mRequest.outputFile.empty() ? ", in " + mRequest.outputFile : ""));
    if (mSink && !mContext.output.isJson())
        mSink->copyTo(mContext.output);
    if (!mRequest.reportFile.empty() && !mRows.empty())
        writeReport(mRequest.reportFile,
                    {mLayout, mTable.session().status(mTable.path()), mRows,
                     mRequest.spotReadings.has_value(), state.spotRows, mLog.warnings()});
}

namespace {

std::pair<int, int> rowRange(const std::string& text, const Color::ChartLayout& layout) {
    if (text.empty())
        return {0, layout.rows - 1};
    int first = 0;
    int last = 0;
    char rest = 0;
    const int found = std::sscanf(text.c_str(), "%d-%d%c", &first, &last, &rest);
    if (found == 1 && text.find_first_not_of("0123456789") == std::string::npos)
        last = first;
    else if (found != 2)
        throw UsageFailure("--rows: not A-B: " + text);
    if (first < 0 || last < first || last >= layout.rows)
        throw UsageFailure("--rows " + text + ": the chart has rows 0-" + std::to_string(layout.rows - 1));
    return {first, last};
}

} // namespace

void commands::scan(Context& context, const ScanRequest& request) {
    const Color::ChartLayout layout = readLayout(request.layoutFile);
    const std::pair<int, int> rows = rowRange(request.rows, layout);
    if (!request.reportFile.empty())
        checkReportFile(request.reportFile);
    const Table table = Table::find(context);
    if (context.options.timeScale && !context.simulation)
        setTimeScale(table.path(), *context.options.timeScale);
    const DeviceLock lock(table);
    Scan(context, table, request, layout, rows).run();
}

} // namespace tablectl
