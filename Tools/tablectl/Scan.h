#pragma once

#include "Chart.h"
#include "Commands.h"
#include "PluginLog.h"
#include "Progress.h"
#include "Table.h"

#include <Color/MeasurementFile.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tablectl {

// What a scan has to do.
struct ScanPlan {
    std::vector<int> rows; // to be read
    bool isWhole = true;   // they are all of the chart's
    std::vector<Row> kept; // from the measurement that goes on
};

// The file that takes a scan's readings: the one the user named, or one of its own that is copied to standard
// output at the end. Of a scan that is repeated it holds the mean of what was read so far.
class MeasurementSink {
public:
    MeasurementSink(const ScanRequest& request, const Color::ChartLayout& layout,
                    const Color::MeasurementHeader& header, const std::vector<Row>& kept);
    MeasurementSink(const MeasurementSink&) = delete;
    MeasurementSink& operator=(const MeasurementSink&) = delete;
    ~MeasurementSink();

    void add(const Row& row);          // throws DeviceFailure when the file cannot take it
    void sync();                       // likewise, at the end
    void copyTo(Output& output) const; // nothing for a file of the user's
    bool isOwn() const { return mOwn; }

private:
    void writeMean();

    const Color::ChartLayout& mLayout;
    Color::MeasurementHeader mHeader;
    bool mOwn;
    std::filesystem::path mFile;
    std::unique_ptr<Color::MeasurementFile> mMeasurements; // null for a mean
    std::vector<Color::Reading> mReadings;                 // for the mean
};

// One scan of a chart: prepares the device, measures, and leaves the head at home and the resolution as it
// was, whichever way the scan ends; the mode stays the scanning one. The caller holds the device lock.
class Scan {
public:
    Scan(Context& context, const Table& table, const ScanRequest& request, const Color::ChartLayout& layout,
         ScanPlan plan);

    void run();

private:
    void prepare();
    void setLowResolution(bool on);
    void measure();
    void measureOnce();
    void tellScatter();
    Reply firstReply(const Command& command, int replies); // and the exchange for those that follow
    Reply awaitReply();
    void take(const Reply& reply);
    void checkPlace(const Row& row);
    void report(bool isRunning) const;
    void reportCourse();
    void abandon();
    void finish();
    bool isComplete() const { return mProgress.state().rowsDone == mProgress.state().rows; }

    Context& mContext;
    const Table& mTable;
    const ScanRequest& mRequest;
    const Color::ChartLayout& mLayout;
    std::string mFailure; // "": the scan goes well
    ScanPlan mPlan;
    Progress mProgress;
    PluginLog mLog;
    std::optional<MeasurementSink> mSink;
    std::optional<Exchange> mExchange; // the measurement under way
    int mOwed = 0;                     // replies that it still owes
    bool mMoved = false;               // the head is no longer where the scan found it
    bool mLowResolutionIsOurs = false; // and was off before
    std::vector<Row> mRows;            // those that were kept, and those that were read
    std::string mMisplacement;         // what makes it doubtful that the chart lies as the layout says
    bool mIsReported = false;          // the report's page is there
    std::chrono::steady_clock::time_point mNextReport{}; // not before that
};

} // namespace tablectl
