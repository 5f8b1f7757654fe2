#pragma once

#include "Chart.h"
#include "Commands.h"
#include "PluginLog.h"
#include "Progress.h"
#include "Table.h"

#include <Color/MeasurementFile.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tablectl {

// The file that takes a scan's readings: the one the user named, or one of its own that is copied to standard
// output at the end.
class MeasurementSink {
public:
    MeasurementSink(const ScanRequest& request, const Color::ChartLayout& layout,
                    Color::MeasurementCondition condition);
    MeasurementSink(const MeasurementSink&) = delete;
    MeasurementSink& operator=(const MeasurementSink&) = delete;
    ~MeasurementSink();

    void add(const Row& row);          // throws DeviceFailure when the file cannot take it
    void copyTo(Output& output) const; // nothing for a file of the user's
    bool isOwn() const { return mOwn; }

private:
    bool mOwn;
    std::filesystem::path mFile;
    std::unique_ptr<Color::MeasurementFile> mMeasurements;
};

// One scan of a chart: prepares the device, measures, and leaves the head at home and the resolution as it
// was, whichever way the scan ends; the mode stays the scanning one. The caller holds the device lock.
class Scan {
public:
    // `rows`: the first and the last.
    Scan(Context& context, const Table& table, const ScanRequest& request, const Color::ChartLayout& layout,
         std::pair<int, int> rows);

    void run();

private:
    void prepare();
    void setLowResolution(bool on);
    void measure();
    Reply firstReply(const Command& command, int replies); // and the exchange for those that follow
    Reply awaitReply();
    void take(const Reply& reply);
    void abandon();
    void finish();
    bool isComplete() const { return mProgress.state().rowsDone == mLastRow - mFirstRow + 1; }

    Context& mContext;
    const Table& mTable;
    const ScanRequest& mRequest;
    const Color::ChartLayout& mLayout;
    std::string mFailure; // "": the scan goes well
    int mFirstRow;
    int mLastRow;
    Progress mProgress;
    PluginLog mLog;
    std::optional<MeasurementSink> mSink;
    std::optional<Exchange> mExchange; // the measurement under way
    int mOwed = 0;                     // replies that it still owes
    bool mMoved = false;               // the head is no longer where the scan found it
    bool mLowResolutionIsOurs = false; // and was off before
    std::vector<Row> mRows;
};

} // namespace tablectl
