// A small FFT for the analysis of envelopes and sound: no library in the
// core, and the sizes here are powers of two.
#pragma once

#include <complex>
#include <cstddef>
#include <vector>

namespace suggest {

// In-place radix-2 FFT of a power-of-two length (forward: e^-i).
void fft(std::vector<std::complex<float>>& a);
// In-place inverse, scaled by 1/n.
void inverseFft(std::vector<std::complex<float>>& a);
// The smallest power of two >= n.
std::size_t fftSize(std::size_t n);

} // namespace suggest
