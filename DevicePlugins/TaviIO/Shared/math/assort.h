#pragma once

// Small routines on plain arrays and text that belong to the caller.

// --- Random numbers. Both variants of ran1 and rand1's own seed are state of the process: one thread at a
// time.

// The seed of rand1(lo, hi).
extern int s1;

// The next number between 0 and 1 of a generator that shuffles the draws of two linear congruential
// generators with a third. Starts anew on the first call and whenever *seed is negative, and then sets *seed
// to 1: equal seeds give equal sequences. The two variants keep separate state.
double ran1(int* seed);
double ran1(long* seed);

// A whole number from lo up to but not including hi, with the long variant and the caller's seed or with the
// int variant and s1.
long rand1(long lo, long hi);
long rand1(long lo, long hi, long* seed);
// A whole number from 0 up to n; in single precision, so n itself can come up.
long rand1(long n, int* seed);

// --- Signals and angles

// k[i] = exp(-(i - h)^2 a / h^2), h the middle index n / 2. A kernel of one sample is 1.
void generate_gaus_kernal(double* k, int n, double a);
// out[i] = c exp((i + a) b); prints a, b and c.
void generate_decay_curve(double* out, int n, double a, double b, double c);
// Spreads every positive sample of `in` over `out` with the kernel centred on it; other samples contribute
// nothing. The two arrays of n samples must not overlap.
void convolve(const double* in, double* out, const double* kernel, int n, int klen);
// Rounds halves towards positive infinity above zero; below zero everything is cut off. Values beyond int
// become its nearest one, and what is no number becomes 0.
int fround(double x);
// The difference a - b of two angles in degrees, brought from one turn too much or too little to within half
// a turn.
double delta_angle(double a, double b);
// Prints the values on one line.
void print_array(const double* a, int n);
// Prints a complaint; the program goes on.
void error(const char* text);

// --- Dates

// The year of a date "yymmdd" in the 1900s with the elapsed part of the year as its fraction; returns 0. A
// month outside 1 to 12 counts as the nearest one, a character that is no digit as 0.
int decimal_date2(const char* yymmdd, double* out);

// --- Text fields, separated by blanks (spaces and tabs)

// Copies the field at s[pos] into `field`, which must have room for it, and moves pos to the next field.
void get_block(const char* s, char* field, int& pos);
// The position after the first n fields and their blanks; null when there are fewer.
char* skip_blocks(char* s, int n);
// Skip `skip` fields of `line`, read the next `count` ones and leave in `line` the text after them. The
// result is `line`; when a field is missing or cannot be read, `line` is emptied and the result is null.
char* sscanf_n(char* line, int skip, int count, double* out);
char* sscanf_n_i(char* line, int skip, int count, int* out);
char* sscanf_n_li(char* line, int skip, int count, long* out);
// 0 when both texts are the same, else 1.
int strcmp2(const char* a, const char* b);
// 1 when there is an ASCII letter in the text, else 0.
int hasLetters(const char* s);
