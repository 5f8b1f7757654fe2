#include "Options.h"

#include "Quoted.h"
#include "Status.h"

#include <Base/Number.h>

#include <algorithm>
#include <array>
#include <optional>

namespace TaviSDK {

namespace {

enum class Owner { Table, Spectrophotometer };

// What a text must be to be taken.
struct Rule {
    enum Kind { OneOf, Positive, Milliseconds, IntegrationTime, Factor } kind;
    // The texts of OneOf, parted by "|".
    std::string_view texts;
};

constexpr Rule kYesNo{Rule::OneOf, "yes|no"};

struct Definition {
    std::string_view key;
    std::string_view initial;
    Owner owner;
    Rule rule;
};

constexpr std::array kDefinitions = {
    // Units per second. Any positive speed is taken: the table drives as fast as it can and no faster.
    Definition{"TaviTMoveSpeed", "400", Owner::Table, {Rule::Positive, {}}},
    Definition{"TaviTScanSpeed", "200", Owner::Table, {Rule::Positive, {}}},
    // How long the head rests at each end of a strip.
    Definition{"TaviTScanDelay", "200", Owner::Table, {Rule::Milliseconds, {}}},
    // Motors stay powered between moves; no effect on where the head is.
    Definition{"TaviTHoldPosition", "no", Owner::Table, kYesNo},
    // Positions name the point under the visor ("yes") or under the aperture.
    Definition{"TaviTIsVisorCoordinate", "no", Owner::Table, kYesNo},
    Definition{"TaviTEnableElectrostaticFoil", "yes", Owner::Table, kYesNo},
    Definition{"TaviTEnableElectrostaticFoilButton", "yes", Owner::Table, kYesNo},
    Definition{"MeasurementMode",
               kSingleMode,
               Owner::Spectrophotometer,
               {Rule::OneOf, "ScanningReflectance|SingleReflectance"}},
    // Seconds that one integration takes; three make a reading.
    Definition{"IntegrationTime", "0.00286", Owner::Spectrophotometer, {Rule::IntegrationTime, {}}},
    // 0: ultraviolet cut, 1: none, 2: polarisers.
    Definition{"PhysicalFilter", "1", Owner::Spectrophotometer, {Rule::OneOf, "0|1|2"}},
    Definition{"Beep", "yes", Owner::Spectrophotometer, kYesNo},
    // Whether a strip is cut into patches. See Recognition for the two limits.
    Definition{"Recognition", "yes", Owner::Spectrophotometer, kYesNo},
    Definition{"RECOGNITION_EDGE_LIMIT_FACTOR", "0.6", Owner::Spectrophotometer, {Rule::Factor, {}}},
    Definition{"RECOGNITION_LOWEST_LIMIT", "0.2", Owner::Spectrophotometer, {Rule::Factor, {}}},
    Definition{
        "ColorSpaceDescription.Type", "CIELab", Owner::Spectrophotometer, {Rule::OneOf, "CIELab|CIEXYZ"}},
    Definition{"Colorimetric.Illumination", "D50", Owner::Spectrophotometer, {Rule::OneOf, "D50"}},
    Definition{"Colorimetric.Observer", "TwoDegree", Owner::Spectrophotometer, {Rule::OneOf, "TwoDegree"}},
};

const Definition* definitionOf(std::string_view key) {
    const auto* found = std::find_if(kDefinitions.begin(), kDefinitions.end(),
                                     [key](const Definition& definition) { return definition.key == key; });
    return found == kDefinitions.end() ? nullptr : found;
}

bool isOneOf(std::string_view text, std::string_view texts) {
    while (!texts.empty()) {
        const std::size_t end = std::min(texts.find('|'), texts.size());
        if (texts.substr(0, end) == text) {
            return true;
        }
        texts.remove_prefix(std::min(end + 1, texts.size()));
    }
    return false;
}

bool takes(const Rule& rule, std::string_view text) {
    if (rule.kind == Rule::OneOf) {
        return isOneOf(text, rule.texts);
    }
    const std::optional<double> value = Base::parseFinite<double>(text);
    if (!value) {
        return false;
    }
    switch (rule.kind) {
    case Rule::Positive:
        return *value > 0.0;
    case Rule::Milliseconds:
        return *value >= 0.0 && *value <= 60000.0;
    case Rule::IntegrationTime:
        return *value > 0.0 && *value <= 1.0;
    case Rule::Factor:
        return *value > 0.0 && *value <= 100.0;
    case Rule::OneOf:
        break;
    }
    return false;
}

} // namespace

Options::Options() {
    resetToDefaults();
}

void Options::resetToDefaults() {
    for (const Definition& definition : kDefinitions) {
        mValues[definition.key] = definition.initial;
    }
}

void Options::set(std::string_view key, std::string_view value) {
    const Definition* definition = definitionOf(key);
    if (definition == nullptr) {
        throw Refusal(Status::UnknownOption, "There is no option " + quoted(key) + ".");
    }
    if (!takes(definition->rule, value)) {
        throw Refusal(Status::ImpossibleValue,
                      "The option " + quoted(key) + " cannot be " + quoted(value) + ".");
    }
    mValues.find(key)->second = value;
}

const std::string* Options::find(std::string_view key) const {
    const auto found = mValues.find(key);
    return found == mValues.end() ? nullptr : &found->second;
}

const std::string& Options::text(std::string_view key) const {
    return mValues.at(key);
}

double Options::number(std::string_view key) const {
    return Base::parseFinite<double>(text(key)).value_or(0.0);
}

bool Options::isSpectrophotometers(std::string_view key) const {
    const Definition* definition = definitionOf(key);
    return definition != nullptr && definition->owner == Owner::Spectrophotometer;
}

} // namespace TaviSDK
