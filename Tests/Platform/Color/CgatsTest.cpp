#include <Color/Cgats.h>

#include <gtest/gtest.h>
TEST(A, B) {}
