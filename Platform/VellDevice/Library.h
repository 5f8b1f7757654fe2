#pragma once

#include "Values.h"

#include <string>

namespace VellService {

// The properties of the bundle at the path; empty when it has none that can be read.
Ref<__VellDictionary> bundleProperties(const std::string& bundlePath);

} // namespace VellService

// A bundle's properties, read once when the library is made. Any thread.
struct __VellLibrary final : VellService::Object {
    static constexpr const char* kTypeName = "VellLibraryRef";

    explicit __VellLibrary(const std::string& bundlePath)
        : Object(kTypeName), properties(VellService::bundleProperties(bundlePath)) {}

    const VellService::Ref<__VellDictionary> properties;
};
