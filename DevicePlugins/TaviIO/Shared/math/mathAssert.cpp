#include "mathAssert.h"

#include <cstdio>
#include <cstdlib>

void mathAssertionFailed(const char* text, const CallSite& site) {
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", text, site.function,
                 site.file, site.line);
    std::abort();
}
