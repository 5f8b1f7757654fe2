#pragma once

namespace service {

enum class Verbosity { quiet, normal, verbose };
void setVerbosity(Verbosity verbosity);

// One line on standard error each: what happened to an instrument, details of it, and what went wrong.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logDetail(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace service
