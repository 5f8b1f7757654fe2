#pragma once

#include <VellDevice/VellDevice.h>

#include <string_view>

namespace VellDevice {

// A function's signature as the log shows it: without the words that tell how it is called.
constexpr const char* signatureOf(const char* function) {
    for (const std::string_view word : {"static ", "virtual "})
        if (std::string_view(function).starts_with(word))
            function += word.size();
    return function;
}

} // namespace VellDevice

// The line with which an operation announces itself in the log.
#define VELL_TRACE() VellLogRuntime("%s\n", ::VellDevice::signatureOf(__PRETTY_FUNCTION__))
