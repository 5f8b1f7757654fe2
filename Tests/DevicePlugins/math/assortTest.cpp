#include "assort.h"

#include "scram_array.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

// --- Random numbers

TEST(RandomTest, DrawsAreThePublishedOnes) {
    // Computed apart, with whole numbers of any size. The first draws after a seed and the thousandth.
    const auto expectDraws = [](auto seed, std::array<double, 3> first, double thousandth) {
        for (double expected : first)
            EXPECT_DOUBLE_EQ(ran1(&seed), expected);
        EXPECT_EQ(seed, 1);
        for (int i = 4; i < 1000; ++i)
            ran1(&seed);
        EXPECT_DOUBLE_EQ(ran1(&seed), thousandth);
    };
    expectDraws(-1, {0.3900425101203423, 0.17114841363267583, 0.6423839040900616}, 0.9402850332951181);
    expectDraws(-1234L, {0.7448965545752909, 0.3176028104643623, 0.4526043860578191}, 0.6757463120020171);
    expectDraws(std::numeric_limits<int>::min(),
                {0.9226792098895357, 0.8303500906338538, 0.051124358996784115}, 0.08498785116472084);
}

TEST(RandomTest, VariantsKeepTheirOwnState) {
    int seed = -5;
    long other = -5;
    const double first = ran1(&seed);
    EXPECT_EQ(first, ran1(&other));
    ran1(&other);
    ran1(&other);
    const double second = ran1(&seed);
    other = -5;
    ran1(&other);
    EXPECT_EQ(second, ran1(&other));
}

TEST(RandomTest, LooksUniform) {
    int seed = -42;
    constexpr int n = 200000;
    std::vector<double> draws(n);
    std::generate(draws.begin(), draws.end(), [&] { return ran1(&seed); });
    const auto [least, most] = std::minmax_element(draws.begin(), draws.end());
    EXPECT_GT(*least, 0);
    EXPECT_LT(*most, 1);
    double sum = 0;
    double squares = 0;
    double products = 0;
    for (std::size_t i = 0; i < draws.size(); ++i) {
        const double x = draws[i] - 0.5;
        sum += x;
        squares += x * x;
        products += x * (draws[(i + 1) % draws.size()] - 0.5);
    }
    // Five standard deviations of the mean, the variance (1 / 12) and the serial covariance of uniform
    // numbers.
    const double root = std::sqrt(static_cast<double>(n));
    EXPECT_NEAR(sum / n, 0, 5 * 0.2887 / root);
    EXPECT_NEAR(squares / n, 1.0 / 12, 5 * 0.0745 / root);
    EXPECT_NEAR(products / n, 0, 5 / 12.0 / root);
}

TEST(RandomTest, SeedsAndRangesOfAnySize) {
    long seed = std::numeric_limits<long>::min();
    const double draw = ran1(&seed);
    EXPECT_TRUE(draw > 0 && draw < 1);
    for (int i = 0; i < 1000; ++i) {
        const long small = rand1(-3, 3);
        EXPECT_TRUE(small >= -3 && small < 3);
        const long down = rand1(3, -3, &seed);
        EXPECT_TRUE(down <= 3 && down > -3);
        EXPECT_LT(rand1(std::numeric_limits<long>::min(), std::numeric_limits<long>::max(), &seed),
                  std::numeric_limits<long>::max());
        int other = 1;
        const long upTo = rand1(10L, &other);
        EXPECT_TRUE(upTo >= 0 && upTo <= 10);
        EXPECT_GE(rand1(std::numeric_limits<long>::max(), &other), 0);
    }
}

TEST(ScrambleTest, IsTheSamePermutationEachTimeAndCanBeUndone) {
    int integers[10];
    std::iota(std::begin(integers), std::end(integers), 0);
    scramble2(integers, 10);
    EXPECT_THAT(integers, ElementsAre(5, 3, 4, 9, 1, 6, 7, 2, 8, 0));

    // Item k moves to position p(k).
    std::vector<double> items(30);
    std::iota(items.begin(), items.end(), 0.0);
    std::vector<double> scrambled = items;
    scramble_array(scrambled.data(), 10, 3);
    for (std::size_t k = 0; k < 10; ++k) {
        for (std::size_t j = 0; j < 3; ++j)
            EXPECT_EQ(scrambled[static_cast<std::size_t>(integers[k]) * 3 + j], items[k * 3 + j]);
    }
    unscramble_array(scrambled.data(), 10, 3);
    EXPECT_EQ(scrambled, items);

    std::string text = "the quick brown fox";
    const std::string before = text;
    auto* bytes = reinterpret_cast<unsigned char*>(text.data());
    scramble_array(bytes, static_cast<int>(text.size()), 1);
    EXPECT_NE(text, before);
    unscramble_array(bytes, static_cast<int>(text.size()), 1);
    EXPECT_EQ(text, before);
    scramble_array(static_cast<double*>(nullptr), 0, 5);
}

// --- Signals and angles

