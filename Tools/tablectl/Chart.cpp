#include "Chart.h"

#include "Errors.h"
#include "Output.h"

#include <Base/Number.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string_view>

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

Color::ChartLayout readLayout(const std::string& path, const Color::PlacementParts& given) {
    try {
        Color::ChartLayout layout = Color::readChartLayout(path, given);
        for (const std::string& note : layout.notes)
            std::fprintf(stderr, "tablectl: %s: %s\n", path.c_str(), note.c_str());
        return layout;
    } catch (const Color::CgatsError& error) {
        throw UsageFailure(error.what());
    }
}

namespace {

// Separated numbers, all of the text; their count tells whether it was that.
template <class Number>
std::vector<Number> numbersIn(std::string_view text, std::string_view separators) {
    std::vector<Number> numbers;
    while (true) {
        const std::size_t end = text.find_first_of(separators);
        const std::optional<Number> number = Base::parseNumber<Number>(text.substr(0, end));
        if (!number)
            return {};
        numbers.push_back(*number);
        if (end == text.npos)
            return numbers;
        text.remove_prefix(end + 1);
    }
}

Color::Grid gridIn(const std::string& text) {
    const std::size_t cross = text.find('x');
    const std::size_t plus = text.find('+');
    const bool isInOrder = cross != text.npos && (plus == text.npos || cross < plus);
    const std::vector<int> numbers = isInOrder ? numbersIn<int>(text, "x+") : std::vector<int>();
    if (numbers.size() != (plus == text.npos ? 2 : 3))
        throw UsageFailure("--grid: not ROWSxCOLUMNS or ROWSxCOLUMNS+LAST: " + text);
    const Color::Grid grid{numbers[0], numbers[1], numbers.size() == 3 ? numbers[2] : 0};
    if (const std::string problem = problemOf(grid); !problem.empty())
        throw UsageFailure("--grid " + text + ": " + problem);
    return grid;
}

Color::Point pointIn(const std::string& text) {
    constexpr double kFurthest = 1e6;
    const std::vector<double> numbers = numbersIn<double>(text, ",");
    const bool isPoint =
        numbers.size() == 2 && std::fabs(numbers[0]) <= kFurthest && std::fabs(numbers[1]) <= kFurthest;
    if (!isPoint)
        throw UsageFailure("--corners: not X,Y: " + text);
    return {numbers[0], numbers[1]};
}

} // namespace

Color::PlacementParts placementOf(const PlacementRequest& request) {
    Color::PlacementParts parts;
    if (!request.file.empty()) {
        try {
            const Color::Placement placement = Color::readPlacement(request.file);
            parts = {placement, placement};
        } catch (const Color::CgatsError& error) {
            throw UsageFailure(error.what());
        }
    }
    if (!request.grid.empty())
        parts.grid = gridIn(request.grid);
    if (!request.corners.empty())
        parts.corners = Color::Corners{pointIn(request.corners.at(0)), pointIn(request.corners.at(1)),
                                       pointIn(request.corners.at(2))};
    return parts;
}

void checkVirtualChart(const std::string& path) {
    if (!readLayout(path).hasSpectra)
        throw UsageFailure(path + ": has no spectra, of which a virtual table needs all");
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

std::map<int, Color::Lab> meanColors(const Row& row) {
    std::map<int, Color::Lab> means;
    std::map<int, int> counts;
    for (const Color::Reading& reading : row.readings) {
        Color::Lab& mean = means[reading.column];
        const int count = ++counts[reading.column];
        mean.l += (static_cast<double>(reading.lab[0]) - mean.l) / count;
        mean.a += (static_cast<double>(reading.lab[1]) - mean.a) / count;
        mean.b += (static_cast<double>(reading.lab[2]) - mean.b) / count;
    }
    return means;
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
