#include "ColorRepresentation.h"

#include <algorithm>

namespace VellDevice {

ColorRepresentation::ColorRepresentation() : Object(false) {
    keep(VellMeasurementColorCreate());
}

const char* ColorRepresentation::colorSpace() const {
    return textOf(VellMeasurementColorGetColorSpace(as<VellMeasurementColorRef>()));
}

void ColorRepresentation::setColorSpace(const std::string& colorSpace) {
    VellMeasurementColorSetColorSpace(as<VellMeasurementColorRef>(), ServiceString(colorSpace));
}

const char* ColorRepresentation::attributeForKey(const std::string& key) const {
    return textOf(VellMeasurementColorGetAttribute(as<VellMeasurementColorRef>(), ServiceString(key)));
}

void ColorRepresentation::setAttributeForKey(const std::string& value, const std::string& key) {
    VellMeasurementColorSetAttribute(as<VellMeasurementColorRef>(), ServiceString(key), ServiceString(value));
}

unsigned int ColorRepresentation::numberOfAttributes() const {
    return VellMeasurementColorGetAttributeCount(as<VellMeasurementColorRef>());
}

const char* ColorRepresentation::attributeNameAtIndex(unsigned int index) const {
    return textOf(VellMeasurementColorGetAttributeNameAtIndex(as<VellMeasurementColorRef>(), index));
}

void ColorRepresentation::values(std::vector<double>& out) const {
    const VellArrayRef strings = VellMeasurementColorCopyValues(as<VellMeasurementColorRef>());
    const int count = VellArrayGetCount(strings);
    for (int index = 0; index < count; ++index)
        out.push_back(
            VellStringGetDoubleValue(static_cast<VellStringRef>(VellArrayGetValueAtIndex(strings, index))));
    VellRelease(strings);
}

void ColorRepresentation::setValues(const std::vector<double>& values) {
    const VellArrayRef strings = VellArrayCreate();
    if (strings == nullptr)
        return;
    for (const double value : values) {
        const VellStringRef string = VellStringCreateWithDouble(value);
        VellArrayAppendValue(strings, string);
        VellRelease(string);
    }
    VellMeasurementColorSetValues(as<VellMeasurementColorRef>(), strings);
    VellRelease(strings);
}

void ColorRepresentation::setValues(const std::vector<float>& values) {
    setValues(std::vector<double>(values.begin(), values.end()));
}

void ColorRepresentation::setValues(const double* values, int count) {
    setValues(std::vector<double>(values, values + std::max(count, 0)));
}

void ColorRepresentation::setValues(const float* values, int count) {
    setValues(std::vector<double>(values, values + std::max(count, 0)));
}

} // namespace VellDevice
