#include "Measurement.h"

extern "C" {
const char* MeasurementModeUnknown = "Unknown";
const char* MeasurementModeReflective = "Reflective";
const char* MeasurementModeEmissive = "Emissive";
const char* MeasurementModeAmbient = "Ambient";
const char* MeasurementModeOBC = "OBC";
}

namespace VellDevice {

Measurement::Measurement() : Object(false) {
    keep(VellMeasurementCreate());
}

const char* Measurement::mode() const {
    return textOf(VellMeasurementGetMode(as<VellMeasurementRef>()));
}

void Measurement::setMode(const std::string& mode) {
    VellMeasurementSetMode(as<VellMeasurementRef>(), ServiceString(mode));
}

void Measurement::addColorRepresentation(const ColorRepresentation& representation) {
    VellMeasurementAddColor(as<VellMeasurementRef>(),
                            static_cast<VellMeasurementColorRef>(representation.objectPointer()));
}

unsigned int Measurement::numberOfColorRepresentations() const {
    return VellMeasurementGetColorCount(as<VellMeasurementRef>());
}

void Measurement::colorRepresentationAtIndex(unsigned int index, ColorRepresentation& out) const {
    out = ColorRepresentation(VellMeasurementGetColorAtIndex(as<VellMeasurementRef>(), index), false);
}

void Measurement::colorRepsentationForColorSpace(const std::string& colorSpace,
                                                 ColorRepresentation& out) const {
    out = ColorRepresentation(
        VellMeasurementGetColorForColorSpace(as<VellMeasurementRef>(), ServiceString(colorSpace)), false);
}

} // namespace VellDevice
