#include "Report.h"

#include "Errors.h"

namespace tablectl {

void writeReport(const std::string& file, const ReportContent&) {
    throw DeviceFailure(file + ": reports are not written yet");
}

} // namespace tablectl
