#pragma once

#include "VirtualChart.h"

#include <random>
#include <string_view>
#include <vector>

namespace TaviSDK {

// The handheld spectrophotometer on the head: its white calibration, the noise of its sensor and its sample
// memory. Not thread-safe: the Instrument's call lock guards it.
class Spectrophotometer {
public:
    // Seconds that a white calibration and a single reading take, besides the integrations.
    static constexpr double kCalibrationTime = 2.0;
    static constexpr double kReadingTime = 0.25;

    // A calibration for strips holds for single readings, too; not the other way round.
    void calibrate(std::string_view mode);
    bool isCalibratedFor(std::string_view mode) const;

    // The sample memory holds the readings of the last measurement, each with the sensor's noise (standard
    // deviation of each band; 0 leaves readings as they are).
    void store(std::vector<Spectrum> readings, double noise);
    void clearSamples() { mSamples.clear(); }
    int sampleCount() const { return static_cast<int>(mSamples.size()); }
    // Throws Refusal (NoSuchSample).
    const Spectrum& sample(int index) const;

    // Forgets calibration and samples.
    void reset();

private:
    bool mIsCalibratedForStrips = false;
    bool mIsCalibratedForSingle = false;
    std::vector<Spectrum> mSamples;
    std::mt19937_64 mNoiseSource; // seeded the same in every process, so that a run can be repeated
};

} // namespace TaviSDK
