// The x86 vector forms of the OFDM modulator's transform and of the "agi"
// sample codes; ofdm.cpp holds the portable forms they equal bit for bit.
#include "ofdm/ofdm_x86.hpp"

#if TERVANE_X86

namespace ofdm_detail {

// All stages with 256-bit vectors: two butterflies of a block at a time from the
// second stage on (the first stage has one butterfly per block).
TERVANE_AVX void ifft_avx(const IfftState& st, dvbComplex* buf) {
    const uint32_t F = st.fft_size;
    for (uint32_t z = 0; z < F; z += 2) butterfly2(buf + z, buf + z + 1, st.twc.data(), st.tws.data());
    for (int32_t v = 2; v <= st.stages; v++) {
        const uint32_t H = 1u << (v - 1);
        const uint32_t B = H << 1;
        const double* c = st.twc.data() + 2 * (H - 1);
        const double* s = st.tws.data() + 2 * (H - 1);
        for (uint32_t z = 0; z < F; z += B) {
            float* A = reinterpret_cast<float*>(buf + z);
            float* D = reinterpret_cast<float*>(buf + z + H);
            for (uint32_t j = 0; j < 2 * H; j += 4) {
                const __m256d dv = _mm256_cvtps_pd(_mm_loadu_ps(D + j));
                const __m256d av = _mm256_cvtps_pd(_mm_loadu_ps(A + j));
                const __m256d t = _mm256_add_pd(_mm256_mul_pd(_mm256_loadu_pd(c + j), dv),
                                                _mm256_mul_pd(_mm256_loadu_pd(s + j), _mm256_permute_pd(dv, 5)));
                _mm_storeu_ps(A + j, _mm256_cvtpd_ps(_mm256_add_pd(av, t)));
                _mm_storeu_ps(D + j, _mm256_cvtpd_ps(_mm256_sub_pd(av, t)));
            }
        }
    }
}

namespace {

// 512-bit form: four complex values per register, held as doubles. Every
// butterfly output is rounded to float (narrowed, and widened again when the
// value stays in a register for the next stage), so each stage gives exactly
// the values the plain form stores.
TERVANE_AVX512 inline __m512d widen(__m256 x) { return _mm512_cvtps_pd(x); }
TERVANE_AVX512 inline __m256 narrow(__m512d x) { return _mm512_cvtpd_ps(x); }
TERVANE_AVX512 inline __m512d round_f(__m512d x) { return widen(narrow(x)); }
TERVANE_AVX512 inline __m512d load_f(const dvbComplex* p) {
    return widen(_mm256_loadu_ps(reinterpret_cast<const float*>(p)));
}
TERVANE_AVX512 inline void store_f(dvbComplex* p, __m512d x) {
    _mm256_storeu_ps(reinterpret_cast<float*>(p), narrow(x));
}
// t = (c + i s) d on four values, with c = (c, c) and s = (-s, s) per value.
TERVANE_AVX512 inline __m512d twiddle(__m512d d, __m512d c, __m512d s) {
    return _mm512_add_pd(_mm512_mul_pd(c, d), _mm512_mul_pd(s, _mm512_permute_pd(d, 0x55)));
}
// Butterfly whose outputs stay in registers for the next stage.
TERVANE_AVX512 inline void bfly_keep(__m512d& a, __m512d& d, __m512d c, __m512d s) {
    const __m512d t = twiddle(d, c, s);
    const __m512d na = _mm512_add_pd(a, t);
    d = round_f(_mm512_sub_pd(a, t));
    a = round_f(na);
}

// The twiddle factors of stages 1 to 3 as the first pass uses them: stage 1's
// one factor in every lane, stage 2's two factors repeated, stage 3's four.
struct First3Twiddles {
    __m512d c1, s1, c2, s2, c3, s3;
};

TERVANE_AVX512 First3Twiddles first3_twiddles(const IfftState& st) {
    alignas(64) double c[3][8], s[3][8];
    for (int k = 0; k < 4; k++) {
        for (int h = 0; h < 2; h++) {
            c[0][2 * k + h] = st.twc[h];
            s[0][2 * k + h] = st.tws[h];
            c[1][2 * k + h] = st.twc[2 + 2 * (k % 2) + h];
            s[1][2 * k + h] = st.tws[2 + 2 * (k % 2) + h];
            c[2][2 * k + h] = st.twc[6 + 2 * k + h];
            s[2][2 * k + h] = st.tws[6 + 2 * k + h];
        }
    }
    return {_mm512_load_pd(c[0]), _mm512_load_pd(s[0]), _mm512_load_pd(c[1]),
            _mm512_load_pd(s[1]), _mm512_load_pd(c[2]), _mm512_load_pd(s[2])};
}

// Stages 1 to 3 on groups of eight values: raw holds the group's eight complex
// floats in the order 0 2 4 6 1 3 5 7 (the pairs of stage 1).
TERVANE_AVX512 inline void first3(__m512i raw, const First3Twiddles& w, dvbComplex* out) {
    __m512d a = widen(_mm256_castsi256_ps(_mm512_castsi512_si256(raw)));
    __m512d d = widen(_mm256_castsi256_ps(_mm512_extracti64x4_epi64(raw, 1)));
    bfly_keep(a, d, w.c1, w.s1);  // a = 0 2 4 6, d = 1 3 5 7
    // Stage 2 pairs (0, 2), (1, 3), (4, 6), (5, 7).
    __m512d a2 = _mm512_permutex2var_pd(a, _mm512_setr_epi64(0, 1, 8, 9, 4, 5, 12, 13), d);
    __m512d d2 = _mm512_permutex2var_pd(a, _mm512_setr_epi64(2, 3, 10, 11, 6, 7, 14, 15), d);
    bfly_keep(a2, d2, w.c2, w.s2);  // a2 = 0 1 4 5, d2 = 2 3 6 7
    // Stage 3 pairs (k, k + 4).
    const __m512d a3 = _mm512_shuffle_f64x2(a2, d2, 0x44);
    const __m512d d3 = _mm512_shuffle_f64x2(a2, d2, 0xEE);
    const __m512d t = twiddle(d3, w.c3, w.s3);
    store_f(out, _mm512_add_pd(a3, t));
    store_f(out + 4, _mm512_sub_pd(a3, t));
}

// One stage v on its own (H >= 4).
TERVANE_AVX512 void stage_avx512(const IfftState& st, dvbComplex* buf, int32_t v) {
    const uint32_t H = 1u << (v - 1);
    const double* c = st.twc.data() + 2 * (H - 1);
    const double* s = st.tws.data() + 2 * (H - 1);
    for (uint32_t z = 0; z < st.fft_size; z += 2 * H) {
        for (uint32_t j = 0; j < H; j += 4) {
            const __m512d a = load_f(buf + z + j);
            const __m512d t = twiddle(load_f(buf + z + j + H), _mm512_loadu_pd(c + 2 * j), _mm512_loadu_pd(s + 2 * j));
            store_f(buf + z + j, _mm512_add_pd(a, t));
            store_f(buf + z + j + H, _mm512_sub_pd(a, t));
        }
    }
}

// Stages v and v + 1 in one pass (H = 2^(v-1) >= 4): four values a block of
// 4H apart go through both stages in registers.
TERVANE_AVX512 void stage_pair_avx512(const IfftState& st, dvbComplex* buf, int32_t v) {
    const uint32_t H = 1u << (v - 1);
    const double* c1 = st.twc.data() + 2 * (H - 1);
    const double* s1 = st.tws.data() + 2 * (H - 1);
    const double* c2 = st.twc.data() + 2 * (2 * H - 1);
    const double* s2 = st.tws.data() + 2 * (2 * H - 1);
    for (uint32_t z = 0; z < st.fft_size; z += 4 * H) {
        dvbComplex* p = buf + z;
        for (uint32_t j = 0; j < H; j += 4) {
            __m512d x0 = load_f(p + j), x1 = load_f(p + j + H);
            __m512d x2 = load_f(p + j + 2 * H), x3 = load_f(p + j + 3 * H);
            const __m512d cv = _mm512_loadu_pd(c1 + 2 * j), sv = _mm512_loadu_pd(s1 + 2 * j);
            bfly_keep(x0, x1, cv, sv);
            bfly_keep(x2, x3, cv, sv);
            const __m512d t0 = twiddle(x2, _mm512_loadu_pd(c2 + 2 * j), _mm512_loadu_pd(s2 + 2 * j));
            const __m512d t1 = twiddle(x3, _mm512_loadu_pd(c2 + 2 * (j + H)), _mm512_loadu_pd(s2 + 2 * (j + H)));
            store_f(p + j, _mm512_add_pd(x0, t0));
            store_f(p + j + 2 * H, _mm512_sub_pd(x0, t0));
            store_f(p + j + H, _mm512_add_pd(x1, t1));
            store_f(p + j + 3 * H, _mm512_sub_pd(x1, t1));
        }
    }
}

// Stages 4 .. bit_num after the first three.
TERVANE_AVX512 void rest_avx512(const IfftState& st, dvbComplex* buf) {
    int32_t v = 4;
    if ((st.stages - 3) % 2 != 0) stage_avx512(st, buf, v++);
    for (; v < st.stages; v += 2) stage_pair_avx512(st, buf, v);
}

}  // namespace

TERVANE_AVX512 void ifft_avx512(const IfftState& st, dvbComplex* buf) {
    const First3Twiddles w = first3_twiddles(st);
    const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
    for (uint32_t z = 0; z < st.fft_size; z += 8)
        first3(_mm512_permutexvar_epi64(order, _mm512_loadu_si512(buf + z)), w, buf + z);
    rest_avx512(st, buf);
}
// The gather of the cells folded into the first pass: eight cells per gather,
// the empty bins masked to zero.
TERVANE_AVX512 void symbol_avx512(const IfftState& st, const dvbComplex* cells, dvbComplex* dst) {
    const __m256i K = _mm256_set1_epi32(static_cast<int32_t>(st.gather_K));
    const auto* base = reinterpret_cast<const long long*>(cells);
    const First3Twiddles w = first3_twiddles(st);
    for (uint32_t z = 0; z < st.fft_size; z += 8) {
        const __m256i idx = _mm256_load_si256(reinterpret_cast<const __m256i*>(st.gather8.data() + z));
        const __mmask8 used = _mm256_cmpneq_epi32_mask(idx, K);
        first3(_mm512_mask_i32gather_epi64(_mm512_setzero_si512(), used, idx, base, 8), w, dst + z);
    }
    rest_avx512(st, dst);
}

// Eight samples at a time: the products in double, truncated by the
// conversion (which gives INT32_MIN out of range, as scaled does), codes out
// of the 16-bit range made -32768, then big-endian.
TERVANE_AVX512 uint32_t agi_codes_avx512(const dvbComplex* src, uint32_t m, float sf, uint8_t* p) {
    const __m512d f = _mm512_set1_pd(static_cast<double>(sf));
    const __m512i lo = _mm512_set1_epi32(-32768), hi = _mm512_set1_epi32(32767);
    const __m256i swap = _mm256_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14, 1, 0, 3, 2, 5, 4, 7, 6,
                                          9, 8, 11, 10, 13, 12, 15, 14);
    uint32_t i = 0;
    for (; i + 8 <= m; i += 8, p += 32) {
        const __m512 x = _mm512_loadu_ps(reinterpret_cast<const float*>(src + i));
        const __m256i a = _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_cvtps_pd(_mm512_castps512_ps256(x)), f));
        const __m256i b = _mm512_cvttpd_epi32(
            _mm512_mul_pd(_mm512_cvtps_pd(_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(x), 1))), f));
        __m512i v = _mm512_inserti64x4(_mm512_castsi256_si512(a), b, 1);
        const __mmask16 out = _mm512_cmplt_epi32_mask(v, lo) | _mm512_cmpgt_epi32_mask(v, hi);
        v = _mm512_mask_mov_epi32(v, out, lo);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm256_shuffle_epi8(_mm512_cvtepi32_epi16(v), swap));
    }
    return i;
}

}  // namespace ofdm_detail

#endif
