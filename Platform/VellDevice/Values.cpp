#include "Values.h"

#include <Base/File.h>
#include <Base/Mutex.h>
#include <Base/Number.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

using namespace VellService;

namespace {

int sign(std::int64_t value) {
    return value < 0 ? -1 : value > 0;
}

int compareText(std::string_view left, std::string_view right) {
    return sign(left.compare(right));
}

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

// Texts are C strings to everybody else, so what lies behind a null byte is no part of them.
std::string upToNull(std::string&& text) {
    if (text.find('\0') != std::string::npos)
        text.resize(std::strlen(text.c_str()));
    return std::move(text);
}

std::string shortestText(double value) {
    if (std::isnan(value))
        return "nan";
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return {text, result.ptr};
}

// As strtod reads it, but in every locale with a point.
double leadingNumber(const char* text) {
    while (std::isspace(static_cast<unsigned char>(*text)))
        ++text;
    if (*text == '+')
        ++text;
    double value = 0;
    const auto result = std::from_chars(text, text + std::strlen(text), value);
    if (result.ec == std::errc::result_out_of_range)
        return std::strtod(text, nullptr);
    return result.ec == std::errc() ? value : 0;
}

// Null when the file cannot be read whole.
VellDataRef dataOfFile(VellStringRef path) {
    if (!path)
        return nullptr;
    constexpr std::size_t limit = std::numeric_limits<int>::max();
    Base::FileContents file = Base::readFile(path->text, limit);
    return file ? new __VellData(std::move(file.bytes)) : nullptr;
}

} // namespace

bool VellService::equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char l, char r) { return lower(l) == lower(r); });
}

std::string VellService::inLowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), lower);
    return text;
}

// --- Strings

__VellString::__VellString(std::string value) : Object(kTypeName), text(upToNull(std::move(value))) {}

int __VellString::compareTo(const Object& other) const {
    return compareText(text, static_cast<const __VellString&>(other).text);
}

VellStringRef VellStringCreateWithCString(const char* text) {
    return text ? new __VellString(text) : nullptr;
}

VellStringRef VellStringCreateWithCStringUsingEncoding(const char* text, int) {
    return VellStringCreateWithCString(text);
}

VellStringRef VellConstStringCreateWithCString(const char* text) {
    // Never destroyed: threads may outlive the static objects.
    struct Table {
        Base::Mutex mutex;
        std::unordered_map<std::string, VellStringRef> strings GUARDED_BY(mutex);
    };
    static Table& table = *new Table;
    if (!text)
        return nullptr;
    const Base::Lock lock(table.mutex);
    VellStringRef& string = table.strings[text];
    if (!string) {
        string = new __VellString(text);
        string->makeImmortal();
    }
    return string;
}

VellStringRef VellStringCreateWithDouble(double value) {
    return new __VellString(shortestText(value));
}

const char* VellStringGetCString(VellStringRef string) {
    return string ? string->text.c_str() : nullptr;
}

long VellStringGetLength(VellStringRef string) {
    return static_cast<long>(textOf(string).size());
}

double VellStringGetDoubleValue(VellStringRef string) {
    return leadingNumber(textOf(string).c_str());
}

int VellStringCompare(VellStringRef left, VellStringRef right, int options) {
    if (!left || !right)
        return (left ? 1 : 0) - (right ? 1 : 0);
    if (options != 1)
        return compareText(left->text, right->text);
    return compareText(inLowerCase(left->text), inLowerCase(right->text));
}

// --- Numbers

std::int64_t __VellNumber::integerValue() const {
    if (const double* real = std::get_if<double>(&value))
        return Base::saturated(*real);
    if (const std::int64_t* integer = std::get_if<std::int64_t>(&value))
        return *integer;
    return std::get<bool>(value) ? 1 : 0;
}

double __VellNumber::doubleValue() const {
    const double* real = std::get_if<double>(&value);
    return real ? *real : static_cast<double>(integerValue());
}

