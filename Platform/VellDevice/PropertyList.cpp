#include "PropertyList.h"

#include "PropertyListGuard.h"
#include "PropertyListWriter.h"
#include "Utf8.h"

#include <cmath>

namespace VellService {
namespace {

using Value = PropertyListWriter::Value;

// Nothing when there is something in the object that no property list holds, or too many levels.
std::optional<Value> write(PropertyListWriter& writer, const Object* object, int depth);

std::optional<Value> writeArray(PropertyListWriter& writer, const __VellArray& array, int depth) {
    std::vector<Value> elements;
    for (const auto& value : array.values) {
        const auto element = write(writer, value.get(), depth + 1);
        if (!element)
            return std::nullopt;
        elements.push_back(*element);
    }
    return writer.array(elements);
}

std::optional<Value> writeDictionary(PropertyListWriter& writer, const __VellDictionary& dictionary,
                                     int depth) {
    std::vector<PropertyListWriter::Entry> entries;
    for (const auto& entry : dictionary.entries()) {
        const auto value = write(writer, entry.value.get(), depth + 1);
        if (!value)
            return std::nullopt;
        entries.emplace_back(writer.text(entry.key->text), *value);
    }
    return writer.dictionary(entries);
}

Value writeNumber(PropertyListWriter& writer, const __VellNumber& number) {
    if (const double* real = std::get_if<double>(&number.value))
        return writer.real(*real);
    if (const bool* flag = std::get_if<bool>(&number.value))
        return writer.flag(*flag);
    return writer.integer(number.integerValue());
}

std::optional<Value> write(PropertyListWriter& writer, const Object* object, int depth) {
    if (depth > PropertyListGuard::kMaximumDepth)
        return std::nullopt;
    if (isOfType(object, __VellString::kTypeName))
        return writer.text(static_cast<const __VellString*>(object)->text);
    if (isOfType(object, __VellNumber::kTypeName))
        return writeNumber(writer, *static_cast<const __VellNumber*>(object));
    if (isOfType(object, __VellData::kTypeName))
        return writer.data(static_cast<const __VellData*>(object)->bytes);
    if (isOfType(object, __VellArray::kTypeName))
        return writeArray(writer, *static_cast<const __VellArray*>(object), depth);
    if (isOfType(object, __VellDictionary::kTypeName))
        return writeDictionary(writer, *static_cast<const __VellDictionary*>(object), depth);
    return std::nullopt;
}

double realOf(plist_t node) {
    double value = 0;
    plist_get_real_val(node, &value);
    return value;
}

bool flagOf(plist_t node) {
    std::uint8_t value = 0;
    plist_get_bool_val(node, &value);
    return value != 0;
}

double dateOf(plist_t node) {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return static_cast<double>(seconds) + static_cast<double>(microseconds) * 1e-6;
}

std::string dataOf(plist_t node) {
    std::uint64_t length = 0;
    const char* bytes = plist_get_data_ptr(node, &length);
    return bytes ? std::string(bytes, length) : std::string();
}

Ref<Object> objectOfArray(plist_t node) {
    auto array = Ref<__VellArray>::adopt(new __VellArray);
    bool whole = true;
    forEachElement(node, [&](plist_t element) {
        Ref<Object> value = objectOfNode(element);
        whole = whole && value;
        if (whole)
            array->values.push_back(std::move(value));
    });
    return whole ? Ref<Object>::adopt(array.leak()) : Ref<Object>();
}

Ref<Object> objectOfDictionary(plist_t node) {
    auto dictionary = Ref<__VellDictionary>::adopt(new __VellDictionary);
    bool whole = true;
    forEachEntry(node, [&](const char* key, plist_t element) {
        Ref<Object> value = objectOfNode(element);
        whole = whole && value;
        if (whole)
            dictionary->set(makeString(validUtf8(key)).get(), std::move(value));
    });
    return whole ? Ref<Object>::adopt(dictionary.leak()) : Ref<Object>();
}

Ref<Object> numberObject(__VellNumber::Value value) {
    return Ref<Object>::adopt(new __VellNumber(value));
}

} // namespace

PropertyListPtr parseBinaryPropertyList(std::string_view bytes) {
    plist_t root = nullptr;
    if (PropertyListGuard::isSafeBinary(bytes))
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    return PropertyListPtr(root);
}

PropertyListPtr parseXmlPropertyList(std::string_view bytes) {
    plist_t root = nullptr;
    if (PropertyListGuard::isSafeXml(bytes))
        plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    return PropertyListPtr(root);
}

PropertyListPtr parsePropertyList(std::string_view bytes) {
    return PropertyListGuard::isBinary(bytes) ? parseBinaryPropertyList(bytes) : parseXmlPropertyList(bytes);
}

std::optional<std::string> stringOf(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return std::nullopt;
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return text ? validUtf8(std::string(text, length)) : std::string();
}

std::optional<std::int64_t> integerOf(plist_t node) {
    if (!node)
        return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return static_cast<std::int64_t>(value);
    }
    case PLIST_REAL:
        return __VellNumber(realOf(node)).integerValue();
    case PLIST_BOOLEAN:
        return flagOf(node) ? 1 : 0;
    default:
        return std::nullopt;
    }
}

