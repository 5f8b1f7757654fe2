#include "Object.h"

namespace VellDevice {

Object::Object(void* object, bool adopt) : mObject(object), mAdopt(adopt) {
    VellRetain(mObject);
}

Object::Object(bool adopt) : mAdopt(adopt) {}

Object::Object(const Object& other) : mObject(other.mObject) {
    VellRetain(mObject);
}

Object& Object::operator=(const Object& other) {
    if (this == &other)
        return *this;
    VellRetain(other.mObject); // first: both may hold the last reference of one handle
    giveBack();
    mObject = other.mObject;
    return *this;
}

Object::~Object() {
    giveBack();
}

void Object::giveBack() {
    VellRelease(mObject);
    if (mAdopt)
        VellRelease(mObject);
    mObject = nullptr;
    mAdopt = false;
}

bool Object::operator==(const Object& other) const {
    return equal(other);
}

bool Object::operator!=(const Object& other) const {
    return !equal(other);
}

bool Object::equal(const Object& other) const {
    return VellEqual(mObject, other.mObject) == 1;
}

int Object::compare(const Object& other) const {
    return VellCompareObjects(mObject, other.mObject);
}

std::uint32_t Object::hash() const {
    return VellHash(mObject);
}

void Object::show() const {
    VellShow(mObject);
}

void Object::description(std::string& out) const {
    const VellStringRef description = VellCopyDescription(mObject);
    out = textOf(description);
    VellRelease(description);
}

Object* Object::copy() const {
    return new Object(VellCopy(mObject), true);
}

} // namespace VellDevice
