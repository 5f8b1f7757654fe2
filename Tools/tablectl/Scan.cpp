#include "Scan.h"

#include "Errors.h"
#include "Files.h"
#include "Fit.h"
#include "Report.h"

#include <Color/Average.h>
#include <VellDevice/RuntimeFolder.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>

namespace tablectl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Session::Seconds kRedraw{0.5};
// A strip that is under way is finished before the device looks at a cancellation.
constexpr Session::Seconds kCancellation{60};

// Of an instrument that reads a patch at spots.
constexpr int kMostSpots = 5;

int patchesInRows(const Color::ChartLayout& layout, const std::vector<int>& rows) {
    int count = 0;
    for (const int row : rows)
        count += patchesInRow(layout, row);
    return count;
}

Color::MeasurementHeader headerOf(const ScanRequest& request, const Table& table) {
    const bool withoutUltraviolet = table.status().attribute("IlluminationMode") == "0";
    return {withoutUltraviolet ? Color::MeasurementCondition::M2 : Color::MeasurementCondition::M0,
            request.xyz};
}

std::vector<Color::Reading> readingsOf(const std::vector<Row>& rows) {
    std::vector<Color::Reading> readings;
    for (const Row& row : rows)
        readings.insert(readings.end(), row.readings.begin(), row.readings.end());
    return readings;
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
                                 const Color::MeasurementHeader& header, const std::vector<Row>& kept)
    : mLayout(layout),
      mHeader(header),
      mOwn(request.outputFile.empty()),
      mFile(mOwn ? temporaryFile() : std::filesystem::path(request.outputFile)) {
    try {
        if (request.repeat > 1) {
            writeMean();
        } else if (request.resumeFile.empty()) {
            mMeasurements = std::make_unique<Color::MeasurementFile>(mFile.string(), layout, header);
        } else {
            const std::vector<Color::Reading> readings = readingsOf(kept);
            replaceFile(mFile.string(), measurementText(layout, header, readings));
            mMeasurements =
                std::make_unique<Color::MeasurementFile>(mFile.string(), layout, header, readings);
        }
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
    if (!mMeasurements) {
        mReadings.insert(mReadings.end(), row.readings.begin(), row.readings.end());
        writeMean();
        return;
    }
    try {
        mMeasurements->add(row.readings);
    } catch (const Color::CgatsError& error) {
        throw DeviceFailure(error.what());
    }
}

void MeasurementSink::writeMean() {
    replaceFile(mFile.string(), measurementText(mLayout, mHeader, Color::meanReadings(mReadings)));
}

void MeasurementSink::sync() {
    try {
        if (mMeasurements && !mOwn)
            mMeasurements->sync();
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
           ScanPlan plan)
    : mContext(context),
      mTable(table),
      mRequest(request),
      mLayout(layout),
      mPlan(std::move(plan)),
      mProgress(context.output, static_cast<int>(mPlan.rows.size()) * request.repeat,
                patchesInRows(layout, mPlan.rows) * request.repeat),
      mLog(std::filesystem::path(VellService::logFolderPath()) /
           std::filesystem::path(table.status().attribute("DeviceLogName")).filename()),
      mRows(mPlan.kept) {}

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
    mSink.emplace(mRequest, mLayout, headerOf(mRequest, mTable), mPlan.kept);
}

void Scan::setLowResolution(bool on) {
    mTable.call({"SetAttribute", {{"key", "LowResolutionScan"}, {"value", on ? "yes" : "no"}}});
}

void Scan::measure() {
    reportCourse();
    mProgress.begin();
    for (int pass = 0; pass < mRequest.repeat; ++pass)
        measureOnce();
}

void Scan::measureOnce() {
    if (!mPlan.isWhole) {
        for (const int row : mPlan.rows)
            take(firstReply(measureCommand(mLayout, {row, mRequest.spotReadings}), 1));
        // The device parks the head by itself only after the chart's last row.
        if (!mPlan.rows.empty() && mPlan.rows.back() < mLayout.rows - 1)
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
    if (mRows.size() == mPlan.kept.size() + 1)
        checkPlace(mRows.back());
    reportCourse();
}

void Scan::checkPlace(const Row& row) {
    mMisplacement = misplacement(row, mLayout);
    if (mMisplacement.empty())
        return;
    if (mRequest.strict)
        throw DeviceFailure(mMisplacement);
    mProgress.warn(mMisplacement);
}

void Scan::report(bool isRunning) const {
    const ProgressState& state = mProgress.state();
    writeReport(mRequest.reportFile,
                {mLayout, mTable.session().status(mTable.path()), mRows, mRequest.spotReadings.has_value(),
                 state.spotRows, state.knowsSpotRows, mLog.warnings(), mFailure, mMisplacement, isRunning});
}

// The report of a scan that goes on. A large chart's takes its time: no more than a tenth of it all.
void Scan::reportCourse() {
    const auto begin = Clock::now();
    if (mRequest.reportFile.empty() || !isReplaceable(mRequest.reportFile) || begin < mNextReport)
        return;
    report(true);
    mIsReported = true;
    const auto end = Clock::now();
    mNextReport = end + 9 * (end - begin);
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

// How far the readings of each pass, and those of all, lie from their mean.
void Scan::tellScatter() {
    const std::vector<Color::Reading> readings = readingsOf(mRows);
    const std::vector<Color::Reading> means = Color::meanReadings(readings);
    const auto tell = [&](int pass, const std::vector<Color::Reading>& part) {
        const Color::Scatter scatter = scatterOf(part, means);
        const std::string text = "by " + fixedText(scatter.mean, 2) + " in the mean, " +
                                 fixedText(scatter.maximum, 2) + " at most (CIEDE2000)";
        if (mContext.output.isJson())
            mContext.output.object(Json()
                                       .add("event", "scatter")
                                       .add("pass", pass)
                                       .add("mean", scatter.mean)
                                       .add("maximum", scatter.maximum));
        else
            mProgress.step("scatter",
                           (pass > 0 ? "pass " + std::to_string(pass) + " scatters " : "all scatter ") +
                               text);
    };
    const auto rowsInPass = std::ssize(mPlan.rows);
    for (std::ptrdiff_t first = 0; first < std::ssize(mRows); first += rowsInPass) {
        const auto last = std::min(first + rowsInPass, std::ssize(mRows));
        tell(static_cast<int>(first / rowsInPass) + 1,
             readingsOf({mRows.begin() + first, mRows.begin() + last}));
    }
    tell(0, readings);
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
    if (!mRequest.resumeFile.empty())
        text += ", " + std::to_string(mPlan.kept.size()) + " rows kept";
    if (mRequest.repeat > 1)
        tellScatter();
    mProgress.end(isComplete() ? "done" : "incomplete", text);
    if (mSink)
        mSink->sync();
    if (mSink && !mContext.output.isJson())
        mSink->copyTo(mContext.output);
    mLog.update();
    if (!mRequest.reportFile.empty() && (mIsReported || !mRows.empty()))
        report(false);
}

namespace {

// What the interrupted measurement has of the rows, and what is left to do.
ScanPlan planOf(const ScanRequest& request, const Color::ChartLayout& layout, std::pair<int, int> rows,
                const Table& table) {
    ScanPlan plan;
    std::set<int> kept;
    if (!request.resumeFile.empty()) {
        const int spots = std::min(request.spotReadings.value_or(1), kMostSpots);
        const Color::MeasurementHeader header = headerOf(request, table);
        try {
            for (Color::Reading& reading : recoverReadings(request.resumeFile, layout, header, spots)) {
                if (kept.insert(reading.row).second)
                    plan.kept.push_back({reading.row, header.condition, {}});
                plan.kept.back().readings.push_back(std::move(reading));
            }
        } catch (const Color::CgatsError& error) {
            throw UsageFailure(error.what());
        }
    }
    for (int row = rows.first; row <= rows.second; ++row) {
        if (!kept.contains(row))
            plan.rows.push_back(row);
    }
    plan.isWhole = request.rows.empty() && kept.empty();
    return plan;
}

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

void commands::scan(Context& context, const ScanRequest& asked) {
    ScanRequest request = asked;
    if (!request.resumeFile.empty())
        request.outputFile = request.resumeFile;
    const Color::ChartLayout layout = readLayout(request.layoutFile, placementOf(request.placement));
    const std::pair<int, int> rows = rowRange(request.rows, layout);
    checkFiles(request, context.options);
    if (request.strict && !layout.hasSpectra)
        throw UsageFailure("--strict: " + request.layoutFile + " has no spectra to compare with");
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    applyTimeScale(context, table);
    ScanPlan plan = planOf(request, layout, rows, table);
    if (plan.rows.empty()) {
        std::fprintf(stderr, "%s has all of these rows.\n", request.resumeFile.c_str());
        return;
    }
    Scan(context, table, request, layout, std::move(plan)).run();
}

} // namespace tablectl
