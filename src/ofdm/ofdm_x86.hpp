// Internal to the OFDM modulator: the x86 vector forms of the transform and of
// the "agi" sample codes, and the state they share with the portable forms in
// ofdm.cpp, which they must equal bit for bit.
#pragma once

#include <array>
#include <cstdint>

#include "frame/params.hpp"
#include "vectors/manage.hpp"
#include "vectors/simd.hpp"

inline constexpr uint32_t max_F = dvbt_fftsize.back();
inline constexpr uint32_t max_K = dvbt_K.back();

namespace ofdm_detail {

// Twiddle factors of every stage as the recurrence yields them: stage v holds
// its H = 2^(v-1) factors from index H - 1 on, each c + i s kept as the pairs
// (c, c) in twc and (-s, s) in tws.
alignas(64) extern std::array<double, 2 * max_F> twc;
alignas(64) extern std::array<double, 2 * max_F> tws;
// FFT size and number of stages of the current mode.
extern uint32_t fft_size;
extern int32_t stages;
// Source cell of every position of the work area in groups of eight, in the
// order 0 2 4 6 1 3 5 7, K (gather_K) for an empty bin.
alignas(64) extern std::array<int32_t, max_F> gather8;
extern uint32_t gather_K;

#if TERVANE_X86
// The same butterfly on the stored twiddle pairs c = (c, c), s = (-s, s):
// t = c * (d.re, d.im) + s * (d.im, d.re) gives (c d.re - s d.im, c d.im + s d.re)
// with the very same roundings, since s * d.im = -(s d.im) exactly.
inline void butterfly2(dvbComplex* a, dvbComplex* d, const double* c, const double* s) {
    const __m128d dv = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(d))));
    const __m128d av = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a))));
    const __m128d t = _mm_add_pd(_mm_mul_pd(_mm_load_pd(c), dv), _mm_mul_pd(_mm_load_pd(s), _mm_shuffle_pd(dv, dv, 1)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(a), _mm_castps_si128(_mm_cvtpd_ps(_mm_add_pd(av, t))));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_castps_si128(_mm_cvtpd_ps(_mm_sub_pd(av, t))));
}

// The whole transform with 256-bit vectors, and with 512-bit ones.
void ifft_avx(dvbComplex* buf);
void ifft_avx512(dvbComplex* buf);
// The K cells of a symbol placed and transformed with 512-bit vectors.
void symbol_avx512(const dvbComplex* cells, dvbComplex* dst);
// The "agi" codes of the first samples of src[0 .. m), eight at a time, into p
// as big-endian pairs; returns how many it coded (a multiple of eight).
uint32_t agi_codes_avx512(const dvbComplex* src, uint32_t m, float sf, uint8_t* p);
#endif

}  // namespace ofdm_detail
