#pragma once

#include "Chart.h"
#include "Device.h"

#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// What a report tells about.
struct ReportContent {
    const Color::ChartLayout& layout;
    std::optional<DeviceStatus> device;
    const std::vector<Row>& rows;
    bool spotsWereAskedFor;
    const std::vector<int>& spotRows; // where strips failed
    bool spotRowsAreKnown;            // false: there may be more of them
    const std::vector<std::string>& warnings;
    std::string failure;      // "": the scan was whole
    std::string misplacement; // "": the chart lies as the layout says
    bool isRunning = false;   // there will be another page; this one looks for it
};

// Writes a self-contained page: the chart as it lies on the table, measured beside reference, with colour
// differences. A page that was there before is replaced in one step. Throws DeviceFailure when the file
// cannot be written.
void writeReport(const std::string& file, const ReportContent& content);

extern const char* const kReportPage; // with @DATA@ where the measurement goes

} // namespace tablectl