std::string __VellNumber::description() const {
    if (const double* real = std::get_if<double>(&value))
        return shortestText(*real);
    if (const bool* flag = std::get_if<bool>(&value))
        return *flag ? "true" : "false";
    return std::to_string(std::get<std::int64_t>(value));
}

int __VellNumber::compareTo(const Object& other) const {
    const auto& number = static_cast<const __VellNumber&>(other);
    const bool bothIntegers =
        !std::holds_alternative<double>(value) && !std::holds_alternative<double>(number.value);
    if (bothIntegers)
        return (integerValue() > number.integerValue()) - (integerValue() < number.integerValue());
    // Wide enough for every value of both kinds. What is no number comes first.
    const auto widened = [](const __VellNumber& any) -> long double {
        if (const double* real = std::get_if<double>(&any.value))
            return *real;
        return static_cast<long double>(any.integerValue());
    };
    const long double left = widened(*this);
    const long double right = widened(number);
    if (std::isnan(left) || std::isnan(right))
        return std::isnan(right) - std::isnan(left);
    return (left > right) - (left < right);
}

VellNumberRef VellNumberCreateWithInteger(std::int64_t value) {
    return new __VellNumber(value);
}

VellNumberRef VellNumberCreateWithDouble(double value) {
    return new __VellNumber(value);
}

VellNumberRef VellNumberCreateWithBool(bool value) {
    return new __VellNumber(value);
}

std::int64_t VellNumberGetIntegerValue(VellNumberRef number) {
    return number ? number->integerValue() : 0;
}

double VellNumberGetDoubleValue(VellNumberRef number) {
    return number ? number->doubleValue() : 0;
}

// --- Data

std::string __VellData::description() const {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text = "<";
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += digits[value >> 4];
        text += digits[value & 15];
    }
    return text + ">";
}

int __VellData::compareTo(const Object& other) const {
    return compareText(bytes, static_cast<const __VellData&>(other).bytes);
}

VellDataRef VellDataCreateWithBytes(const void* bytes, int length) {
    if (!bytes || length < 0)
        return nullptr;
    return new __VellData({static_cast<const char*>(bytes), static_cast<std::size_t>(length)});
}

// The file is read rather than mapped: it may shrink under a mapping, which would end the process.
VellDataRef VellDataCreateWithMappedFileAtPath(VellStringRef path) {
    return dataOfFile(path);
}

VellDataRef VellDataCreateWithContentsAtPath(VellStringRef path) {
    return dataOfFile(path);
}

void* VellDataGetBytes(VellDataRef data) {
    return data ? data->bytes.data() : nullptr;
}

int VellDataGetLength(VellDataRef data) {
    return data ? static_cast<int>(data->bytes.size()) : 0;
}

