#include "Report.h"

#include "Files.h"
#include "Output.h"

#include <Color/Colorimetry.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>

namespace tablectl {

namespace {

using Spectrum = std::array<double, Color::kBands>;

std::string jsonTexts(const std::vector<std::string>& texts) {
    std::vector<std::string> quoted;
    for (const std::string& text : texts)
        quoted.push_back(Json::quote(text));
    return "[" + join(quoted, ",") + "]";
}

std::string colorOf(const Color::Lab& lab) {
    const Color::Rgb8 rgb = Color::srgbFromLab(lab);
    char text[8];
    std::snprintf(text, sizeof text, "#%02x%02x%02x", rgb.r, rgb.g, rgb.b);
    return text;
}

// One side of a patch: what it should be, or what it was measured to be.
std::string sideJson(const Spectrum& spectrum, const Color::Lab& lab) {
    return Json()
        .addRaw("spectrum", jsonArray(spectrum))
        .addRaw("lab", jsonArray(std::array{lab.l, lab.a, lab.b}))
        .add("color", colorOf(lab))
        .text();
}

// The mean of a patch's readings.
struct Mean {
    int readings = 0;
    Spectrum spectrum{};
    Color::Lab lab;

    void add(const Color::Reading& reading) {
        // Step by step, so that the mean of equal readings is exactly theirs.
        ++readings;
        const auto blend = [this](double& mean, double value) { mean += (value - mean) / readings; };
        for (std::size_t band = 0; band < spectrum.size(); ++band)
            blend(spectrum[band], static_cast<double>(reading.spectrum[band]));
        blend(lab.l, static_cast<double>(reading.lab[0]));
        blend(lab.a, static_cast<double>(reading.lab[1]));
        blend(lab.b, static_cast<double>(reading.lab[2]));
    }
};

std::string valuesJson(const Color::Patch& patch) {
    std::vector<std::string> texts;
    for (const Color::Value& value : patch.values)
        texts.push_back(value.text);
    return jsonTexts(texts);
}

std::string patchesJson(const ReportContent& content) {
    std::map<std::pair<int, int>, Mean> means;
    for (const Row& row : content.rows) {
        for (const Color::Reading& reading : row.readings)
            means[{reading.row, reading.column}].add(reading);
    }
    std::vector<std::string> patches;
    for (const Color::Patch& patch : content.layout.patches) {
        const Color::Lab reference = Color::labFromSpectrum(patch.reflectance);
        Json json;
        json.add("id", patch.sampleId).add("row", patch.row).add("column", patch.column);
        json.addRaw("values", valuesJson(patch));
        if (content.layout.hasSpectra)
            json.addRaw("reference", sideJson(patch.reflectance, reference));
        if (const auto mean = means.find({patch.row, patch.column}); mean != means.end()) {
            json.addRaw("measured", sideJson(mean->second.spectrum, mean->second.lab))
                .add("readings", mean->second.readings);
            if (content.layout.hasSpectra)
                json.add("deltaE", Color::deltaE2000(reference, mean->second.lab));
        }
        patches.push_back(json.text());
    }
    return "[" + join(patches, ",") + "]";
}

// The grid on the table: where its first patch lies, and the steps from patch to patch. The cells of a single
// row or column are square.
std::string chartJson(const Color::ChartLayout& layout) {
    const auto step = [](const Color::Point& from, const Color::Point& to, int count) {
        const double divisor = std::max(count - 1, 1);
        return Color::Point{(to.x - from.x) / divisor, (to.y - from.y) / divisor};
    };
    Color::Point across = step(layout.bottomLeft, layout.bottomRight, layout.columns);
    Color::Point down = step(layout.topLeft, layout.bottomLeft, layout.rows);
    if (layout.rows == 1 && layout.columns == 1)
        across = {10, 0};
    else if (layout.columns == 1)
        across = {down.y, -down.x};
    if (layout.rows == 1)
        down = {-across.y, across.x};
    const auto pointJson = [](const Color::Point& point) { return jsonArray(std::array{point.x, point.y}); };
    return Json()
        .addRaw("topLeft", pointJson(layout.topLeft))
        .addRaw("across", pointJson(across))
        .addRaw("down", pointJson(down))
        .text();
}

std::string now() {
    const std::time_t time = std::time(nullptr);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", std::localtime(&time));
    return text;
}

std::string spotsText(const ReportContent& content) {
    if (content.spotsWereAskedFor && content.rows.empty())
        return "all, as asked";
    if (content.spotsWereAskedFor)
        return "all, as asked: " + std::to_string(content.rows.front().readings.back().spotIndex + 1) +
               " for each patch";
    std::vector<std::string> rows;
    for (const int row : content.spotRows)
        rows.push_back(std::to_string(row));
    if (!content.spotRowsAreKnown)
        rows.push_back(rows.empty() ? "not known" : "others not known");
    return rows.empty() ? "none" : join(rows, ", ");
}

// A scan that is repeated has each of them several times.
std::size_t rowsIn(const ReportContent& content) {
    std::set<int> rows;
    for (const Row& row : content.rows)
        rows.insert(row.row);
    return rows.size();
}

std::string conditionsJson(const ReportContent& content) {
    TextTable conditions = {{"Illuminant, observer", "D50, 2 degrees"}};
    if (!content.rows.empty()) {
        const bool withoutUltraviolet = content.rows.front().condition == Color::MeasurementCondition::M2;
        conditions.emplace_back("Measurement condition", withoutUltraviolet ? "M2" : "M0");
    }
    const TextTable course = {
        {"Rows measured", std::to_string(rowsIn(content)) + " of " + std::to_string(content.layout.rows)},
        {"Rows read by spots", spotsText(content)}};
    conditions.insert(conditions.end(), course.begin(), course.end());
    if (!content.failure.empty())
        conditions.emplace_back("Ended early", content.failure);
    if (!content.misplacement.empty() && content.failure != content.misplacement)
        conditions.emplace_back("Warning", content.misplacement);
    if (content.device) {
        conditions.emplace_back("Table", content.device->displayName + " " + content.device->serialNumber);
        conditions.emplace_back("Spectrophotometer", content.device->attribute("TaviProSerialNumber"));
        conditions.emplace_back("Device path", content.device->path);
        conditions.emplace_back("Low resolution", content.device->attribute("LowResolutionScan"));
    }
    std::vector<std::string> pairs;
    for (const auto& [name, value] : conditions)
        pairs.push_back(jsonTexts({name, value}));
    return "[" + join(pairs, ",") + "]";
}

std::string countText(int count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t") == text.npos;
}

std::string dataJson(const ReportContent& content) {
    const Color::ChartLayout& layout = content.layout;
    std::string json = Json()
                           .add("title", isBlank(layout.descriptor) ? "Chart measurement" : layout.descriptor)
                           .add("subtitle", now() + ", " + countText(layout.rows, "row") + " by " +
                                                countText(layout.columns, "column"))
                           .add("isRunning", content.isRunning)
                           .add("written", static_cast<long>(std::time(nullptr)))
                           .addRaw("chart", chartJson(layout))
                           .addRaw("conditions", conditionsJson(content))
                           .addRaw("warnings", jsonTexts(content.warnings))
                           .add("hasReference", layout.hasSpectra)
                           .addRaw("fields", jsonTexts(layout.fieldNames))
                           .addRaw("patches", patchesJson(content))
                           .text();
    // Nothing in the data may end the script element that holds it.
    for (std::size_t at = 0; (at = json.find('<', at)) != std::string::npos; at += 6)
        json.replace(at, 1, "\\u003c");
    return json;
}

} // namespace

void writeReport(const std::string& file, const ReportContent& content) {
    static const std::string kMark = "@DATA@";
    std::string page = kReportPage;
    page.replace(page.find(kMark), kMark.size(), dataJson(content));
    replaceFile(file, page);
}

} // namespace tablectl
