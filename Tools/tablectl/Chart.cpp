#include "Chart.h"

#include "Errors.h"
#include "Output.h"

#include <algorithm>
#include <set>

namespace tablectl {

namespace {

int integerAttribute(const ColorValues& color, const std::string& key) {
    const std::string text = color.attribute(key);
    try {
        return std::stoi(text);
    } catch (const std::exception&) {
        throw DeviceFailure("Measure: the device sent a reading whose " + key + " is \"" + text + "\"");
    }
}

template <std::size_t Size>
void copyValues(const ColorValues& color, std::array<float, Size>& values) {
    if (color.values.size() != Size)
        throw DeviceFailure("Measure: the device sent " + std::to_string(color.values.size()) + " " +
                            color.colorSpace + " values");
    std::transform(color.values.begin(), color.values.end(), values.begin(),
                   [](double value) { return static_cast<float>(value); });
}

// The readings of a patch come as pairs: a spectrum and the CIELAB values of the same reading.
void appendReadings(const Measurement& patch, Row& row) {
    Color::Reading reading;
    for (const ColorValues& color : patch.colors) {
        if (color.colorSpace == "Spectral") {
            reading = Color::Reading();
            reading.row = integerAttribute(color, "Row");
            reading.column = integerAttribute(color, "Column");
            reading.spotIndex = integerAttribute(color, "SpotIndex");
            copyValues(color, reading.spectrum);
            row.condition = color.attribute("Illumination") == "M2" ? Color::MeasurementCondition::M2
                                                                    : Color::MeasurementCondition::M0;
        } else if (color.colorSpace == "Lab") {
            copyValues(color, reading.lab);
            row.readings.push_back(reading);
        }
    }
}

} // namespace

Color::ChartLayout readLayout(const std::string& path) {
    try {
        return Color::readChartLayout(path);
    } catch (const Color::CgatsError& error) {
        throw UsageFailure(error.what());
    }
}

int patchesInRow(const Color::ChartLayout& layout, int row) {
    return layout.columns - layout.firstColumn(row);
}

Command measureCommand(const Color::ChartLayout& layout, const MeasureOptions& options) {
    Command command{"Measure",
                    {{"TopLeftX", numberText(layout.topLeft.x)},
                     {"TopLeftY", numberText(layout.topLeft.y)},
                     {"BotLeftX", numberText(layout.bottomLeft.x)},
                     {"BotLeftY", numberText(layout.bottomLeft.y)},
                     {"BotRightX", numberText(layout.bottomRight.x)},
                     {"BotRightY", numberText(layout.bottomRight.y)},
                     {"Rows", std::to_string(layout.rows)},
                     {"Columns", std::to_string(layout.columns)},
                     {"LastRowColumns", std::to_string(layout.lastRowColumns)}}};
    if (options.spotReadings)
        command.arguments.emplace_back("SpotMeasureCount", std::to_string(*options.spotReadings));
    if (options.row)
        command.arguments.emplace_back("RowToScan", std::to_string(*options.row));
    return command;
}

Row rowOf(const Reply& reply, const Color::ChartLayout& layout) {
    Row row;
    for (const Measurement& patch : reply.measurements)
        appendReadings(patch, row);
    if (row.readings.empty())
        throw DeviceFailure("Measure: the device sent a row without readings");
    row.row = row.readings.front().row;
    std::set<int> columns;
    for (const Color::Reading& reading : row.readings) {
        if (reading.row != row.row || !layout.patchAt(reading.row, reading.column))
            throw DeviceFailure("Measure: the device sent a patch that is not of the chart: row " +
                                std::to_string(reading.row) + ", column " + std::to_string(reading.column));
        columns.insert(reading.column);
    }
    if (std::ssize(columns) != patchesInRow(layout, row.row))
        throw DeviceFailure("Measure: the device sent " + std::to_string(columns.size()) +
                            " patches of row " + std::to_string(row.row));
    return row;
}

std::string readingsJson(const Row& row, const Color::ChartLayout& layout) {
    std::vector<std::string> readings;
    for (const Color::Reading& reading : row.readings) {
        const Color::Patch* patch = layout.patchAt(reading.row, reading.column);
        readings.push_back(Json()
                               .add("sampleId", patch ? patch->sampleId : "")
                               .add("column", reading.column)
                               .add("spotIndex", reading.spotIndex)
                               .addRaw("lab", jsonArray(reading.lab))
                               .addRaw("spectrum", jsonArray(reading.spectrum))
                               .text());
    }
    return "[" + join(readings, ",") + "]";
}

} // namespace tablectl
