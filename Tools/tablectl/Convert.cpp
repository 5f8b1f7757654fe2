// Measurements in the forms that other programs take.
#include "Commands.h"
#include "Cxf.h"
#include "Errors.h"
#include "Files.h"
#include "Measured.h"

#include <Base/Number.h>
#include <Color/Average.h>

#include <algorithm>

namespace tablectl {

namespace {

// A cell of a table. A text that a spreadsheet would compute gets an apostrophe before it.
std::string cellText(const std::string& text) {
    const bool isFormula = !text.empty() &&
                           std::string_view("=+-@").find(text[0]) != std::string_view::npos &&
                           !Base::parseFinite<double>(text);
    const std::string guarded = (isFormula ? "'" : "") + text;
    if (guarded.find_first_of("\",\r\n") == guarded.npos)
        return guarded;
    std::string quoted = "\"";
    for (const char c : guarded)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

std::string csvText(const Color::Measurements& data) {
    std::string text = "SAMPLE_ID,ROW,COLUMN,SPOT_INDEX";
    for (const std::string& name : data.fieldNames)
        text += "," + cellText(name);
    text += ",LAB_L,LAB_A,LAB_B";
    for (std::size_t band = 0; data.hasSpectra && band < Color::kBands; ++band)
        text += ",SPECTRAL_NM" +
                std::to_string(Color::kFirstWavelength + Color::kWavelengthStep * static_cast<int>(band));
    text += "\n";
    for (const Color::Reading& reading : data.readings) {
        text += cellText(reading.sampleId) + "," + numberText(reading.row) + "," +
                numberText(reading.column) + "," + numberText(reading.spotIndex);
        for (const Color::Value& value : reading.values)
            text += "," + cellText(value.text);
        for (const float value : reading.lab)
            text += "," + numberText(value);
        for (std::size_t band = 0; data.hasSpectra && band < Color::kBands; ++band)
            text += "," + numberText(reading.spectrum[band]);
        text += "\n";
    }
    return text;
}

} // namespace

void commands::convert(Context&, const std::string& file, const std::string& output) {
    if (isSameFile(file, output))
        throw UsageFailure(output + ": would replace what it is made of");
    std::string kind = std::filesystem::path(output).extension().string();
    std::transform(kind.begin(), kind.end(), kind.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    if (kind != ".cxf" && kind != ".csv" && kind != ".txt")
        throw UsageFailure(output + ": the name must end in .cxf, .csv or .txt");
    const Measured measured = readMeasured(file);
    if (kind == ".csv")
        replaceFile(output, csvText(measured.data));
    else if (kind == ".txt")
        replaceFile(output, measurementText(layoutOf(measured), headerOf(measured), measured.data.readings));
    else
        replaceFile(output, cxfText(measured));
}

} // namespace tablectl
