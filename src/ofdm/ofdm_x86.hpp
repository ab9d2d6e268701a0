// Internal to the OFDM modulator: the transform's state, which ofdm.cpp owns
// and passes to every form, and the x86 vector forms of the transform and of
// the "agi" sample codes, which equal the portable forms bit for bit.
#pragma once

#include <array>
#include <cstdint>

#include "frame/params.hpp"
#include "vectors/manage.hpp"
#include "vectors/simd.hpp"

inline constexpr uint32_t max_F = dvbt_fftsize.back();
inline constexpr uint32_t max_K = dvbt_K.back();

namespace ofdm_detail {

// The transform's state for the current mode, set by init_ifft and read by
// every form of the transform.
struct IfftState {
    // Twiddle factors of every stage as the recurrence yields them: stage v
    // holds its H = 2^(v-1) factors from index H - 1 on, each c + i s kept as
    // the pairs (c, c) in twc and (-s, s) in tws.
    alignas(64) std::array<double, 2 * max_F> twc{};
    alignas(64) std::array<double, 2 * max_F> tws{};
    // FFT size and number of stages.
    uint32_t fft_size = 0;
    int32_t stages = 0;
    // Source cell of every position of the work area (the carrier of its bin,
    // so that filling the work area in position order gathers the spectrum in
    // bit-reversed order), K (gather_K) for an empty bin; gather8 the same with
    // each group of eight in the order 0 2 4 6 1 3 5 7, as the 512-bit first
    // pass takes them. mapping is the frequency mapping they were built for.
    std::array<uint32_t, max_F> gather{};
    alignas(64) std::array<int32_t, max_F> gather8{};
    uint32_t gather_K = 0;
    int64_t mapping = -1;
};

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
void ifft_avx(const IfftState& st, dvbComplex* buf);
void ifft_avx512(const IfftState& st, dvbComplex* buf);
// The K cells of a symbol placed and transformed with 512-bit vectors.
void symbol_avx512(const IfftState& st, const dvbComplex* cells, dvbComplex* dst);
// The "agi" codes of the first samples of src[0 .. m), eight at a time, into p
// as big-endian pairs; returns how many it coded (a multiple of eight).
uint32_t agi_codes_avx512(const dvbComplex* src, uint32_t m, float sf, uint8_t* p);
#endif

}  // namespace ofdm_detail
