#pragma once

#include "Object.h"

#include <vector>

namespace VellDevice {

static const std::string ColorSpacePosition = "Position";
static const std::string ColorSpaceSpectral = "Spectral";
static const std::string ColorSpaceLab = "Lab";
static const std::string ColorSpacesRGB = "sRGB";
static const std::string ColorSpacesXYZ = "XYZ";
static const std::string ColorRepresentationSpectralRange = "Range";

// One colour: numbers in a colour space, and string attributes that say what they are of. The service keeps
// each number as text from which the same double is read back.
class ColorRepresentation : public Object {
public:
    ColorRepresentation();
    ColorRepresentation(void* color, bool adopt) : Object(color, adopt) {}

    const char* colorSpace() const;
    void setColorSpace(const std::string& colorSpace);
    const char* attributeForKey(const std::string& key) const;
    void setAttributeForKey(const std::string& value, const std::string& key);
    unsigned int numberOfAttributes() const;
    const char* attributeNameAtIndex(unsigned int index) const;

    // Appends to `out`.
    void values(std::vector<double>& out) const;
    // Replace all values; floats are widened.
    void setValues(const std::vector<double>& values);
    void setValues(const std::vector<float>& values);
    void setValues(const double* values, int count);
    void setValues(const float* values, int count);
};

} // namespace VellDevice
