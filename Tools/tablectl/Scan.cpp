#include "Scan.h"

#include "Errors.h"
#include "Files.h"
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
// A strip that is under way is finished before the device looks at a cancellation.
constexpr Session::Seconds kCancellation{60};

int patchesInRows(const Color::ChartLayout& layout, int first, int last) {
    int count = 0;
    for (int row = first; row <= last; ++row)
        count += patchesInRow(layout, row);
    return count;
}

std::filesystem::path temporaryFile() {
    std::string name = (temporaryFolder() / "tablectl-measured-XXXXXX").string();
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
    if (!mRequest.noPicture)
        mProgress.showChart(mLayout);
    try {
        prepare();
        measure();
    } catch (const Failure& failure) {
        mFailure = failure.what();
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
    if (mRequest.lowResolution && mTable.status().attribute("LowResolutionScan") != "yes") {
        setLowResolution(true);
        mLowResolutionIsOurs = true;
    }
    makeReady(mTable, [this] {
        mProgress.step("calibrating", "calibrating");
        mMoved = true;
    });
    const bool withoutUltraviolet = mTable.status().attribute("IlluminationMode") == "0";
    mSink.emplace(mRequest, mLayout,
                  withoutUltraviolet ? Color::MeasurementCondition::M2 : Color::MeasurementCondition::M0);
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
    // Somebody who wants JSON and no file gets the readings with the event.
    const bool wantsReadings = mContext.output.isJson() && mSink->isOwn();
    mProgress.row(row, patchesInRow(mLayout, row.row),
                  mRequest.spotReadings ? std::optional(false) : mLog.wasSpotRead(row.row),
                  wantsReadings ? readingsJson(row, mLayout) : "");
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
        if (mLowResolutionIsOurs)
            setLowResolution(false);
    } catch (const Failure&) {
        // The device is gone or does not settle; the setting matters to nobody then.
    }
    const ProgressState& state = mProgress.state();
    std::string text = std::to_string(state.rowsDone) + " of " + std::to_string(state.rows) + " rows, " +
                       std::to_string(state.patchesDone) + " patches measured";
    if (!state.spotRows.empty())
        text += ", " + spotRowsText(state.spotRows);
    if (mSink && !mSink->isOwn())
        text += ", in " + mRequest.outputFile;
    mProgress.end(isComplete() ? "done" : "incomplete", text);
    if (mSink && !mContext.output.isJson())
        mSink->copyTo(mContext.output);
    mLog.update();
    if (!mRequest.reportFile.empty() && !mRows.empty())
        writeReport(mRequest.reportFile, {mLayout, mTable.session().status(mTable.path()), mRows,
                                          mRequest.spotReadings.has_value(), state.spotRows,
                                          state.knowsSpotRows, mLog.warnings(), mFailure});
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

// The files that a scan writes, before anything moves: they can be written, and nothing is lost by it.
void checkFiles(const ScanRequest& request, const Options& options) {
    for (const std::string& file : {request.outputFile, request.reportFile}) {
        if (file.empty())
            continue;
        for (const std::string& read :
             {request.layoutFile, request.placement.file, options.simulated.value_or("")}) {
            if (!read.empty() && isSameFile(file, read))
                throw UsageFailure(file + ": the scan would replace the layout");
        }
        if (isSameFile(file, options.replayed.value_or("")) || isSameFile(file, options.record))
            throw UsageFailure(file + ": the scan would replace the recording");
        checkWritable(file);
    }
    if (!request.reportFile.empty() && isSameFile(request.outputFile, request.reportFile))
        throw UsageFailure(request.reportFile + ": the report would replace the measurement");
}

} // namespace

void commands::scan(Context& context, const ScanRequest& request) {
    const Color::ChartLayout layout = readLayout(request.layoutFile, placementOf(request.placement));
    const std::pair<int, int> rows = rowRange(request.rows, layout);
    checkFiles(request, context.options);
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    applyTimeScale(context, table);
    Scan(context, table, request, layout, rows).run();
}

} // namespace tablectl