void VellDataAppendBytes(VellDataRef data, const void* bytes, int length) {
    if (data && bytes && length > 0)
        data->bytes.append(static_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

// --- Arrays

std::string __VellArray::description() const {
    std::string text = "(";
    for (const auto& value : values)
        text += (text.size() > 1 ? ", " : "") + value->description();
    return text + ")";
}

int __VellArray::compareTo(const Object& other) const {
    const auto& theirs = static_cast<const __VellArray&>(other).values;
    const std::size_t common = std::min(values.size(), theirs.size());
    for (std::size_t i = 0; i < common; ++i) {
        const int result = compareObjects(values[i].get(), theirs[i].get());
        if (result != 0)
            return result;
    }
    return (values.size() > theirs.size()) - (values.size() < theirs.size());
}

Object* __VellArray::duplicate() {
    auto copy = Ref<__VellArray>::adopt(new __VellArray);
    copy->values.reserve(values.size());
    for (const auto& value : values)
        copy->values.push_back(duplicateOf(value.get()));
    return copy.leak();
}

VellArrayRef VellArrayCreate() {
    return new __VellArray;
}

void VellArrayAppendValue(VellArrayRef array, VellObjectRef value) {
    if (array && value)
        array->values.emplace_back(objectOf(value));
}

int VellArrayGetCount(VellArrayRef array) {
    return array ? static_cast<int>(array->values.size()) : 0;
}

VellObjectRef VellArrayGetValueAtIndex(VellArrayRef array, int index) {
    if (!array || index < 0 || index >= VellArrayGetCount(array))
        return nullptr;
    return array->values[static_cast<std::size_t>(index)].get();
}

// --- Dictionaries

void __VellDictionary::set(__VellString* key, Ref<Object> value) {
    const auto found = mIndex.find(key->text);
    if (found != mIndex.end()) {
        mEntries[found->second].value = std::move(value);
        return;
    }
    mEntries.push_back({Ref(key), std::move(value)});
    mIndex.emplace(key->text, mEntries.size() - 1);
}

void __VellDictionary::remove(std::string_view key) {
    const auto found = mIndex.find(key);
    if (found == mIndex.end())
        return;
    const std::size_t position = found->second;
    mIndex.erase(found);
    mEntries.erase(mEntries.begin() + static_cast<std::ptrdiff_t>(position));
    for (auto& [text, index] : mIndex) {
        if (index > position)
            --index;
    }
}

Object* __VellDictionary::get(std::string_view key) const {
    const auto found = mIndex.find(key);
    return found != mIndex.end() ? mEntries[found->second].value.get() : nullptr;
}

std::string __VellDictionary::description() const {
    std::string text = "{";
    for (const Entry& entry : mEntries)
        text += (text.size() > 1 ? ", " : "") + entry.key->text + " = " + entry.value->description();
    return text + "}";
}

int __VellDictionary::compareTo(const Object& other) const {
    // The order of the keys does not matter.
    const auto sorted = [](const __VellDictionary& dictionary) {
        std::vector<const Entry*> entries;
        entries.reserve(dictionary.mEntries.size());
        for (const Entry& entry : dictionary.mEntries)
            entries.push_back(&entry);
        std::sort(entries.begin(), entries.end(),
                  [](const Entry* left, const Entry* right) { return left->key->text < right->key->text; });
        return entries;
    };
    const auto mine = sorted(*this);
    const auto theirs = sorted(static_cast<const __VellDictionary&>(other));
    for (std::size_t i = 0; i < std::min(mine.size(), theirs.size()); ++i) {
        const int keys = compareText(mine[i]->key->text, theirs[i]->key->text);
        if (keys != 0)
            return keys;
        const int values = compareObjects(mine[i]->value.get(), theirs[i]->value.get());
        if (values != 0)
            return values;
    }
    return (mine.size() > theirs.size()) - (mine.size() < theirs.size());
}

Object* __VellDictionary::duplicate() {
    auto copy = Ref<__VellDictionary>::adopt(new __VellDictionary);
    for (const Entry& entry : mEntries)
        copy->set(entry.key.get(), duplicateOf(entry.value.get()));
    return copy.leak();
}

VellDictionaryRef VellDictionaryCreate() {
    return new __VellDictionary;
}

void VellDictionarySetValueForKey(VellDictionaryRef dictionary, VellStringRef key, VellObjectRef value) {
    if (!dictionary || !key)
        return;
    if (value)
        dictionary->set(key, Ref(objectOf(value)));
    else
        dictionary->remove(key->text);
}

VellObjectRef VellDictionaryGetValueForKey(VellDictionaryRef dictionary, VellStringRef key) {
    return dictionary && key ? dictionary->get(key->text) : nullptr;
}

int VellDictionaryGetCount(VellDictionaryRef dictionary) {
    return dictionary ? static_cast<int>(dictionary->entries().size()) : 0;
}

VellStringRef VellDictionaryGetKeyAtIndex(VellDictionaryRef dictionary, int index) {
    if (!dictionary || index < 0 || index >= VellDictionaryGetCount(dictionary))
        return nullptr;
    return dictionary->entries()[static_cast<std::size_t>(index)].key.get();
}
