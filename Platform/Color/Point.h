#pragma once

namespace Color {

// A place on the table, in table coordinates.
struct Point {
    double x = 0.0;
    double y = 0.0;
};

} // namespace Color
