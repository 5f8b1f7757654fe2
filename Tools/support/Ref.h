// Owned references to service objects, and text from and to service strings.
#pragma once

#include <VellDevice/VellDevice.h>

#include <memory>
#include <string>
#include <type_traits>

namespace tools {

struct Releaser {
    void operator()(VellObjectRef object) const { VellRelease(object); }
};

// One reference, given back at the end: for what a `...Create...`, `...Copy...` or `...Send...` call
// returned.
template <class Handle>
using Ref = std::unique_ptr<std::remove_pointer_t<Handle>, Releaser>;

inline Ref<VellStringRef> makeString(const std::string& text) {
    return Ref<VellStringRef>(VellStringCreateWithCString(text.c_str()));
}

// "" for null.
inline std::string textOf(VellStringRef string) {
    const char* text = VellStringGetCString(string);
    return text ? text : "";
}

} // namespace tools
