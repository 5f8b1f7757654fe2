#include <Base/Number.h>
#include <Base/PropertyList.h>
#include <Base/PropertyListGuard.h>
#include <Base/Utf8.h>

namespace Base {
namespace {

bool isOfType(plist_t node, plist_type type) {
    return node && plist_get_node_type(node) == type;
}

plist_t nodeIn(plist_t dictionary, const char* key) {
    return isOfType(dictionary, PLIST_DICT) ? plist_dict_get_item(dictionary, key) : nullptr;
}

plist_t nodeIn(plist_t dictionary, const char* key, plist_type type) {
    const plist_t node = nodeIn(dictionary, key);
    return isOfType(node, type) ? node : nullptr;
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
    if (!isOfType(node, PLIST_STRING))
        return std::nullopt;
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return text ? validUtf8(std::string(text, length)) : std::string();
}

std::optional<std::int64_t> integerOf(plist_t node) {
    if (isOfType(node, PLIST_UINT)) {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return static_cast<std::int64_t>(value); // negative ones are stored in 64 bits, too
    }
    if (isOfType(node, PLIST_REAL))
        return saturated(*realOf(node));
    return flagOf(node);
}

std::optional<double> realOf(plist_t node) {
    if (isOfType(node, PLIST_UINT))
        return static_cast<double>(*integerOf(node));
    if (!isOfType(node, PLIST_REAL))
        return std::nullopt;
    double value = 0;
    plist_get_real_val(node, &value);
    return value;
}

std::optional<bool> flagOf(plist_t node) {
    if (!isOfType(node, PLIST_BOOLEAN))
        return std::nullopt;
    std::uint8_t value = 0;
    plist_get_bool_val(node, &value);
    return value != 0;
}

std::optional<std::string> dataOf(plist_t node) {
    if (!isOfType(node, PLIST_DATA))
        return std::nullopt;
    std::uint64_t length = 0;
    const char* bytes = plist_get_data_ptr(node, &length);
    return bytes ? std::string(bytes, length) : std::string();
}

std::optional<std::string> stringIn(plist_t dictionary, const char* key) {
    return stringOf(nodeIn(dictionary, key));
}

std::optional<std::int64_t> integerIn(plist_t dictionary, const char* key) {
    return integerOf(nodeIn(dictionary, key));
}

std::optional<double> realIn(plist_t dictionary, const char* key) {
    return realOf(nodeIn(dictionary, key));
}

std::optional<bool> flagIn(plist_t dictionary, const char* key) {
    return flagOf(nodeIn(dictionary, key));
}

std::optional<std::string> dataIn(plist_t dictionary, const char* key) {
    return dataOf(nodeIn(dictionary, key));
}

plist_t arrayIn(plist_t dictionary, const char* key) {
    return nodeIn(dictionary, key, PLIST_ARRAY);
}

plist_t dictionaryIn(plist_t dictionary, const char* key) {
    return nodeIn(dictionary, key, PLIST_DICT);
}

} // namespace Base
