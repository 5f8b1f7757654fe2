#include "Measurement.h"

#include <algorithm>

using namespace VellService;

namespace {

template <typename T>
std::string describeList(const std::vector<Ref<T>>& list) {
    std::string text = "(";
    for (const auto& element : list)
        text += (text.size() > 1 ? ", " : "") + element->description();
    return text + ")";
}

template <typename T>
int compareLists(const std::vector<Ref<T>>& left, const std::vector<Ref<T>>& right) {
    for (std::size_t i = 0; i < std::min(left.size(), right.size()); ++i) {
        const int result = compareObjects(left[i].get(), right[i].get());
        if (result != 0)
            return result;
    }
    return (left.size() > right.size()) - (left.size() < right.size());
}

template <typename T>
std::vector<Ref<T>> duplicateList(const std::vector<Ref<T>>& list) {
    std::vector<Ref<T>> copy;
    copy.reserve(list.size());
    for (const auto& element : list)
        copy.push_back(duplicateOf(element.get()));
    return copy;
}

std::string describeTexts(const TextList& texts) {
    std::string text = "(";
    for (std::size_t i = 0; i < texts.size(); ++i)
        text.append(i > 0 ? ", " : "").append(texts[i]);
    return text + ")";
}

int compareTexts(const TextList& left, const TextList& right) {
    for (std::size_t i = 0; i < std::min(left.size(), right.size()); ++i) {
        const int result = left[i].compare(right[i]);
        if (result != 0)
            return result < 0 ? -1 : 1;
    }
    return (left.size() > right.size()) - (left.size() < right.size());
}

// Null beyond the end.
template <typename T>
T* elementAt(const std::vector<Ref<T>>& list, unsigned index) {
    return index < list.size() ? list[index].get() : nullptr;
}

} // namespace

// --- Lists of texts

void TextList::reserve(std::size_t count, std::size_t bytes) {
    mEnds.reserve(count);
    mBytes.reserve(bytes);
}

void TextList::add(std::string_view text) {
    addWith([&](std::string& bytes) { bytes += text; });
}

void TextList::clear() {
    mBytes.clear();
    mEnds.clear();
}

// --- Colours

const __VellMeasurementColor::Attribute* __VellMeasurementColor::attribute(std::string_view key) const {
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [&](const Attribute& candidate) { return candidate.key->text == key; });
    return found != attributes.end() ? &*found : nullptr;
}

void __VellMeasurementColor::setAttribute(__VellString* key, __VellString* value) {
    const auto found = std::find_if(attributes.begin(), attributes.end(), [&](const Attribute& candidate) {
        return candidate.key->text == key->text;
    });
    if (found == attributes.end())
        attributes.push_back({Ref(key), Ref(value)});
    else
        found->value = Ref(value);
}

std::string __VellMeasurementColor::description() const {
    return textOf(colorSpace.get()) + " " + describeTexts(values);
}

int __VellMeasurementColor::compareTo(const Object& other) const {
    const auto& color = static_cast<const __VellMeasurementColor&>(other);
    const int spaces = compareObjects(colorSpace.get(), color.colorSpace.get());
    if (spaces != 0)
        return spaces;
    const int lists = compareTexts(values, color.values);
    if (lists != 0)
        return lists;
    for (std::size_t i = 0; i < std::min(attributes.size(), color.attributes.size()); ++i) {
        const int keys = compareObjects(attributes[i].key.get(), color.attributes[i].key.get());
        if (keys != 0)
            return keys;
        const int texts = compareObjects(attributes[i].value.get(), color.attributes[i].value.get());
        if (texts != 0)
            return texts;
    }
    return (attributes.size() > color.attributes.size()) - (attributes.size() < color.attributes.size());
}

Object* __VellMeasurementColor::duplicate() {
    auto* copy = new __VellMeasurementColor;
    copy->colorSpace = colorSpace;
    copy->values = values;
    copy->attributes = attributes;
    return copy;
}

VellMeasurementColorRef VellMeasurementColorCreate() {
    return new __VellMeasurementColor;
}

VellStringRef VellMeasurementColorGetColorSpace(VellMeasurementColorRef color) {
    return color ? color->colorSpace.get() : nullptr;
}

void VellMeasurementColorSetColorSpace(VellMeasurementColorRef color, VellStringRef space) {
    if (color)
        color->colorSpace = Ref(space);
}

VellStringRef VellMeasurementColorGetAttribute(VellMeasurementColorRef color, VellStringRef key) {
    const auto* attribute = color && key ? color->attribute(key->text) : nullptr;
    return attribute ? attribute->value.get() : nullptr;
}

