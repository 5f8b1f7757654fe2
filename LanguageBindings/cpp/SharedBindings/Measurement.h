#pragma once

#include "ColorRepresentation.h"

extern "C" {
// The names of the ways to measure, exported by the plug-in for the service.
extern const char* MeasurementModeUnknown;
extern const char* MeasurementModeReflective;
extern const char* MeasurementModeEmissive;
extern const char* MeasurementModeAmbient;
extern const char* MeasurementModeOBC;
}

namespace VellDevice {

// One measured patch: how it was measured, and its colour in one representation or several.
class Measurement : public Object {
public:
    Measurement();
    Measurement(void* measurement, bool adopt) : Object(measurement, adopt) {}

    const char* mode() const;
    void setMode(const std::string& mode);
    // Representations keep the order in which they are added.
    void addColorRepresentation(const ColorRepresentation& representation);
    unsigned int numberOfColorRepresentations() const;
    // A wrapper of null where there is none.
    void colorRepresentationAtIndex(unsigned int index, ColorRepresentation& out) const;
    void colorRepsentationForColorSpace(const std::string& colorSpace, ColorRepresentation& out) const;
};

} // namespace VellDevice
