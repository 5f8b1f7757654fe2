#include "Recognition.h"

#include "Status.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace TaviSDK {

namespace {

constexpr double kIntegrationsPerPatch = 3.0;
constexpr double kSettlingTime = 0.004;
constexpr double kEdgeLimit = 1.0;

// A part of the strip, in fractions of its way: 0 where it begins, 1 where it ends.
struct Part {
    double begin = 0.0;
    double end = 1.0;
    bool isEmpty() const { return begin > end; }
};

Part common(const Part& first, const Part& second) {
    return {std::max(first.begin, second.begin), std::min(first.end, second.end)};
}

// The part of the way along which a coordinate that goes from "from" to "to" lies between low and high.
Part between(double from, double to, double low, double high) {
    const double way = to - from;
    if (std::fabs(way) < 1e-12) {
        return from >= low && from <= high ? Part{} : Part{1.0, 0.0};
    }
    const double first = (low - from) / way;
    const double second = (high - from) / way;
    return {std::min(first, second), std::max(first, second)};
}

// The strip in grid coordinates: "along" counts the cells that it passes, "across" is the lane in which it
// runs, a row of the chart or a column.
struct Course {
    bool followsRow = true;
    double alongFrom = 0.0;
    double alongTo = 0.0;
    double acrossFrom = 0.0;
    double acrossTo = 0.0;
    int cells = 0;          // of the lane
    int lanes = 0;          // of the chart
    double alongMargin = 0; // an aperture's radius, in cells
    double acrossMargin = 0;

    Course(const VirtualChart& chart, const Strip& strip) {
        const VirtualChart::Grid from = chart.toGrid(strip.from);
        const VirtualChart::Grid to = chart.toGrid(strip.to);
        followsRow = std::fabs(to.column - from.column) >= std::fabs(to.row - from.row);
        alongFrom = followsRow ? from.column : from.row;
        alongTo = followsRow ? to.column : to.row;
        acrossFrom = followsRow ? from.row : from.column;
        acrossTo = followsRow ? to.row : to.column;
        cells = followsRow ? chart.columns() : chart.rows();
        lanes = followsRow ? chart.rows() : chart.columns();
        alongMargin = kApertureRadius / (followsRow ? chart.columnWidth() : chart.rowHeight());
        acrossMargin = kApertureRadius / (followsRow ? chart.rowHeight() : chart.columnWidth());
    }

    // The part of the way on which the aperture lies wholly on a cell of a lane.
    Part onCell(int cell, int lane) const {
        const double reach = 0.5 - alongMargin;
        const double width = 0.5 - acrossMargin;
        if (reach < 0.0 || width < 0.0) {
            return {1.0, 0.0};
        }
        return common(common(Part{}, between(alongFrom, alongTo, cell - reach, cell + reach)),
                      between(acrossFrom, acrossTo, lane - width, lane + width));
    }

    // The one lane in which the strip runs while it is on the chart; nothing when it misses the chart.
    std::optional<int> lane() const {
        const Part onChart = common(Part{}, between(alongFrom, alongTo, -0.5, cells - 0.5));
        if (onChart.isEmpty()) {
            return std::nullopt;
        }
        const double way = acrossTo - acrossFrom;
        const double first = acrossFrom + onChart.begin * way;
        const double last = acrossFrom + onChart.end * way;
        if (std::max(first, last) < -0.5 || std::min(first, last) > lanes - 0.5) {
            return std::nullopt;
        }
        const int lane = static_cast<int>(std::lround(std::clamp(first, -1.0, static_cast<double>(lanes))));
        if (lane != std::lround(std::clamp(last, -1.0, static_cast<double>(lanes)))) {
            throw Refusal(Status::StripNotRecognised,
                          "The strip crosses from one line of patches into another: no patches recognised.");
        }
        return lane;
    }
};

// What the instrument takes for one patch, or for paper: neighbouring cells without an edge between them.
struct Plateau {
    bool isPaper = false;
    const VirtualChart::Surface* last = nullptr;
    int cellCount = 0;
    std::array<double, Color::kBands> sum{};

    void add(const VirtualChart::Surface& surface, bool surfaceIsPaper) {
        isPaper = isPaper || surfaceIsPaper;
        last = &surface;
        ++cellCount;
        for (std::size_t band = 0; band < sum.size(); ++band) {
            sum[band] += static_cast<double>(surface.reflectance[band]);
        }
    }

    Spectrum reading() const {
        if (cellCount == 1) {
            return last->reflectance;
        }
        Spectrum mean{};
        std::transform(sum.begin(), sum.end(), mean.begin(),
                       [this](double value) { return static_cast<float>(value / cellCount); });
        return mean;
    }
};

// How long the sensor sees a part of the strip.
double dwell(const Part& part, double travelTime, const Strip& strip) {
    if (part.isEmpty()) {
        return 0.0;
    }
    return (part.end - part.begin) * travelTime + (part.begin <= 0.0 ? strip.restAtEnds : 0.0) +
           (part.end >= 1.0 ? strip.restAtEnds : 0.0);
}

std::vector<Plateau> plateaus(const VirtualChart& chart, const Strip& strip, const Course& course, int lane) {
    const double travelTime = std::hypot(strip.to.x - strip.from.x, strip.to.y - strip.from.y) / strip.speed;
    const double needed =
        std::max(1.0, kIntegrationsPerPatch - strip.lowestLimit) * strip.integrationTime + kSettlingTime;
    // One cell of paper on either side of the lane stands for all the paper there.
    const auto nearest = [&course](double along) {
        return static_cast<int>(std::lround(std::clamp(along, -1.0, static_cast<double>(course.cells))));
    };
    const int first = nearest(course.alongFrom);
    const int last = nearest(course.alongTo);
    const int step = first <= last ? 1 : -1;

    std::vector<Plateau> found;
    for (int cell = first; cell != last + step; cell += step) {
        if (dwell(course.onCell(cell, lane), travelTime, strip) < needed) {
            continue;
        }
        const VirtualChart::Surface* patch =
            course.followsRow ? chart.patch(lane, cell) : chart.patch(cell, lane);
        const VirtualChart::Surface& surface = patch != nullptr ? *patch : chart.paper();
        const bool hasEdge =
            found.empty() ||
            strip.edgeLimitFactor * Color::deltaE76(found.back().last->lab, surface.lab) >= kEdgeLimit;
        if (hasEdge) {
            found.emplace_back();
        }
        found.back().add(surface, patch == nullptr);
    }
    return found;
}

} // namespace

std::vector<Spectrum> recognise(const VirtualChart& chart, const Strip& strip) {
    std::vector<Spectrum> readings;
    if (chart.rows() == 0) {
        return readings;
    }
    const Course course(chart, strip);
    const std::optional<int> lane = course.lane();
    if (!lane) {
        return readings;
    }
    for (const Plateau& plateau : plateaus(chart, strip, course, *lane)) {
        if (!plateau.isPaper) {
            readings.push_back(plateau.reading());
        }
    }
    return readings;
}

} // namespace TaviSDK
