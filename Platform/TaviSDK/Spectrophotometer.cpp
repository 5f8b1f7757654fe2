#include "Spectrophotometer.h"

#include "Options.h"
#include "Status.h"

#include <algorithm>
#include <string>

namespace TaviSDK {

void Spectrophotometer::calibrate(std::string_view mode) {
    mIsCalibratedForStrips = mIsCalibratedForStrips || mode == kScanningMode;
    mIsCalibratedForSingle = true;
}

bool Spectrophotometer::isCalibratedFor(std::string_view mode) const {
    return mode == kScanningMode ? mIsCalibratedForStrips : mIsCalibratedForSingle;
}

void Spectrophotometer::store(std::vector<Spectrum> readings, double noise) {
    mSamples = std::move(readings);
    if (noise <= 0.0) {
        return;
    }
    std::normal_distribution<double> deviation(0.0, noise);
    for (Spectrum& sample : mSamples) {
        for (float& value : sample) {
            // A sensor reports no negative light.
            value = static_cast<float>(std::max(0.0, static_cast<double>(value) + deviation(mNoiseSource)));
        }
    }
}

const Spectrum& Spectrophotometer::sample(int index) const {
    if (index < 0 || index >= sampleCount()) {
        throw Refusal(Status::NoSuchSample, "There is no sample " + std::to_string(index) +
                                                ": the instrument holds " + std::to_string(sampleCount()) +
                                                ".");
    }
    return mSamples[static_cast<std::size_t>(index)];
}

void Spectrophotometer::reset() {
    mIsCalibratedForStrips = false;
    mIsCalibratedForSingle = false;
    mSamples.clear();
}

} // namespace TaviSDK
