#pragma once

// Heap sorts of plain arrays, in place. The companion array b, where there is one, receives the same moves as
// the keys, so that it tells where each key came from when it starts as 0, 1, 2, ... Equal keys keep no
// particular order; keys that are no numbers end up anywhere. Any thread.

// One-based: the keys are a[1] to a[n]. Ascending.
void sort(int n, double* a);
void sort2(int n, double* a, long* b);

// Zero-based, ascending.
void sort_0(int n, double* a);
void sort_0(int n, double* a, long* b);
void sort_0(int n, long* a);

// Zero-based, descending.
void sort_0_lf(int n, double* a, long* b);

// Zero-based and partial: only the last k + 1 positions are final, the others hold the rest in no useful
// order. sort_0_c leaves the smallest values there, the smallest at the very end; sort_0_c_lf the largest,
// the largest at the very end.
void sort_0_c(long n, double* a, long* b, int k);
void sort_0_c_lf(long n, double* a, long* b, int k);
