// Objects of plain values to property lists and back.
#pragma once

#include "Values.h"

#include <Base/PropertyList.h>

#include <optional>
#include <string>
#include <string_view>

namespace VellService {

// Null when there is something in the tree that is no service object, or more than 64 levels.
Ref<Object> objectOfNode(plist_t node);
Ref<__VellString> stringObjectIn(plist_t dictionary, const char* key); // null when missing
// The binary property list of an object of plain values. Nothing when there is something else in it, or more
// than 64 levels.
std::optional<std::string> propertyListOf(const Object* object);

} // namespace VellService
