#include "Fft.h"

#include <cmath>
#include <utility>

namespace suggest {

namespace {
constexpr double kPi = 3.14159265358979323846;
}

// In-place radix-2 FFT of a power-of-two length.
void fft(std::vector<std::complex<float>>& a)
{
    std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        double ang = -2 * kPi / static_cast<double>(len);
        std::complex<float> wl(static_cast<float>(std::cos(ang)), static_cast<float>(std::sin(ang)));
        for (std::size_t i = 0; i < n; i += len) {
            std::complex<float> w(1, 0);
            for (std::size_t k = 0; k < len / 2; ++k) {
                auto u = a[i + k], v = a[i + k + len / 2] * w;
                a[i + k] = u + v;
                a[i + k + len / 2] = u - v;
                w *= wl;
            }
        }
    }
}


void inverseFft(std::vector<std::complex<float>>& a)
{
    for (auto& x : a) x = std::conj(x);
    fft(a);
    float scale = a.empty() ? 1.f : 1.f / static_cast<float>(a.size());
    for (auto& x : a) x = std::conj(x) * scale;
}

std::size_t fftSize(std::size_t n)
{
    std::size_t size = 1;
    while (size < n) size <<= 1;
    return size;
}

} // namespace suggest
