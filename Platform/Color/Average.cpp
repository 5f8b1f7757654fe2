#include <Color/Average.h>

#include <algorithm>
#include <map>
#include <utility>

namespace Color {

namespace {

using Cell = std::pair<int, int>;

Cell cellOf(const Reading& reading) {
    return {reading.row, reading.column};
}

// Step by step, so that the mean of equal readings is exactly theirs.
struct Mean {
    const Reading* first = nullptr;
    int count = 0;
    std::array<double, kBands> spectrum{};
    std::array<double, 3> lab{};

    void add(const Reading& reading) {
        first = first != nullptr ? first : &reading;
        ++count;
        const auto blend = [this](auto& means, const auto& values) {
            for (std::size_t i = 0; i < means.size(); ++i) {
                means[i] += (static_cast<double>(values[i]) - means[i]) / count;
            }
        };
        blend(spectrum, reading.spectrum);
        blend(lab, reading.lab);
    }

    Reading reading(bool hasSpectra) const {
        Reading result = *first;
        result.spotIndex = 0;
        if (count == 1) {
            return result;
        }
        const auto toSingle = [](double value) { return static_cast<float>(value); };
        std::transform(spectrum.begin(), spectrum.end(), result.spectrum.begin(), toSingle);
        std::transform(lab.begin(), lab.end(), result.lab.begin(), toSingle);
        if (hasSpectra) {
            const Lab ofMean = labFromSpectrum(std::span<const double, kBands>(spectrum));
            result.lab = {toSingle(ofMean.l), toSingle(ofMean.a), toSingle(ofMean.b)};
        }
        return result;
    }
};

} // namespace

std::vector<Reading> meanReadings(std::span<const Reading> readings, bool hasSpectra) {
    std::map<Cell, Mean> means;
    for (const Reading& reading : readings) {
        means[cellOf(reading)].add(reading);
    }
    std::vector<Reading> result;
    result.reserve(means.size());
    for (const auto& [cell, mean] : means) {
        result.push_back(mean.reading(hasSpectra));
    }
    return result;
}

Scatter scatterOf(std::span<const Reading> readings, std::span<const Reading> means) {
    Scatter scatter;
    double sum = 0;
    for (const Reading& reading : readings) {
        const auto mean =
            std::lower_bound(means.begin(), means.end(), cellOf(reading),
                             [](const Reading& one, const Cell& cell) { return cellOf(one) < cell; });
        const double distance = deltaE2000(labOf(*mean), labOf(reading));
        sum += distance;
        scatter.maximum = std::max(scatter.maximum, distance);
    }
    scatter.mean = readings.empty() ? 0 : sum / static_cast<double>(readings.size());
    return scatter;
}

Lab labOf(const Reading& reading) {
    return {static_cast<double>(reading.lab[0]), static_cast<double>(reading.lab[1]),
            static_cast<double>(reading.lab[2])};
}

} // namespace Color
