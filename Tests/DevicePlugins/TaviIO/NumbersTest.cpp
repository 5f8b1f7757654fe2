#include "Numbers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>

namespace {

TEST(Numbers, EveryTextAndEveryDoubleHasADefinedInt) {
    EXPECT_EQ(IntFromText(" -12abc"), -12);
    EXPECT_EQ(IntFromText("abc"), 0);
    EXPECT_EQ(IntFromText(""), 0);
    EXPECT_EQ(IntFromText("99999999999999999999"), INT_MAX);
    EXPECT_EQ(IntFromText("-3000000000"), INT_MIN);
    EXPECT_EQ(SaturatedInt(-2.9), -2);
    EXPECT_EQ(SaturatedInt(1e300), INT_MAX);
    EXPECT_EQ(SaturatedInt(-INFINITY), INT_MIN);
    EXPECT_EQ(SaturatedInt(NAN), 0);
}

TEST(Numbers, FloatsComeAndGoAsPrintfWritesThem) {
    EXPECT_EQ(FloatFromText("12.5mm"), 12.5F);
    EXPECT_EQ(FloatFromText("mm"), 0.0F);
    EXPECT_EQ(FloatFromText("-1e300"), -INFINITY);
    EXPECT_TRUE(std::isnan(FloatFromText("nan")));
    EXPECT_EQ(TextFromFloat(103.25F), "103.250000");
    EXPECT_EQ(TextFromFloat(-3.4e38F).size(), 47U);
    EXPECT_EQ(TextFromInt(INT_MIN), "-2147483648");
}

} // namespace
