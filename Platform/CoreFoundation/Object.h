#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <string>

namespace CoreFoundation {

// What CFRetain and CFRelease count. Every type behind a CF...Ref derives from it, first and alone, so that
// the untyped reference and the object have one address. Counting is for any thread.
class Object {
public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;

    void retain() { mReferences.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (mReferences.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<long> mReferences{1};
};

} // namespace CoreFoundation

// Immutable.
struct __CFString final : CoreFoundation::Object {
    explicit __CFString(std::string value) : text(std::move(value)) {}
    const std::string text;
};

struct __CFURL final : CoreFoundation::Object {
    explicit __CFURL(std::string value) : path(std::move(value)) {}
    const std::string path;
};

struct __CFBundle final : CoreFoundation::Object {
    explicit __CFBundle(std::string value) : path(std::move(value)) {}
    const std::string path; // of the bundle's folder
};
