// Two measurements beside each other, and a page of one.
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "Measured.h"
#include "Report.h"

#include <Base/Number.h>
#include <Color/Average.h>
#include <Color/CgatsText.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <map>

namespace tablectl {

namespace {

constexpr std::size_t kMostShown = 8;

struct Pair {
    const Color::Reading* first;
    const Color::Reading* second;
    double difference;
};

struct Comparison {
    std::vector<Pair> pairs; // by rising difference
    std::vector<const Color::Reading*> onlyInFirst;
    std::vector<const Color::Reading*> onlyInSecond;

    double mean() const {
        double sum = 0;
        for (const Pair& pair : pairs)
            sum += pair.difference;
        return sum / static_cast<double>(pairs.size());
    }
    double maximum() const { return pairs.back().difference; }
    double percentile(double part) const {
        const double rank = std::ceil(part * static_cast<double>(pairs.size()));
        return pairs[static_cast<std::size_t>(std::max(rank - 1, 0.0))].difference;
    }
};

// By SAMPLE_ID; where one comes several times, in the order of the cells.
Comparison compared(const Measured& first, const Measured& second) {
    std::map<std::string, std::deque<const Color::Reading*>> partners;
    for (const Color::Reading& reading : second.means)
        partners[reading.sampleId].push_back(&reading);
    Comparison result;
    for (const Color::Reading& reading : first.means) {
        const auto found = partners.find(reading.sampleId);
        if (found == partners.end() || found->second.empty()) {
            result.onlyInFirst.push_back(&reading);
            continue;
        }
        const Color::Reading* const partner = found->second.front();
        found->second.pop_front();
        result.pairs.push_back({&reading, partner, Color::deltaE2000(labOf(reading), labOf(*partner))});
    }
    for (const auto& [id, rest] : partners)
        result.onlyInSecond.insert(result.onlyInSecond.end(), rest.begin(), rest.end());
    if (result.pairs.empty())
        throw UsageFailure(first.file + " and " + second.file + ": no patch of one is in the other");
    std::stable_sort(result.pairs.begin(), result.pairs.end(),
                     [](const Pair& one, const Pair& other) { return one.difference < other.difference; });
    return result;
}

std::string jsonOf(const std::vector<const Color::Reading*>& readings) {
    std::vector<std::string> ids;
    for (const Color::Reading* reading : readings)
        ids.push_back(Json::quote(reading->sampleId));
    return "[" + join(ids, ",") + "]";
}

void tellJson(Output& output, const Comparison& comparison) {
    std::vector<std::string> worst;
    for (auto pair = comparison.pairs.rbegin(); pair != comparison.pairs.rend() && worst.size() < kMostShown;
         ++pair)
        worst.push_back(Json().add("sampleId", pair->first->sampleId).add("deltaE", pair->difference).text());
    output.object(Json()
                      .add("patches", static_cast<long>(comparison.pairs.size()))
                      .add("mean", comparison.mean())
                      .add("median", comparison.percentile(0.5))
                      .add("percentile95", comparison.percentile(0.95))
                      .add("maximum", comparison.maximum())
                      .addRaw("largest", "[" + join(worst, ",") + "]")
                      .addRaw("onlyInFirst", jsonOf(comparison.onlyInFirst))
                      .addRaw("onlyInSecond", jsonOf(comparison.onlyInSecond)));
}

void tellMissing(Output& output, const std::string& file,
                 const std::vector<const Color::Reading*>& readings) {
    if (readings.empty())
        return;
    std::string line = std::to_string(readings.size()) + " only in " + file + ":";
    for (std::size_t index = 0; index < std::min(readings.size(), kMostShown); ++index)
        line += " " + Color::excerpt(readings[index]->sampleId);
    output.line(line + (readings.size() > kMostShown ? " ..." : ""));
}

void tellText(Output& output, const Comparison& comparison, const Measured& first, const Measured& second) {
    output.line("patches          " + std::to_string(comparison.pairs.size()));
    output.line("mean             " + fixedText(comparison.mean(), 2));
    output.line("median           " + fixedText(comparison.percentile(0.5), 2));
    output.line("95th percentile  " + fixedText(comparison.percentile(0.95), 2));
    output.line("maximum          " + fixedText(comparison.maximum(), 2));
    std::size_t shown = 0;
    for (auto pair = comparison.pairs.rbegin(); pair != comparison.pairs.rend() && shown < kMostShown;
         ++pair, ++shown)
        output.line("  " + fixedText(pair->difference, 2) + "  " + Color::excerpt(pair->first->sampleId));
    tellMissing(output, first.file, comparison.onlyInFirst);
    tellMissing(output, second.file, comparison.onlyInSecond);
}

std::vector<Row> rowsOf(const std::vector<Color::Reading>& readings, const std::string& condition) {
    std::vector<Row> rows;
    for (const Color::Reading& reading : readings) {
        if (rows.empty() || rows.back().row != reading.row)
            rows.push_back(
                {reading.row,
                 condition == "M2" ? Color::MeasurementCondition::M2 : Color::MeasurementCondition::M0,
                 {}});
        rows.back().readings.push_back(reading);
    }
    return rows;
}

void writePage(const std::string& file, const Color::ChartLayout& layout, const std::vector<Row>& rows) {
    writeReport(file, {layout, std::nullopt, rows, false, {}, false, {}, "", ""});
}

void checkReplacesNothing(const std::string& output, const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        if (!output.empty() && !input.empty() && isSameFile(output, input))
            throw UsageFailure(output + ": the page would replace what it is made of");
    }
}

} // namespace

