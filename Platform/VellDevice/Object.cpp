#include "Object.h"

#include "Values.h"

#include <cstdio>
#include <cstring>
#include <functional>

namespace VellService {

std::string Object::description() const {
    char text[64];
    std::snprintf(text, sizeof text, "<%s %p>", mTypeName, static_cast<const void*>(this));
    return text;
}

int Object::compareTo(const Object& other) const {
    if (this == &other)
        return 0;
    return std::less<const Object*>()(this, &other) ? -1 : 1;
}

Object* Object::duplicate() {
    retain();
    return this;
}

bool isOfType(const Object* object, std::string_view typeName) {
    return object && object->typeName() == typeName;
}

int compareObjects(const Object* left, const Object* right) {
    if (left == right)
        return 0;
    if (!left || !right)
        return left ? 1 : -1;
    const int types = std::strcmp(left->typeName(), right->typeName());
    return types != 0 ? types : left->compareTo(*right);
}

} // namespace VellService

using namespace VellService;

VellObjectRef VellRetain(VellObjectRef object) {
    if (object)
        objectOf(object)->retain();
    return object;
}

void VellRelease(VellObjectRef object) {
    if (object)
        objectOf(object)->release();
}

VellObjectRef VellCheckedCast(VellObjectRef object, const char* typeName) {
    if (!object || (typeName && isOfType(objectOf(object), typeName)))
        return object;
    VellLogError("[VellCheckedCast] - a %s is not a %s\n", objectOf(object)->typeName(),
                 typeName ? typeName : "(null)");
    return nullptr;
}

const char* VellTypeName(VellObjectRef object) {
    return object ? objectOf(object)->typeName() : "";
}

int VellEqual(VellObjectRef left, VellObjectRef right) {
    return compareObjects(objectOf(left), objectOf(right)) == 0 ? 1 : 0;
}

int VellCompareObjects(VellObjectRef left, VellObjectRef right) {
    return compareObjects(objectOf(left), objectOf(right));
}

std::uint32_t VellHash(VellObjectRef object) {
    constexpr std::uint32_t offsetBasis = 2166136261U;
    constexpr std::uint32_t prime = 16777619U;
    std::uint32_t hash = offsetBasis;
    if (!object)
        return hash;
    for (const char byte : objectOf(object)->description())
        hash = (hash ^ static_cast<unsigned char>(byte)) * prime;
    return hash;
}

void VellShow(VellObjectRef object) {
    std::printf("%s\n", object ? objectOf(object)->description().c_str() : "(null)");
}

VellStringRef VellCopyDescription(VellObjectRef object) {
    return new __VellString(object ? objectOf(object)->description() : "(null)");
}

VellObjectRef VellCopy(VellObjectRef object) {
    return object ? objectOf(object)->duplicate() : nullptr;
}
