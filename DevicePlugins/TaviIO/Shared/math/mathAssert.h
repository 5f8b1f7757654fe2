#pragma once

// A precondition of the library. When it does not hold the process ends, in release builds too: one line on
// the standard error with the function, the file, the line and `text`, then abort(). The text is given apart
// from the condition because it appears in crash reports, where it has to stay the same when the code is
// reformatted.
#define MATH_ASSERT(condition, text)                                                                         \
    ((condition) ? static_cast<void>(0) : mathAssertionFailed(text, __func__, __FILE__, __LINE__))

[[noreturn]] void mathAssertionFailed(const char* text, const char* function, const char* file, int line);
