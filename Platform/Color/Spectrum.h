#pragma once

#include <cstddef>

namespace Color {

// Of every spectrum: 380 to 730 nm in steps of 10.
inline constexpr std::size_t kBands = 36;
inline constexpr int kFirstWavelength = 380;
inline constexpr int kWavelengthStep = 10;

} // namespace Color
