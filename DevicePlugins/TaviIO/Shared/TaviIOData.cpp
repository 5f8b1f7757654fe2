// From the instrument's samples to a measurement set.

#include "InstrumentStatus.h"
#include "Numbers.h"
#include "TaviIO.h"

#include <algorithm>

using namespace VellDevice;

namespace {

constexpr const char* kSpectralRange = "380,730"; // nm

// Where a reading belongs, and how it was lit: what both of its representations say.
struct ReadingLabels {
    std::string row;
    std::string column;
    std::string spotIndex;
    std::string illuminationMode;

    void addTo(ColorRepresentation& representation) const {
        representation.setAttributeForKey(row, "Row");
        representation.setAttributeForKey(column, "Column");
        representation.setAttributeForKey(spotIndex, "SpotIndex");
        representation.setAttributeForKey(illuminationMode, "IlluminationMode");
        representation.setAttributeForKey(illuminationMode == "0" ? "M2" : "M0", "Illumination");
    }
};

ColorRepresentation spectralRepresentation(const std::vector<double>& spectrum, const ReadingLabels& labels) {
    ColorRepresentation representation;
    representation.setColorSpace(ColorSpaceSpectral);
    representation.setValues(spectrum);
    representation.setAttributeForKey(kSpectralRange, ColorRepresentationSpectralRange);
    labels.addTo(representation);
    return representation;
}

ColorRepresentation labRepresentation(const std::vector<double>& lab, const ReadingLabels& labels) {
    ColorRepresentation representation;
    representation.setColorSpace(ColorSpaceLab);
    representation.setValues(lab);
    labels.addTo(representation);
    representation.setAttributeForKey("2", "Obs");
    representation.setAttributeForKey("D50", "Ill");
    return representation;
}

} // namespace

int TaviIO::getSpectrum(int index, std::vector<double>& spectrum) {
    const auto instrument = mInstrument.hold(); // the text of a failure is its own
    return instrument->getSpectrum(index, spectrum);
}

int TaviIO::getMeasurementData(int count, Readings& spectra, Readings& lab) {
    const auto instrument = mInstrument.hold();
    const int available = instrument->numberOfAvailableSamples();
    if (available != count) {
        VellLogError("TaviIODeviceService::getMeasurementData - looking for %d cols but only got %d\n", count,
                     available);
        return InstrumentStatus::kWrongNumberOfSamples;
    }
    for (int index = 0; index < count; ++index) {
        std::vector<double> spectrum;
        if (const int status = getSpectrum(index, spectrum))
            return status;
        spectra.push_back(std::move(spectrum));
        instrument->setColorimetry();
        std::vector<double> values;
        instrument->getTriStimulus(index, values);
        lab.push_back(std::move(values)); // also when it failed: the reading counts
    }
    return InstrumentStatus::kDone;
}

void TaviIO::formatMeasurements(Readings& spectra, Readings& lab, MutableResponse& response, int firstRow,
                                int firstColumn, int columnsPerRow, bool reversed, int spotsPerPatch) {
    MutableMeasurementSet set;
    const auto spots = static_cast<std::size_t>(std::max(spotsPerPatch, 1));
    const std::size_t patchCount = std::min(spectra.size(), lab.size()) / spots;
    std::string illuminationMode;
    getIlluminationMode(illuminationMode);
    int row = firstRow;
    int counter = 0;
    for (std::size_t visited = 0; visited < patchCount; ++visited) {
        const std::size_t patch = reversed ? patchCount - 1 - visited : visited;
        Measurement measurement;
        for (std::size_t spot = 0; spot < spots; ++spot) {
            const std::size_t reading = patch * spots + spot;
            const ReadingLabels labels{TextFromInt(row), TextFromInt(firstColumn + counter),
                                       TextFromInt(static_cast<int>(spot)), illuminationMode};
            measurement.setMode(MeasurementModeReflective);
            measurement.addColorRepresentation(spectralRepresentation(spectra[reading], labels));
            measurement.addColorRepresentation(labRepresentation(lab[reading], labels));
        }
        set.addMeasurement(measurement);
        if (++counter >= columnsPerRow) {
            counter = 0;
            ++row;
        }
    }
    response.setMeasurementSet(set);
}

int TaviIO::measureOneStrip(float x0, float y0, float x1, float y1, int columns, Readings& spectra,
                            Readings& lab, bool reversed) {
    VellLogInfo("Scanning { %f, %f } to { %f, %f }\n", static_cast<double>(x0), static_cast<double>(y0),
                static_cast<double>(x1), static_cast<double>(y1));
    const auto instrument = mInstrument.hold();
    VellLogInfo("[TaviIO] - measureOneStrip IN\n");
    int status = reversed ? instrument->scan(x1, y1, x0, y0) : instrument->scan(x0, y0, x1, y1);
    if (status == InstrumentStatus::kDone)
        status = getMeasurementData(columns, spectra, lab);
    VellLogInfo("[TaviIO] - measureOneStrip OUT err=%d\n", status);
    return status;
}
