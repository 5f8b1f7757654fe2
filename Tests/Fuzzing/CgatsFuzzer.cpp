// Chart layouts and measurement files as somebody else wrote them.
#include "Fuzzing.h"

#include <Color/MeasurementFile.h>

#include <cmath>
#include <string_view>

namespace {

void readAsLayout(std::string_view text) {
    const Color::ChartLayout layout = Color::parseChartLayout(text, "fuzz");
    fuzzing::require(layout.rows > 0 && layout.columns > 0, "a chart has cells");
    fuzzing::require(layout.lastRowColumns >= 0 && layout.lastRowColumns <= layout.columns,
                     "the last row is no longer than the others");
    for (const Color::Patch& patch : layout.patches) {
        fuzzing::require(layout.patchAt(patch.row, patch.column) == &patch, "each patch is in its cell");
        for (const double value : patch.reflectance)
            fuzzing::require(std::isfinite(value), "a reflectance is a number");
    }
}

void readAsMeasurements(std::string_view text) {
    for (const Color::Reading& reading : Color::parseMeasurements(text, "fuzz").readings) {
        fuzzing::require(reading.row >= 0 && reading.column >= 0 && reading.spotIndex >= 0,
                         "a reading belongs to a cell");
        for (const float value : reading.spectrum)
            fuzzing::require(std::isfinite(value), "a reading is a number");
    }
}

template <typename Reader>
void readOrRefuse(Reader reader, std::string_view text) {
    try {
        reader(text);
    } catch (const Color::CgatsError& refusal) {
        fuzzing::require(!refusal.reason().empty(), "a refusal has a reason");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    readOrRefuse(readAsLayout, text);
    readOrRefuse(readAsMeasurements, text);
    return 0;
}
