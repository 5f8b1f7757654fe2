// Measurement sets: a set holds measurements, a measurement colours, a colour its values and attributes.
#pragma once

#include "Values.h"

#include <string_view>

namespace VellService {

// Texts one behind the other in one piece of memory: a colour has dozens of short values, a row of a chart
// thousands.
class TextList {
public:
    void reserve(std::size_t count, std::size_t bytes);
    void add(std::string_view text);
    // Adds what `append(std::string&)` appends.
    template <typename Append>
    void addWith(Append append) {
        append(mBytes);
        mEnds.push_back(static_cast<std::uint32_t>(mBytes.size()));
    }
    void clear();

    std::size_t size() const { return mEnds.size(); }
    std::string_view operator[](std::size_t index) const {
        const std::size_t begin = index == 0 ? 0 : mEnds[index - 1];
        return std::string_view(mBytes).substr(begin, mEnds[index] - begin);
    }

private:
    std::string mBytes;
    std::vector<std::uint32_t> mEnds;
};

} // namespace VellService

struct __VellMeasurementColor final : VellService::Object {
    static constexpr const char* kTypeName = "VellMeasurementColorRef";
    struct Attribute {
        VellService::Ref<__VellString> key;
        VellService::Ref<__VellString> value;
    };

    __VellMeasurementColor() : Object(kTypeName) {}

    const Attribute* attribute(std::string_view key) const;
    void setAttribute(__VellString* key, __VellString* value);

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

    VellService::Ref<__VellString> colorSpace;
    VellService::TextList values;
    std::vector<Attribute> attributes;
};

struct __VellMeasurement final : VellService::Object {
    static constexpr const char* kTypeName = "VellMeasurementRef";

    __VellMeasurement() : Object(kTypeName) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

    VellService::Ref<__VellString> mode;
    std::vector<VellService::Ref<__VellMeasurementColor>> colors;
};

struct __VellMeasurementSet final : VellService::Object {
    static constexpr const char* kTypeName = "VellMeasurementSetRef";

    __VellMeasurementSet() : Object(kTypeName) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

    std::vector<VellService::Ref<__VellMeasurement>> measurements;
};