TEST(SignalTest, KernelIsABell) {
    double kernel[5];
    generate_gaus_kernal(kernel, 5, 2);
    EXPECT_EQ(kernel[2], 1);
    EXPECT_DOUBLE_EQ(kernel[0], std::exp(-2.0));
    EXPECT_DOUBLE_EQ(kernel[1], kernel[3]);
    EXPECT_DOUBLE_EQ(kernel[3], std::exp(-0.5));
    generate_gaus_kernal(kernel, 1, 2);
    EXPECT_EQ(kernel[0], 1);
}

TEST(SignalTest, DecayCurvePrintsItsParameters) {
    double curve[2];
    testing::internal::CaptureStdout();
    generate_decay_curve(curve, 2, 1, -0.5, 3);
    const double printed[] = {1, -20};
    print_array(printed, 2);
    error("Random number error");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1.000000e+00  -5.000000e-01  3.000000e+00\n"
                                                      "1.000000e+00  -2.000000e+01  \n"
                                                      "WORKOVER ---- Random number error\n");
    EXPECT_DOUBLE_EQ(curve[1], 3 * std::exp(-1.0));
}

TEST(SignalTest, ConvolutionSpreadsPositiveSamples) {
    const double kernel[] = {1, 10, 100};
    const double in[] = {1, 0, 2, -7};
    std::vector<double> out(4, 99);
    convolve(in, out.data(), kernel, 4, 3);
    EXPECT_THAT(out, ElementsAre(10, 102, 20, 200));
    const double negative[] = {-1, -2, 0, std::nan("")};
    convolve(negative, out.data(), kernel, 4, 3);
    EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
    const std::vector<double> wide(11, 1);
    convolve(in, out.data(), wide.data(), 4, 11);
    EXPECT_THAT(out, ElementsAre(3, 3, 3, 3));
}

TEST(SignalTest, RoundingAndAngles) {
    EXPECT_EQ(fround(2.5), 3);
    EXPECT_EQ(fround(2.49), 2);
    EXPECT_EQ(fround(-1.5), -1);
    EXPECT_EQ(fround(1e300), std::numeric_limits<int>::max());
    EXPECT_EQ(fround(-1e300), std::numeric_limits<int>::min());
    EXPECT_EQ(delta_angle(10, 350), 20);
    EXPECT_EQ(delta_angle(350, 10), -20);
    EXPECT_EQ(delta_angle(180, 0), 180);
}

TEST(DateTest, DecimalYears) {
    const auto year = [](const char* text) {
        double out = 0;
        EXPECT_EQ(decimal_date2(text, &out), 0);
        return out;
    };
    EXPECT_DOUBLE_EQ(year("960301"), 1996 + 61.0 / 366);
    EXPECT_DOUBLE_EQ(year("970301"), 1997 + 60.0 / 365);
    EXPECT_DOUBLE_EQ(year("961231"), 1997);
    EXPECT_DOUBLE_EQ(year("971231"), 1998);
    EXPECT_DOUBLE_EQ(year("979931"), 1998) << "no month beyond the twelfth";
    EXPECT_DOUBLE_EQ(year("97"), 1997);
}

// --- Text fields

TEST(FieldTest, BlocksAreSeparatedByBlanks) {
    char field[16];
    int pos = 0;
    get_block("ab  c", field, pos);
    EXPECT_STREQ(field, "ab");
    EXPECT_EQ(pos, 4);
    get_block("ab  c", field, pos);
    EXPECT_STREQ(field, "c");
    EXPECT_EQ(pos, 5);
    get_block("ab  c", field, pos);
    EXPECT_STREQ(field, "") << "nothing is left";

    char text[] = "one two  three";
    EXPECT_EQ(skip_blocks(text, 2), text + 9);
    EXPECT_STREQ(skip_blocks(text, 3), "");
    EXPECT_EQ(skip_blocks(text, 4), nullptr);
    EXPECT_EQ(skip_blocks(text, 0), text);
}

TEST(FieldTest, NumbersAreTakenFromTheLine) {
    double numbers[3] = {};
    char line[] = "name 1.5 -2e3 rest of it";
    EXPECT_EQ(sscanf_n(line, 1, 2, numbers), line);
    EXPECT_THAT(numbers, ElementsAre(1.5, -2000, 0));
    EXPECT_STREQ(line, "rest of it");

    int whole[2] = {};
    char exact[] = "7 8";
    EXPECT_NE(sscanf_n_i(exact, 0, 2, whole), nullptr);
    EXPECT_THAT(whole, ElementsAre(7, 8));
    EXPECT_STREQ(exact, "");

    long large[2] = {};
    char tooShort[] = "4294967296";
    EXPECT_EQ(sscanf_n_li(tooShort, 0, 2, large), nullptr);
    EXPECT_EQ(large[0], 4294967296);
    EXPECT_STREQ(tooShort, "");
    char noNumber[] = "x 1";
    EXPECT_EQ(sscanf_n_li(noNumber, 0, 1, large), nullptr);
    EXPECT_STREQ(noNumber, "");
}

TEST(FieldTest, Characters) {
    EXPECT_EQ(strcmp2("abc", "abc"), 0);
    EXPECT_EQ(strcmp2("abc", "abcd"), 1);
    EXPECT_EQ(strcmp2("abd", "abc"), 1);
    EXPECT_EQ(hasLetters("12z"), 1);
    EXPECT_EQ(hasLetters("@[`{ 12\xe9"), 0) << "only ASCII counts";
}

} // namespace
