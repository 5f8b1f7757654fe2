// Measurement sets: a set holds measurements, a measurement colours, a colour its values and attributes.
#pragma once

#include "Values.h"

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
    std::vector<VellService::Ref<__VellString>> values;
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
