#pragma once

// Where in the source a function was called, as a default argument of that function.
struct CallSite {
    const char* function;
    const char* file;
    int line;

    static constexpr CallSite here(const char* function = __builtin_FUNCTION(),
                                   const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {function, file, line};
    }
};

[[noreturn]] void mathAssertionFailed(const char* text, const CallSite& site);

// A precondition of the library. When it does not hold the process ends, in release builds too: one line on
// the standard error with the caller's function, file and line and `text`, then abort(). The text is given
// apart from the condition because it appears in crash reports, where it has to stay the same when the code
// is reformatted.
inline void mathAssert(bool holds, const char* text, const CallSite& site = CallSite::here()) {
    if (!holds) [[unlikely]]
        mathAssertionFailed(text, site);
}
