// From the instrument's samples to a measurement set.

#include "Numbers.h"
#include "TaviIO.h"

#include <algorithm>

using namespace VellDevice;

namespace {

constexpr int kBands = 36;
constexpr const char* kSpectralRange = "380,730"; // nm
constexpr int kWrongNumberOfSamples = 7;          // an SDK status

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
    const SDKLock lock(*this);
    float buffer[kBands] = {};
    const int status = Tavi_GetSpectrum(buffer, index);
    logIfError("Tavi_GetSpectrum", status);
    if (status == 0)
        spectrum.insert(spectrum.end(), buffer, buffer + kBands);
    return status;
}

int TaviIO::getMeasurementData(int count, Readings& spectra, Readings& lab) {
    const SDKLock lock(*this);
    const int available = Tavi_GetNumberOfAvailableSamples();
    if (available != count) {
        VellLogError("TaviIODeviceService::getMeasurementData - looking for %d cols but only got %d\n", count,
                     available);
        return kWrongNumberOfSamples;
    }
    for (int index = 0; index < count; ++index) {
        std::vector<double> spectrum;
        if (const int status = getSpectrum(index, spectrum))
            return status;
        spectra.push_back(std::move(spectrum));
        setColorimetry();
        float triple[3] = {};
        logIfError("Tavi_GetTriStimulus", Tavi_GetTriStimulus(triple, index));
        lab.emplace_back(triple, triple + 3); // also when it failed: the reading counts
    }
    return 0;
}

// What the tristimulus values of samples are to be. Results are not looked at.
void TaviIO::setColorimetry() {
    const SDKLock lock(*this);
    Tavi_SetOption("ColorSpaceDescription.Type", "CIELab");
    Tavi_SetOption("Colorimetric.Illumination", "D50");
    Tavi_SetOption("Colorimetric.Observer", "TwoDegree");
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
    const SDKLock lock(*this);
    VellLogInfo("[TaviIO] - measureOneStrip IN\n");
    int status = reversed ? Tavi_Scan(x1, y1, x0, y0) : Tavi_Scan(x0, y0, x1, y1);
    logIfError("Tavi_Scan", status);
    if (status == 0)
        status = getMeasurementData(columns, spectra, lab);
    VellLogInfo("[TaviIO] - measureOneStrip OUT err=%d\n", status);
    return status;
}