void commands::compare(Context& context, const CompareRequest& request) {
    std::optional<Color::Point> limit; // of mean and maximum
    if (!request.limit.empty()) {
        const std::size_t comma = std::min(request.limit.find(','), request.limit.size());
        const auto mean = Base::parseFinite<double>(std::string_view(request.limit).substr(0, comma));
        const auto maximum = Base::parseFinite<double>(
            std::string_view(request.limit).substr(std::min(comma + 1, request.limit.size())));
        if (!mean || !maximum)
            throw UsageFailure("--limit: not MEAN,MAX: " + request.limit);
        limit = {*mean, *maximum};
    }
    checkReplacesNothing(request.reportFile, {request.first, request.second});
    const Measured first = readMeasured(request.first);
    const Measured second = readMeasured(request.second);
    const Comparison comparison = compared(first, second);
    if (context.output.isJson())
        tellJson(context.output, comparison);
    else
        tellText(context.output, comparison, first, second);
    if (!request.reportFile.empty()) {
        // The second where the first has its patches.
        std::vector<Color::Reading> moved;
        for (const Pair& pair : comparison.pairs) {
            moved.push_back(*pair.second);
            moved.back().row = pair.first->row;
            moved.back().column = pair.first->column;
        }
        writePage(request.reportFile, layoutOf(first),
                  rowsOf(Color::meanReadings(moved, second.data.hasSpectra), second.data.condition));
    }
    if (limit && (comparison.mean() > limit->x || comparison.maximum() > limit->y))
        throw Failure(1, "beyond the limit: mean " + fixedText(comparison.mean(), 2) + ", maximum " +
                             fixedText(comparison.maximum(), 2));
}

void commands::report(Context&, const std::string& file, const std::string& reference,
                      const std::string& output) {
    checkReplacesNothing(output, {file, reference});
    const Measured measured = readMeasured(file);
    Color::ChartLayout layout = reference.empty() ? layoutOf(measured) : readLayout(reference);
    if (reference.empty())
        layout.hasSpectra = false; // or it would be compared with itself
    for (const Color::Reading& reading : measured.means) {
        if (!layout.holds(reading.row, reading.column))
            throw UsageFailure(reference + ": has no patch at row " + std::to_string(reading.row) +
                               ", column " + std::to_string(reading.column) + ", as " + file + " does");
    }
    writePage(output, layout, rowsOf(measured.data.readings, measured.data.condition));
}

} // namespace tablectl
