// The plain values: strings, numbers, data, arrays and dictionaries.
#pragma once

#include "Object.h"

#include <cstdint>
#include <unordered_map>
#include <variant>
#include <vector>

// Immutable.
struct __VellString final : VellService::Object {
    static constexpr const char* kTypeName = "VellStringRef";

    explicit __VellString(std::string value);

    std::string description() const override { return text; }
    int compareTo(const Object& other) const override;
    Object* duplicate() override { return new __VellString(text); }

    const std::string text; // holds no null byte
};

// Immutable.
struct __VellNumber final : VellService::Object {
    static constexpr const char* kTypeName = "VellNumberRef";
    using Value = std::variant<bool, std::int64_t, double>;

    explicit __VellNumber(Value number) : Object(kTypeName), value(number) {}

    std::int64_t integerValue() const; // truncated and saturated
    double doubleValue() const;
    std::string description() const override;
    int compareTo(const Object& other) const override; // by value, whatever the kind
    Object* duplicate() override { return new __VellNumber(value); }

    const Value value;
};

struct __VellData final : VellService::Object {
    static constexpr const char* kTypeName = "VellDataRef";

    explicit __VellData(std::string contents) : Object(kTypeName), bytes(std::move(contents)) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override { return new __VellData(bytes); }

    std::string bytes;
};

struct __VellArray final : VellService::Object {
    static constexpr const char* kTypeName = "VellArrayRef";

    __VellArray() : Object(kTypeName) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

    std::vector<VellService::Ref<VellService::Object>> values;
};

// Keeps the order in which keys were first set.
struct __VellDictionary final : VellService::Object {
    static constexpr const char* kTypeName = "VellDictionaryRef";
    struct Entry {
        VellService::Ref<__VellString> key;
        VellService::Ref<VellService::Object> value;
    };

    __VellDictionary() : Object(kTypeName) {}

    void set(__VellString* key, VellService::Ref<VellService::Object> value);
    void remove(std::string_view key);
    VellService::Object* get(std::string_view key) const;
    const std::vector<Entry>& entries() const { return mEntries; }

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

private:
    std::vector<Entry> mEntries;
    std::unordered_map<std::string_view, std::size_t> mIndex; // the views are of the entries' keys
};

namespace VellService {

// The string's text; "" for null.
inline const std::string& textOf(const __VellString* string) {
    static const std::string& empty = *new std::string;
    return string ? string->text : empty;
}

inline Ref<__VellString> makeString(std::string text) {
    return Ref<__VellString>::adopt(new __VellString(std::move(text)));
}

// Letters are those of ASCII, as VellStringCompare ignores the case of with option 1.
bool equalIgnoringCase(std::string_view left, std::string_view right);
std::string inLowerCase(std::string text);

} // namespace VellService
