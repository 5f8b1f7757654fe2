// What the fuzz targets share. A target is one function that takes any bytes; under libFuzzer it is fed with
// mutations of the seeds, elsewhere (Replay.cpp) with the seeds alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

namespace fuzzing {

// What must hold whatever the bytes were; ends the process otherwise, so that the fuzzer keeps the bytes.
inline void require(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

} // namespace fuzzing
