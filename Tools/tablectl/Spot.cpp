// One place of the table, read as often as asked for.
#include "Chart.h"
#include "Commands.h"
#include "Errors.h"
#include "HardwareFile.h"
#include "Progress.h"
#include "Table.h"
#include "Terminal.h"

#include <Color/Average.h>
#include <Color/Colorimetry.h>

#include <algorithm>
#include <cstdio>

namespace tablectl {

namespace {

constexpr int kReadingsAtOnce = 5; // that one command of the device takes

// A chart of a single patch, which the device reads where it is told to and not in a strip.
Color::ChartLayout chartAt(const Color::Point& place) {
    Color::ChartLayout chart;
    chart.rows = chart.columns = 1;
    chart.topLeft = chart.bottomLeft = chart.bottomRight = place;
    chart.patches.resize(1);
    return chart;
}

std::string labText(const Color::Lab& lab) {
    char text[96];
    std::snprintf(text, sizeof text, "L* %.2f  a* %.2f  b* %.2f", lab.l, lab.a, lab.b);
    const ColorDepth depth = colorDepth(Stream::output);
    return depth == ColorDepth::none
               ? text
               : background(Color::srgbFromLab(lab), depth) + "      " + kPlain + "  " + text;
}

Row readAt(const Table& table, const Color::ChartLayout& chart, int count) {
    const Command command = measureCommand(chart, {std::nullopt, std::min(count, kReadingsAtOnce)});
    try {
        return rowOf(table.call(command), chart);
    } catch (const Interrupted&) {
        cancelAfterInterruption(table);
        throw;
    }
}

std::string readingJson(const Color::Point& place, const Color::Reading& reading,
                        Color::MeasurementCondition condition) {
    return Json()
        .add("x", place.x)
        .add("y", place.y)
        .add("spotIndex", reading.spotIndex)
        .add("condition", condition == Color::MeasurementCondition::M2 ? "M2" : "M0")
        .addRaw("lab", jsonArray(reading.lab))
        .addRaw("spectrum", jsonArray(reading.spectrum))
        .text();
}

// How far several readings lie apart.
std::string meanText(const std::vector<Color::Lab>& readings) {
    Color::Lab mean;
    for (const Color::Lab& lab : readings) {
        mean.l += lab.l / static_cast<double>(readings.size());
        mean.a += lab.a / static_cast<double>(readings.size());
        mean.b += lab.b / static_cast<double>(readings.size());
    }
    double furthest = 0;
    for (const Color::Lab& lab : readings)
        furthest = std::max(furthest, Color::deltaE2000(mean, lab));
    char text[64];
    std::snprintf(text, sizeof text, "  mean, all within CIEDE2000 %.2f", furthest);
    return labText(mean) + text;
}

} // namespace

void commands::spot(Context& context, const Color::Point& place, int count) {
    const Color::ChartLayout chart = chartAt(place);
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    applyTimeScale(context, table);
    {
        Progress progress(context.output, 1, 1);
        makeReady(table, [&] { progress.step("calibrating", "calibrating"); });
    }
    std::vector<Color::Lab> readings;
    while (std::ssize(readings) < count) {
        const Row row = readAt(table, chart, count - static_cast<int>(readings.size()));
        for (Color::Reading reading : row.readings) {
            reading.spotIndex = static_cast<int>(readings.size());
            readings.push_back(labOf(reading));
            context.output.line(context.output.isJson() ? readingJson(place, reading, row.condition)
                                                        : labText(readings.back()));
        }
    }
    if (count > 1 && !context.output.isJson())
        context.output.line(meanText(readings));
}

} // namespace tablectl
