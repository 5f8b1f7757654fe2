#pragma once

// Eigen on plain arrays, row by row, compiled for the processor of this machine.
namespace eigenPeer {

void multiply(const double* a, const double* b, double* c, long n);
void inverse(const double* a, double* out, long n);
// Thin U and V; `values` receives the singular values. The fixed one is for matrices of 3 x 3 known to the
// compiler.
void jacobiSvd(const double* a, double* values, long n);
void jacobiSvdFixed3(const double* a, double* values);

} // namespace eigenPeer
