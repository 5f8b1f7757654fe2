// From what clients send to numbers that arithmetic is defined for. Thread-safe.
#pragma once

#include <string>

// Truncated towards zero; what does not fit becomes the nearest int, nan becomes 0.
int SaturatedInt(double value);
// As atol reads: leading blanks, a sign, decimal digits; 0 where there is no number. What does not fit
// becomes the nearest int.
int IntFromText(const char* text);
// As atof reads, then rounded to float; 0 where there is no number.
float FloatFromText(const char* text);
// printf's "%d" and "%f".
std::string TextFromInt(int value);
std::string TextFromFloat(float value);
