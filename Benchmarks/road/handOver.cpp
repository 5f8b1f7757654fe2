#include "Report.h"
namespace road {
void measureHandOver(Report&) {}
void measureChart(Report&) {}
void measureProcess(Report&) {}
} // namespace road
