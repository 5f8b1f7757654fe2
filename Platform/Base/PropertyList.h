#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Base {

// Reading property lists through the library, which gives an untyped tree; this is the typed and bounded way
// to it.
struct FreePropertyList {
    void operator()(void* node) const { plist_free(node); }
};
using PropertyListPtr = std::unique_ptr<void, FreePropertyList>;

// The tree behind bytes that anybody may have written. Null when they are no property list, or one that nests
// deeper than 64 levels, or whose shared parts would unfold to more than it is worth: no bytes make this
// crash or use memory out of proportion.
PropertyListPtr parseBinaryPropertyList(std::string_view bytes);
PropertyListPtr parseXmlPropertyList(std::string_view bytes);
PropertyListPtr parsePropertyList(std::string_view bytes); // either

// A node's value; nothing when there is no node or it is of another type. Texts are made valid UTF-8.
std::optional<std::string> stringOf(plist_t node);
std::optional<std::int64_t> integerOf(plist_t node); // a real or a boolean counts, too
std::optional<double> realOf(plist_t node);          // an integer counts, too
std::optional<bool> flagOf(plist_t node);
std::optional<std::string> dataOf(plist_t node);

// What stands under a key; the same, and nothing for what is no dictionary.
std::optional<std::string> stringIn(plist_t dictionary, const char* key);
std::optional<std::int64_t> integerIn(plist_t dictionary, const char* key);
std::optional<double> realIn(plist_t dictionary, const char* key);
std::optional<bool> flagIn(plist_t dictionary, const char* key);
std::optional<std::string> dataIn(plist_t dictionary, const char* key);
plist_t arrayIn(plist_t dictionary, const char* key);
plist_t dictionaryIn(plist_t dictionary, const char* key);

// Calls `function(node)` for each element, `function(key, node)` for each entry, in order; for null and what
// is no such container, not at all.
template <typename Function>
void forEachElement(plist_t array, Function function) {
    if (!array || plist_get_node_type(array) != PLIST_ARRAY)
        return;
    plist_array_iter iterator = nullptr;
    plist_array_new_iter(array, &iterator);
    const std::unique_ptr<void, void (*)(void*)> owner(iterator, std::free);
    plist_t item = nullptr;
    for (plist_array_next_item(array, iterator, &item); item; plist_array_next_item(array, iterator, &item))
        function(item);
}

template <typename Function>
void forEachEntry(plist_t dictionary, Function function) {
    if (!dictionary || plist_get_node_type(dictionary) != PLIST_DICT)
        return;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(dictionary, &iterator);
    const std::unique_ptr<void, void (*)(void*)> owner(iterator, std::free);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dictionary, iterator, &key, &value);
        const std::unique_ptr<char, void (*)(void*)> keyOwner(key, std::free);
        if (!value)
            return;
        function(key ? key : "", value);
    }
}

} // namespace Base
