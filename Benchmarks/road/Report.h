// What the benchmarks found, a line each, beside the limit that it has to keep.
#pragma once

#include <string>
#include <vector>

namespace road {

class Report {
public:
    // One figure; `limit` 0 means that there is none. A lower figure is better unless `more` says otherwise.
    void add(const std::string& what, double figure, const std::string& unit, double limit = 0,
             bool more = false);
    bool keepsLimits() const { return mKeepsLimits; }

private:
    bool mKeepsLimits = true;
};

// The value below which `part` (0 to 1) of the values lie.
double quantile(std::vector<double> values, double part);

void measureRoundTrip(Report& report);
void measureHandOver(Report& report);
void measureChart(Report& report);
void measureScan(Report& report);
void measureProcess(Report& report);
void measureFleet(Report& report);

} // namespace road
