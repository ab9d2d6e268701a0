// The x86 vector forms of the interpolation filter. Each register holds the
// (re, im) pairs of consecutive inputs, so one broadcast coefficient serves a
// whole register: y[R t + m] = sum over j of h[m + j R] x[t - j] is summed from
// +0 in tap order j = 0, 1, ..., every product x * h rounded to float, exactly
// as in the portable form; the phases' sums are then interleaved into output
// order. Output R - 1 has 15 taps, the others 16.
#include "ofdm/filter_x86.hpp"

#if TERVANE_X86

#include <cstring>

#include "ofdm/filter.hpp"

namespace filter_detail {

namespace {

template <int R>
constexpr const float* taps() {
    if constexpr (R == 2) return filter2x.data();
    else return filter4x.data();
}

// The R sums of U blocks of W consecutive inputs from x on, in registers of
// type V (W pairs each), written with the compiler's vector operators so that
// the instructions are those of the calling function's instruction set.
template <int R, int U, typename V>
__attribute__((always_inline)) inline void sums(const dvbComplex* x, V (&acc)[U][R]) {
    constexpr int W = sizeof(V) / sizeof(dvbComplex);
    const float* h = taps<R>();
#pragma GCC unroll 4
    for (int b = 0; b < U; ++b)
#pragma GCC unroll 4
        for (int m = 0; m < R; ++m) acc[b][m] = V{};
#pragma GCC unroll 16
    for (int j = 0; j < 16; ++j) {
        V xv[U];
#pragma GCC unroll 4
        for (int b = 0; b < U; ++b) std::memcpy(&xv[b], x + b * W - j, sizeof(V));
#pragma GCC unroll 4
        for (int m = 0; m < R; ++m) {
            if (j == 15 && m == R - 1) continue;
            const float hj = h[m + j * R];
#pragma GCC unroll 4
            for (int b = 0; b < U; ++b) acc[b][m] += xv[b] * hj;
        }
    }
}

// The outputs of one block in order, R per input. The pairs are moved as 64-bit
// elements: unpack puts outputs m and m + 1 of one input side by side, the lane
// shuffles put the inputs in order.
TERVANE_AVX inline __m256d pd(__m256 a) { return _mm256_castps_pd(a); }
TERVANE_AVX inline void store_u(dvbComplex* y, __m256d v) { _mm256_storeu_pd(reinterpret_cast<double*>(y), v); }
TERVANE_AVX512 inline __m512d pd(__m512 a) { return _mm512_castps_pd(a); }
TERVANE_AVX512 inline void store_u(dvbComplex* y, __m512d v) { _mm512_storeu_pd(reinterpret_cast<double*>(y), v); }

TERVANE_AVX inline void store_outputs(const __m256 (&a)[2], dvbComplex* o) {
    const __m256d p = _mm256_unpacklo_pd(pd(a[0]), pd(a[1]));  // inputs 0 and 2
    const __m256d q = _mm256_unpackhi_pd(pd(a[0]), pd(a[1]));  // inputs 1 and 3
    store_u(o, _mm256_permute2f128_pd(p, q, 0x20));
    store_u(o + 4, _mm256_permute2f128_pd(p, q, 0x31));
}

TERVANE_AVX inline void store_outputs(const __m256 (&a)[4], dvbComplex* o) {
    const __m256d p = _mm256_unpacklo_pd(pd(a[0]), pd(a[1]));  // outputs 0, 1 of inputs 0 and 2
    const __m256d q = _mm256_unpackhi_pd(pd(a[0]), pd(a[1]));  // of inputs 1 and 3
    const __m256d r = _mm256_unpacklo_pd(pd(a[2]), pd(a[3]));  // outputs 2, 3 of inputs 0 and 2
    const __m256d s = _mm256_unpackhi_pd(pd(a[2]), pd(a[3]));  // of inputs 1 and 3
    store_u(o, _mm256_permute2f128_pd(p, r, 0x20));
    store_u(o + 4, _mm256_permute2f128_pd(q, s, 0x20));
    store_u(o + 8, _mm256_permute2f128_pd(p, r, 0x31));
    store_u(o + 12, _mm256_permute2f128_pd(q, s, 0x31));
}

TERVANE_AVX512 inline void store_outputs(const __m512 (&a)[2], dvbComplex* o) {
    const __m512d p = _mm512_unpacklo_pd(pd(a[0]), pd(a[1]));  // inputs 0 2 4 6
    const __m512d q = _mm512_unpackhi_pd(pd(a[0]), pd(a[1]));  // inputs 1 3 5 7
    store_u(o, _mm512_permutex2var_pd(p, _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11), q));
    store_u(o + 8, _mm512_permutex2var_pd(p, _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15), q));
}

TERVANE_AVX512 inline void store_outputs(const __m512 (&a)[4], dvbComplex* o) {
    const __m512d p = _mm512_unpacklo_pd(pd(a[0]), pd(a[1]));  // outputs 0, 1 of inputs 0 2 4 6
    const __m512d q = _mm512_unpackhi_pd(pd(a[0]), pd(a[1]));  // of inputs 1 3 5 7
    const __m512d r = _mm512_unpacklo_pd(pd(a[2]), pd(a[3]));  // outputs 2, 3 of inputs 0 2 4 6
    const __m512d s = _mm512_unpackhi_pd(pd(a[2]), pd(a[3]));  // of inputs 1 3 5 7
    const __m512d pr_lo = _mm512_shuffle_f64x2(p, r, 0x44), qs_lo = _mm512_shuffle_f64x2(q, s, 0x44);
    const __m512d pr_hi = _mm512_shuffle_f64x2(p, r, 0xEE), qs_hi = _mm512_shuffle_f64x2(q, s, 0xEE);
    store_u(o, _mm512_shuffle_f64x2(pr_lo, qs_lo, 0x88));
    store_u(o + 8, _mm512_shuffle_f64x2(pr_lo, qs_lo, 0xDD));
    store_u(o + 16, _mm512_shuffle_f64x2(pr_hi, qs_hi, 0x88));
    store_u(o + 24, _mm512_shuffle_f64x2(pr_hi, qs_hi, 0xDD));
}

// Whole blocks of U registers of inputs: their sums, then their outputs in order.
template <int R, int U, typename V>
__attribute__((always_inline)) inline uint32_t blocks(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    constexpr uint32_t W = sizeof(V) / sizeof(dvbComplex);
    uint32_t t = 0;
    for (; t + U * W <= c; t += U * W) {
        V a[U][R];
        sums<R, U>(x + t, a);
        for (uint32_t b = 0; b < U; ++b) store_outputs(a[b], y + R * (t + W * b));
    }
    return t;
}

}  // namespace

TERVANE_AVX uint32_t interpolate2_avx(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    return blocks<2, 4, __m256>(x, c, y);
}
TERVANE_AVX uint32_t interpolate4_avx(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    return blocks<4, 2, __m256>(x, c, y);
}
TERVANE_AVX512 uint32_t interpolate2_avx512(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    return blocks<2, 4, __m512>(x, c, y);
}
TERVANE_AVX512 uint32_t interpolate4_avx512(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    return blocks<4, 2, __m512>(x, c, y);
}

}  // namespace filter_detail

#endif
