// The common base of the wrappers over the device service's reference-counted objects.
#pragma once

#include <VellDevice/VellDevice.h>

#include <string>

namespace VellDevice {

// One handle of the service and the references that go with it.
//
// A wrapper holds one reference of its own, and with `adopt` also the one that the handle's creator passed
// on; it gives back exactly what it holds. Copies of a wrapper share the service's object; copy() makes a
// second one.
//
// The wrappers lock nothing: a wrapper belongs to one thread at a time, while several wrappers of one handle
// may be on several threads. They report no errors: a null handle answers "" or 0. Texts that a getter
// returns belong to the service's object and live as long as it holds that value.
class Object {
public:
    // Wraps an existing handle, null included, and retains it. `adopt`: the caller's reference is handed over
    // as well.
    Object(void* object, bool adopt);
    // Wraps nothing yet; for subclasses that create their handle.
    explicit Object(bool adopt);
    Object(const Object& other);
    Object& operator=(const Object& other);
    virtual ~Object();

    bool operator==(const Object& other) const;
    bool operator!=(const Object& other) const;
    bool equal(const Object& other) const;
    int compare(const Object& other) const;
    std::uint32_t hash() const;
    void show() const;
    // Replaces the contents of `out`.
    void description(std::string& out) const;
    // A duplicate that the service makes; the caller deletes the wrapper.
    Object* copy() const;
    void* objectPointer() const { return mObject; }

protected:
    template <typename Ref>
    Ref as() const {
        return static_cast<Ref>(mObject);
    }
    // Stores a handle that was just created, whose reference becomes the wrapper's own.
    void keep(void* created) { mObject = created; }

private:
    void giveBack();

    void* mObject = nullptr;
    bool mAdopt = false;
};

// A text on its way into one call of the service: the handle lives until the end of the full expression or
// scope.
class ServiceString {
public:
    explicit ServiceString(const std::string& text) : mString(VellStringCreateWithCString(text.c_str())) {}
    ~ServiceString() { VellRelease(mString); }
    ServiceString(const ServiceString&) = delete;
    ServiceString& operator=(const ServiceString&) = delete;
    operator VellStringRef() const { return mString; }

private:
    VellStringRef mString;
};

// The characters of a lent string; "" where the service has none.
inline const char* textOf(VellStringRef string) {
    const char* const text = string != nullptr ? VellStringGetCString(string) : nullptr;
    return text != nullptr ? text : "";
}

} // namespace VellDevice