void VellMeasurementColorSetAttribute(VellMeasurementColorRef color, VellStringRef key, VellStringRef value) {
    if (color && key && value)
        color->setAttribute(key, value);
}

unsigned VellMeasurementColorGetAttributeCount(VellMeasurementColorRef color) {
    return color ? static_cast<unsigned>(color->attributes.size()) : 0;
}

VellStringRef VellMeasurementColorGetAttributeNameAtIndex(VellMeasurementColorRef color, unsigned index) {
    return color && index < color->attributes.size() ? color->attributes[index].key.get() : nullptr;
}

void VellMeasurementColorSetValues(VellMeasurementColorRef color, VellArrayRef values) {
    if (!color || !values)
        return;
    std::size_t bytes = 0;
    for (const auto& value : values->values)
        bytes += textOf(as<__VellString>(value.get())).size();
    color->values.clear();
    color->values.reserve(values->values.size(), bytes);
    for (const auto& value : values->values) {
        if (const auto* string = as<__VellString>(value.get()))
            color->values.add(string->text);
    }
}

VellArrayRef VellMeasurementColorCopyValues(VellMeasurementColorRef color) {
    if (!color)
        return nullptr;
    auto* array = new __VellArray;
    array->values.reserve(color->values.size());
    for (std::size_t i = 0; i < color->values.size(); ++i)
        array->values.push_back(Ref<Object>::adopt(new __VellString(std::string(color->values[i]))));
    return array;
}

// --- Measurements

std::string __VellMeasurement::description() const {
    return textOf(mode.get()) + " " + describeList(colors);
}

int __VellMeasurement::compareTo(const Object& other) const {
    const auto& measurement = static_cast<const __VellMeasurement&>(other);
    const int modes = compareObjects(mode.get(), measurement.mode.get());
    return modes != 0 ? modes : compareLists(colors, measurement.colors);
}

Object* __VellMeasurement::duplicate() {
    auto* copy = new __VellMeasurement;
    copy->mode = mode;
    copy->colors = duplicateList(colors);
    return copy;
}

VellMeasurementRef VellMeasurementCreate() {
    return new __VellMeasurement;
}

VellStringRef VellMeasurementGetMode(VellMeasurementRef measurement) {
    return measurement ? measurement->mode.get() : nullptr;
}

void VellMeasurementSetMode(VellMeasurementRef measurement, VellStringRef mode) {
    if (measurement)
        measurement->mode = Ref(mode);
}

void VellMeasurementAddColor(VellMeasurementRef measurement, VellMeasurementColorRef color) {
    if (measurement && color)
        measurement->colors.emplace_back(color);
}

unsigned VellMeasurementGetColorCount(VellMeasurementRef measurement) {
    return measurement ? static_cast<unsigned>(measurement->colors.size()) : 0;
}

VellMeasurementColorRef VellMeasurementGetColorAtIndex(VellMeasurementRef measurement, unsigned index) {
    return measurement ? elementAt(measurement->colors, index) : nullptr;
}

VellMeasurementColorRef VellMeasurementGetColorForColorSpace(VellMeasurementRef measurement,
                                                             VellStringRef space) {
    if (!measurement || !space)
        return nullptr;
    const auto found =
        std::find_if(measurement->colors.begin(), measurement->colors.end(), [&](const auto& color) {
            return color->colorSpace && color->colorSpace->text == space->text;
        });
    return found != measurement->colors.end() ? found->get() : nullptr;
}

// --- Measurement sets

std::string __VellMeasurementSet::description() const {
    return describeList(measurements);
}

int __VellMeasurementSet::compareTo(const Object& other) const {
    return compareLists(measurements, static_cast<const __VellMeasurementSet&>(other).measurements);
}

Object* __VellMeasurementSet::duplicate() {
    auto* copy = new __VellMeasurementSet;
    copy->measurements = duplicateList(measurements);
    return copy;
}

VellMeasurementSetRef VellMeasurementSetCreate() {
    return new __VellMeasurementSet;
}

void VellMeasurementSetAddMeasurement(VellMeasurementSetRef set, VellMeasurementRef measurement) {
    if (set && measurement)
        set->measurements.emplace_back(measurement);
}

unsigned VellMeasurementSetGetCount(VellMeasurementSetRef set) {
    return set ? static_cast<unsigned>(set->measurements.size()) : 0;
}

VellMeasurementRef VellMeasurementSetGetMeasurementAtIndex(VellMeasurementSetRef set, unsigned index) {
    return set ? elementAt(set->measurements, index) : nullptr;
}
