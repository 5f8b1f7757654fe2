#include "Table.h"

#include "Status.h"
#include "VirtualInstrument.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace TaviSDK {

namespace {

// From the aperture to the visor.
constexpr Point kVisorOffset{18.0, -6.0};

} // namespace

Point Table::toAperture(double x, double y, bool isVisor) {
    const Point place{isVisor ? x - kVisorOffset.x : x, isVisor ? y - kVisorOffset.y : y};
    // Written so that a position that is no number fails, too.
    const bool isInside = place.x >= kTableArea.left && place.x <= kTableArea.right &&
                          place.y >= kTableArea.top && place.y <= kTableArea.bottom;
    if (!isInside) {
        char text[96];
        std::snprintf(text, sizeof text, "The position (%g, %g) lies outside the table.", x, y);
        throw Refusal(Status::OutsideTable, text);
    }
    return place;
}

Point Table::fromAperture(const Point& aperture, bool isVisor) {
    return isVisor ? Point{aperture.x + kVisorOffset.x, aperture.y + kVisorOffset.y} : aperture;
}

double Table::timeTo(const Point& place, double speed) const {
    return std::hypot(place.x - mHead.x, place.y - mHead.y) / std::min(speed, kTopSpeed);
}

} // namespace TaviSDK