std::optional<std::string> stringIn(plist_t dictionary, const char* key) {
    return stringOf(plist_dict_get_item(dictionary, key));
}

std::optional<std::int64_t> integerIn(plist_t dictionary, const char* key) {
    return integerOf(plist_dict_get_item(dictionary, key));
}

std::optional<std::string> dataIn(plist_t dictionary, const char* key) {
    const plist_t node = plist_dict_get_item(dictionary, key);
    if (!node || plist_get_node_type(node) != PLIST_DATA)
        return std::nullopt;
    return dataOf(node);
}

plist_t arrayIn(plist_t dictionary, const char* key) {
    const plist_t node = plist_dict_get_item(dictionary, key);
    return node && plist_get_node_type(node) == PLIST_ARRAY ? node : nullptr;
}

plist_t dictionaryIn(plist_t dictionary, const char* key) {
    const plist_t node = plist_dict_get_item(dictionary, key);
    return node && plist_get_node_type(node) == PLIST_DICT ? node : nullptr;
}

Ref<__VellString> stringObjectIn(plist_t dictionary, const char* key) {
    auto text = stringIn(dictionary, key);
    return text ? makeString(std::move(*text)) : Ref<__VellString>();
}

std::optional<std::string> propertyListOf(const Object* object) {
    PropertyListWriter writer;
    const auto root = write(writer, object, 1);
    return root ? std::optional(writer.finish(*root)) : std::nullopt;
}

Ref<Object> objectOfNode(plist_t node) {
    if (!node)
        return {};
    switch (plist_get_node_type(node)) {
    case PLIST_STRING:
        return Ref<Object>::adopt(new __VellString(*stringOf(node)));
    case PLIST_BOOLEAN:
        return numberObject(flagOf(node));
    case PLIST_UINT:
        return numberObject(*integerOf(node));
    case PLIST_REAL:
        return numberObject(realOf(node));
    case PLIST_DATE: // seconds since 2001, as the number it is stored as
        return numberObject(dateOf(node));
    case PLIST_DATA:
        return Ref<Object>::adopt(new __VellData(dataOf(node)));
    case PLIST_ARRAY:
        return objectOfArray(node);
    case PLIST_DICT:
        return objectOfDictionary(node);
    default:
        return {};
    }
}

} // namespace VellService

using namespace VellService;

VellDataRef VellCoderCopyEncodedDataWithRootObject(VellObjectRef root) {
    auto bytes = propertyListOf(objectOf(root));
    return bytes ? new __VellData(std::move(*bytes)) : nullptr;
}

VellObjectRef VellCoderCopyRootObjectWithEncodedData(VellDataRef data) {
    return data ? objectOfNode(parsePropertyList(data->bytes).get()).leak() : nullptr;
}
