#include "Log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace service {

namespace {

Verbosity gVerbosity = Verbosity::normal;

void writeLine(const char* format, va_list arguments) {
    char text[2048];
    std::vsnprintf(text, sizeof text, format, arguments);
    const std::string line = std::string("vell-service: ") + text + "\n";
    // One write, so that lines of several processes on one terminal do not mix. A log that cannot be written
    // loses its line and nothing else.
    [[maybe_unused]] const auto written = write(STDERR_FILENO, line.data(), line.size());
}

} // namespace

void setVerbosity(Verbosity verbosity) {
    gVerbosity = verbosity;
}

void log(const char* format, ...) {
    if (gVerbosity < Verbosity::normal)
        return;
    va_list arguments;
    va_start(arguments, format);
    writeLine(format, arguments);
    va_end(arguments);
}

void logDetail(const char* format, ...) {
    if (gVerbosity < Verbosity::verbose)
        return;
    va_list arguments;
    va_start(arguments, format);
    writeLine(format, arguments);
    va_end(arguments);
}

void logError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLine(format, arguments);
    va_end(arguments);
}

} // namespace service
