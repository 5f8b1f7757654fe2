#include "Coder.h"

#include "PropertyListWriter.h"

#include <Base/File.h>
#include <Base/PropertyListGuard.h>
#include <Base/Utf8.h>

namespace VellService {
namespace {

using Base::PropertyListGuard;

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

double dateOf(plist_t node) {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return static_cast<double>(seconds) + static_cast<double>(microseconds) * 1e-6;
}

Ref<Object> objectOfNode(plist_t node, int depth);

Ref<Object> objectOfArray(plist_t node, int depth) {
    auto array = Ref<__VellArray>::adopt(new __VellArray);
    bool whole = true;
    Base::forEachElement(node, [&](plist_t element) {
        Ref<Object> value = objectOfNode(element, depth + 1);
        whole = whole && value;
        if (whole)
            array->values.push_back(std::move(value));
    });
    return whole ? Ref<Object>::adopt(array.leak()) : Ref<Object>();
}

Ref<Object> objectOfDictionary(plist_t node, int depth) {
    auto dictionary = Ref<__VellDictionary>::adopt(new __VellDictionary);
    bool whole = true;
    Base::forEachEntry(node, [&](const char* key, plist_t element) {
        Ref<Object> value = objectOfNode(element, depth + 1);
        whole = whole && value;
        if (whole)
            dictionary->set(makeString(Base::validUtf8(key)).get(), std::move(value));
    });
    return whole ? Ref<Object>::adopt(dictionary.leak()) : Ref<Object>();
}

Ref<Object> numberObject(__VellNumber::Value value) {
    return Ref<Object>::adopt(new __VellNumber(value));
}

Ref<Object> objectOfNode(plist_t node, int depth) {
    if (!node || depth > PropertyListGuard::kMaximumDepth)
        return {};
    switch (plist_get_node_type(node)) {
    case PLIST_STRING:
        return Ref<Object>::adopt(new __VellString(*Base::stringOf(node)));
    case PLIST_BOOLEAN:
        return numberObject(*Base::flagOf(node));
    case PLIST_UINT:
        return numberObject(*Base::integerOf(node));
    case PLIST_REAL:
        return numberObject(*Base::realOf(node));
    case PLIST_DATE: // seconds since 2001, as the number it is stored as
        return numberObject(dateOf(node));
    case PLIST_DATA:
        return Ref<Object>::adopt(new __VellData(*Base::dataOf(node)));
    case PLIST_ARRAY:
        return objectOfArray(node, depth);
    case PLIST_DICT:
        return objectOfDictionary(node, depth);
    default:
        return {};
    }
}

} // namespace

Ref<__VellString> stringObjectIn(plist_t dictionary, const char* key) {
    auto text = Base::stringIn(dictionary, key);
    return text ? makeString(std::move(*text)) : Ref<__VellString>();
}

std::optional<std::string> propertyListOf(const Object* object) {
    PropertyListWriter writer;
    const auto root = write(writer, object, 1);
    return root ? std::optional(writer.finish(*root)) : std::nullopt;
}

Ref<Object> objectOfNode(plist_t node) {
    return objectOfNode(node, 1);
}

} // namespace VellService

using namespace VellService;

VellDataRef VellCoderCopyEncodedDataWithRootObject(VellObjectRef root) {
    auto bytes = propertyListOf(objectOf(root));
    return bytes ? new __VellData(std::move(*bytes)) : nullptr;
}

VellObjectRef VellCoderCopyRootObjectWithEncodedData(VellDataRef data) {
    return data ? objectOfNode(Base::parseBinaryPropertyList(data->bytes).get()).leak() : nullptr;
}

VellObjectRef VellCoderCopyRootObjectWithContentsAtPath(VellStringRef path) {
    const Base::FileContents file = Base::readFile(textOf(path), PropertyListGuard::kMaximumSize);
    return file ? objectOfNode(Base::parsePropertyList(file.bytes).get()).leak() : nullptr;
}
