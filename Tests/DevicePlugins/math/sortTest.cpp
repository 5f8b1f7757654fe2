#include "sort2.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>
#include <vector>

namespace {

struct Keys {
    std::vector<double> keys;
    std::vector<long> companions;

    // With few different values, so that many are equal.
    explicit Keys(int n) : keys(static_cast<std::size_t>(n)), companions(keys.size()) {
        std::mt19937 generator(static_cast<unsigned>(n));
        for (double& key : keys)
            key = static_cast<double>(generator() % 64) - 32;
        std::iota(companions.begin(), companions.end(), 0L);
    }

    // Every key is still with its companion, and each companion is there once.
    bool isPermutationOf(const Keys& original) const {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (keys[i] != original.keys[static_cast<std::size_t>(companions[i])])
                return false;
        }
        return std::is_permutation(companions.begin(), companions.end(), original.companions.begin());
    }
};

TEST(SortTest, SortsKeysWithTheirCompanions) {
    for (int n : {0, 1, 2, 3, 4, 5, 8, 17, 100, 1000}) {
        const Keys original(n);
        Keys ascending = original;
        sort_0(n, ascending.keys.data(), ascending.companions.data());
        EXPECT_TRUE(std::is_sorted(ascending.keys.begin(), ascending.keys.end())) << n;
        EXPECT_TRUE(ascending.isPermutationOf(original)) << n;

        Keys descending = original;
        sort_0_lf(n, descending.keys.data(), descending.companions.data());
        EXPECT_TRUE(std::is_sorted(descending.keys.rbegin(), descending.keys.rend())) << n;
        EXPECT_TRUE(descending.isPermutationOf(original)) << n;

        std::vector<double> alone = original.keys;
        sort_0(n, alone.data());
        EXPECT_EQ(alone, ascending.keys);
        std::vector<long> whole = ascending.companions;
        sort_0(n, whole.data());
        EXPECT_EQ(whole, original.companions);
    }
}

TEST(SortTest, OneBasedSortsLeaveElementZero) {
    std::vector<double> keys = {9, 3, 1, 2};
    sort(3, keys.data());
    EXPECT_THAT(keys, testing::ElementsAre(9, 1, 2, 3));
    std::vector<long> companions = {-1, 10, 20, 30};
    keys = {9, 3, 1, 2};
    sort2(3, keys.data(), companions.data());
    EXPECT_THAT(keys, testing::ElementsAre(9, 1, 2, 3));
    EXPECT_THAT(companions, testing::ElementsAre(-1, 20, 30, 10));
}

TEST(SortTest, PartialSortsFinishTheEnd) {
    const int n = 200;
    const Keys original(n);
    std::vector<double> sorted = original.keys;
    std::sort(sorted.begin(), sorted.end());
    for (int k : {0, 1, 20, n - 1, 5 * n}) {
        const int final = std::min(k + 1, n);
        Keys smallest = original;
        sort_0_c(n, smallest.keys.data(), smallest.companions.data(), k);
        EXPECT_TRUE(smallest.isPermutationOf(original));
        EXPECT_TRUE(std::equal(sorted.begin(), sorted.begin() + final, smallest.keys.rbegin())) << k;

        Keys largest = original;
        sort_0_c_lf(n, largest.keys.data(), largest.companions.data(), k);
        EXPECT_TRUE(largest.isPermutationOf(original));
        EXPECT_TRUE(std::equal(sorted.rbegin(), sorted.rbegin() + final, largest.keys.rbegin())) << k;
    }
}

TEST(SortTest, StopsEarlyWhenOnlyPartIsAskedFor) {
    std::vector<double> keys(1000);
    std::iota(keys.begin(), keys.end(), 0.0);
    std::vector<long> companions(keys.size());
    sort_0_c(1000, keys.data(), companions.data(), 3);
    EXPECT_FALSE(std::is_sorted(keys.rbegin(), keys.rend()));
}

} // namespace
