// How fast the road from client to instrument is: road_benchmark [round-trip] [hand-over] [chart] [scan]
// [process] [fleet]. Ends with 1 when a limit is not kept.

#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

namespace road {

void Report::add(const std::string& what, double figure, const std::string& unit, double limit, bool more) {
    const bool keeps = limit == 0 || (more ? figure >= limit : figure <= limit);
    mKeepsLimits = mKeepsLimits && keeps;
    std::printf("%-52s %10.2f %-9s", what.c_str(), figure, unit.c_str());
    if (limit != 0)
        std::printf(" %s %g%s", more ? "at least" : "at most", limit, keeps ? "" : "  NOT KEPT");
    std::printf("\n");
    std::fflush(stdout);
}

double quantile(std::vector<double> values, double part) {
    const auto index = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

} // namespace road

int main(int argc, char** argv) {
    struct Section {
        const char* name;
        void (*measure)(road::Report&);
    };
    constexpr Section kSections[] = {
        {"round-trip", road::measureRoundTrip}, {"hand-over", road::measureHandOver},
        {"chart", road::measureChart},          {"scan", road::measureScan},
        {"process", road::measureProcess},      {"fleet", road::measureFleet}};
    try {
        road::Report report;
        for (const Section& section : kSections) {
            const auto names = [&](const char* argument) { return std::strcmp(argument, section.name) == 0; };
            if (argc == 1 || std::any_of(argv + 1, argv + argc, names))
                section.measure(report);
        }
        return report.keepsLimits() ? 0 : 1;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "%s: %s\n", argv[0], problem.what());
        return 2;
    }
}
