// Internal to the interpolation filter: the x86 vector forms, which compute the
// same sums as the portable form in filter.cpp, in the same order, and so give
// the same bits.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"
#include "vectors/simd.hpp"

namespace filter_detail {

// Inputs older than the newest that one output group needs (16 taps).
inline constexpr uint32_t history = 15;

#if TERVANE_X86
// Outputs y[R t + m] = sum over j of h[m + j R] x[t - j], for the first inputs
// t of [0, c) in whole blocks (x[-15 .. c) readable); returns how many inputs
// they covered, the rest is left to the portable form.
uint32_t interpolate2_avx(const dvbComplex* x, uint32_t c, dvbComplex* y);
uint32_t interpolate4_avx(const dvbComplex* x, uint32_t c, dvbComplex* y);
uint32_t interpolate2_avx512(const dvbComplex* x, uint32_t c, dvbComplex* y);
uint32_t interpolate4_avx512(const dvbComplex* x, uint32_t c, dvbComplex* y);
#endif

}  // namespace filter_detail
