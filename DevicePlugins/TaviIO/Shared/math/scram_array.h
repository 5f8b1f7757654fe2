#pragma once

// A reproducible permutation: the same number of items is always permuted the same way. The draws come from
// ran1 (assort.h), which is restarted for it; so these are for one thread at a time. Less than two items stay
// as they are.

// Permutes the n values of an array.
void scramble2(int* a, int n);
void scramble2(long* a, long n);

// Moves item k of an array of equally long items to position p(k), where p is 0, 1, ... permuted by
// scramble2.
void scramble_array(double* data, int items, int itemSize);
void scramble_array(long* data, int items, int itemSize);
void scramble_array(unsigned char* data, int items, int itemSize);

// Undoes scramble_array for the same number of items.
void unscramble_array(double* data, int items, int itemSize);
void unscramble_array(unsigned char* data, int items, int itemSize);
