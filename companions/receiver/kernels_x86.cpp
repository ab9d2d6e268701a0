// The x86 vector forms of the demapper and the add-compare-select; kernels.cpp
// holds the plain forms they equal, operation for operation.
#include "receiver/kernels.hpp"

#if TERVANE_X86

#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
// Vector values pass only between functions of the same target.
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace rx::detail {

namespace {

TERVANE_AVX512 inline __m512 sq(__m512 v) { return _mm512_mul_ps(v, v); }
TERVANE_AVX512 inline __m512 dist(__m512 ax, float m) { return sq(_mm512_sub_ps(ax, _mm512_set1_ps(m))); }

// The quantiser of the plain form: not a number to 0, clamped to +-127,
// rounded to the nearest (even) integer, at least 1 in size when not 0.
TERVANE_AVX512 inline __m128i quantise(__m512 v) {
    v = _mm512_maskz_mov_ps(_mm512_cmp_ps_mask(v, v, _CMP_ORD_Q), v);
    v = _mm512_max_ps(_mm512_min_ps(v, _mm512_set1_ps(127.0f)), _mm512_set1_ps(-127.0f));
    __m512i r = _mm512_cvtps_epi32(v);
    const __mmask16 z = _mm512_cmpeq_epi32_mask(r, _mm512_setzero_si512());
    const __m512 zero = _mm512_setzero_ps();
    r = _mm512_mask_mov_epi32(r, z & _mm512_cmp_ps_mask(v, zero, _CMP_GT_OQ), _mm512_set1_epi32(1));
    r = _mm512_mask_mov_epi32(r, z & _mm512_cmp_ps_mask(v, zero, _CMP_LT_OQ), _mm512_set1_epi32(-1));
    return _mm512_cvtepi32_epi8(r);
}

TERVANE_AVX512 inline __m128i signed_soft(__m512 x, __m512 ds, __m512 w) {
    const __m512 zero = _mm512_setzero_ps();
    return quantise(_mm512_mul_ps(_mm512_mask_sub_ps(ds, _mm512_cmp_ps_mask(x, zero, _CMP_LT_OQ), zero, ds), w));
}

template <uint32_t L>
TERVANE_AVX512 inline void axis(const float* m, __m512 x, __m512 w, int8_t* s, size_t stride) {
    const __m512 ax = _mm512_abs_ps(x);
    if constexpr (L == 1) {
        const __m512 d0 = dist(ax, m[0]);
        const __m512 ds = _mm512_sub_ps(sq(_mm512_add_ps(ax, _mm512_set1_ps(m[0]))), d0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s), signed_soft(x, ds, w));
    } else if constexpr (L == 2) {
        const __m512 d0 = dist(ax, m[0]), d1 = dist(ax, m[1]);
        const __m512 ds = _mm512_sub_ps(sq(_mm512_add_ps(ax, _mm512_set1_ps(m[1]))), _mm512_min_ps(d0, d1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s), signed_soft(x, ds, w));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s + 2 * stride), quantise(_mm512_mul_ps(_mm512_sub_ps(d1, d0), w)));
    } else {
        const __m512 d0 = dist(ax, m[0]), d1 = dist(ax, m[1]), d2 = dist(ax, m[2]), d3 = dist(ax, m[3]);
        const __m512 near = _mm512_min_ps(_mm512_min_ps(d0, d1), _mm512_min_ps(d2, d3));
        const __m512 ds = _mm512_sub_ps(sq(_mm512_add_ps(ax, _mm512_set1_ps(m[2]))), near);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s), signed_soft(x, ds, w));
        const __m512 a = _mm512_sub_ps(_mm512_min_ps(d2, d3), _mm512_min_ps(d0, d1));
        const __m512 b = _mm512_sub_ps(_mm512_min_ps(d1, d3), _mm512_min_ps(d0, d2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s + 2 * stride), quantise(_mm512_mul_ps(a, w)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(s + 4 * stride), quantise(_mm512_mul_ps(b, w)));
    }
}

template <uint32_t L>
TERVANE_AVX512 size_t demap_cells(const Constellation& c, const float* cells, const float* csi, size_t n, float scale,
                                  int8_t* planes, size_t stride) {
    const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m512 a = _mm512_loadu_ps(cells + 2 * i), b = _mm512_loadu_ps(cells + 2 * i + 16);
        const __m512 re = _mm512_permutex2var_ps(a, even, b), im = _mm512_permutex2var_ps(a, odd, b);
        const __m512 cs = _mm512_loadu_ps(csi + i);
        const __m512 w =
            _mm512_maskz_mul_ps(_mm512_cmp_ps_mask(cs, _mm512_setzero_ps(), _CMP_GT_OQ), cs, _mm512_set1_ps(scale));
        axis<L>(c.level.data(), re, w, planes + i, stride);
        axis<L>(c.level.data(), im, w, planes + stride + i, stride);
    }
    return i;
}

}  // namespace

TERVANE_AVX512 void demap_avx512(const Constellation& c, const float* cells, const float* csi, size_t n, float scale,
                                 int8_t* planes, size_t stride) {
    size_t done = 0;
    if (c.bits == 2) done = demap_cells<1>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 4) done = demap_cells<2>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 6) done = demap_cells<4>(c, cells, csi, n, scale, planes, stride);
    // The last cells of a count that is not a multiple of 16 take the plain form.
    demap_plain(c, cells + 2 * done, csi + done, n - done, scale, planes + done, stride);
}

namespace {

// The same with 256-bit floats (AVX), 8 cells at a time.
TERVANE_AVX inline __m256 sq8(__m256 v) { return _mm256_mul_ps(v, v); }
TERVANE_AVX inline __m256 dist8(__m256 ax, float m) { return sq8(_mm256_sub_ps(ax, _mm256_set1_ps(m))); }
TERVANE_AVX inline __m256 min8(__m256 a, __m256 b) { return _mm256_min_ps(a, b); }

TERVANE_AVX inline void quantise8(__m256 v, int8_t* out) {
    const __m256 zero = _mm256_setzero_ps();
    v = _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q));
    v = _mm256_max_ps(_mm256_min_ps(v, _mm256_set1_ps(127.0f)), _mm256_set1_ps(-127.0f));
    __m256 r = _mm256_round_ps(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m256 none = _mm256_cmp_ps(r, zero, _CMP_EQ_OQ);
    r = _mm256_blendv_ps(r, _mm256_set1_ps(1.0f), _mm256_and_ps(none, _mm256_cmp_ps(v, zero, _CMP_GT_OQ)));
    r = _mm256_blendv_ps(r, _mm256_set1_ps(-1.0f), _mm256_and_ps(none, _mm256_cmp_ps(v, zero, _CMP_LT_OQ)));
    const __m256i i = _mm256_cvttps_epi32(r);
    const __m128i w = _mm_packs_epi32(_mm256_castsi256_si128(i), _mm256_extractf128_si256(i, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packs_epi16(w, w));
}

TERVANE_AVX inline void signed_soft8(__m256 x, __m256 ds, __m256 w, int8_t* out) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 neg = _mm256_cmp_ps(x, zero, _CMP_LT_OQ);
    quantise8(_mm256_mul_ps(_mm256_blendv_ps(ds, _mm256_sub_ps(zero, ds), neg), w), out);
}

template <uint32_t L>
TERVANE_AVX inline void axis8(const float* m, __m256 x, __m256 w, int8_t* s, size_t stride) {
    const __m256 ax = _mm256_and_ps(x, _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF)));
    if constexpr (L == 1) {
        const __m256 d0 = dist8(ax, m[0]);
        signed_soft8(x, _mm256_sub_ps(sq8(_mm256_add_ps(ax, _mm256_set1_ps(m[0]))), d0), w, s);
    } else if constexpr (L == 2) {
        const __m256 d0 = dist8(ax, m[0]), d1 = dist8(ax, m[1]);
        signed_soft8(x, _mm256_sub_ps(sq8(_mm256_add_ps(ax, _mm256_set1_ps(m[1]))), min8(d0, d1)), w, s);
        quantise8(_mm256_mul_ps(_mm256_sub_ps(d1, d0), w), s + 2 * stride);
    } else {
        const __m256 d0 = dist8(ax, m[0]), d1 = dist8(ax, m[1]), d2 = dist8(ax, m[2]), d3 = dist8(ax, m[3]);
        const __m256 near = min8(min8(d0, d1), min8(d2, d3));
        signed_soft8(x, _mm256_sub_ps(sq8(_mm256_add_ps(ax, _mm256_set1_ps(m[2]))), near), w, s);
        quantise8(_mm256_mul_ps(_mm256_sub_ps(min8(d2, d3), min8(d0, d1)), w), s + 2 * stride);
        quantise8(_mm256_mul_ps(_mm256_sub_ps(min8(d1, d3), min8(d0, d2)), w), s + 4 * stride);
    }
}

template <uint32_t L>
TERVANE_AVX size_t demap_cells8(const Constellation& c, const float* cells, const float* csi, size_t n, float scale,
                                int8_t* planes, size_t stride) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 a = _mm256_loadu_ps(cells + 2 * i), b = _mm256_loadu_ps(cells + 2 * i + 8);
        const __m256 lo = _mm256_permute2f128_ps(a, b, 0x20), hi = _mm256_permute2f128_ps(a, b, 0x31);
        const __m256 re = _mm256_shuffle_ps(lo, hi, 0x88), im = _mm256_shuffle_ps(lo, hi, 0xDD);
        const __m256 cs = _mm256_loadu_ps(csi + i);
        const __m256 w =
            _mm256_and_ps(_mm256_mul_ps(cs, _mm256_set1_ps(scale)), _mm256_cmp_ps(cs, _mm256_setzero_ps(), _CMP_GT_OQ));
        axis8<L>(c.level.data(), re, w, planes + i, stride);
        axis8<L>(c.level.data(), im, w, planes + stride + i, stride);
    }
    return i;
}

}  // namespace

TERVANE_AVX void demap_avx(const Constellation& c, const float* cells, const float* csi, size_t n, float scale,
                           int8_t* planes, size_t stride) {
    size_t done = 0;
    if (c.bits == 2) done = demap_cells8<1>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 4) done = demap_cells8<2>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 6) done = demap_cells8<4>(c, cells, csi, n, scale, planes, stride);
    demap_plain(c, cells + 2 * done, csi + done, n - done, scale, planes + done, stride);
}

namespace {

// The four branch metrics of a step (code bits 00, 01, 10, 11) as 16-bit
// values packed into one 64-bit word.
inline uint64_t branch_metrics(const int8_t* p) {
    const int sx = p[0], sy = p[1];
    auto u = [](int v) { return static_cast<uint64_t>(static_cast<uint16_t>(v)); };
    return u(sx + sy) | u(sx - sy) << 16 | u(-sx + sy) << 32 | u(-sx - sy) << 48;
}

}  // namespace

// The branch metrics of up to 32 steps, four 16-bit values a step (code bits
// 00, 01, 10, 11: x + y, x - y, -x + y, -x - y), from the soft values.
TERVANE_AVX512 void branch_tables(const int8_t* pairs, size_t m, uint64_t* tbl) {
    const __m512i v = _mm512_maskz_loadu_epi8(_bzhi_u64(~uint64_t{0}, static_cast<uint32_t>(2 * m)), pairs);
    alignas(64) int16_t ix[32], iy[32];
    for (int l = 0; l < 32; l++)
        ix[l] = static_cast<int16_t>(2 * (l / 4)), iy[l] = static_cast<int16_t>(2 * (l / 4) + 1);
    const __m512i idx_x = _mm512_load_si512(ix), idx_y = _mm512_load_si512(iy);
    const __m512i eight = _mm512_set1_epi16(16), zero = _mm512_setzero_si512();
    // Lanes 2 and 3 of each step negate x, lanes 1 and 3 negate y.
    const __mmask32 nx = 0xCCCCCCCCu, ny = 0xAAAAAAAAu;
    for (int h = 0; h < 2; h++) {
        const __m512i w = _mm512_cvtepi8_epi16(h == 0 ? _mm512_castsi512_si256(v) : _mm512_extracti64x4_epi64(v, 1));
        for (int q = 0; q < 2; q++) {
            const __m512i ox = q == 0 ? idx_x : _mm512_add_epi16(idx_x, eight);
            const __m512i oy = q == 0 ? idx_y : _mm512_add_epi16(idx_y, eight);
            const __m512i x = _mm512_permutexvar_epi16(ox, w), y = _mm512_permutexvar_epi16(oy, w);
            const __m512i r =
                _mm512_add_epi16(_mm512_mask_sub_epi16(x, nx, zero, x), _mm512_mask_sub_epi16(y, ny, zero, y));
            _mm512_store_si512(tbl + 16 * h + 8 * q, r);
        }
    }
}

// The 64 metrics as two registers of 32: states 0..31 (the predecessors n >> 1)
// and 32..63 (their partners). The survivors of the even and the odd states
// come out in two registers and are interleaved back into state order; their
// decisions are the two halves of the step's decision word.
struct Acs {
    __m512i idx_e, idx_l, idx_h;
};

TERVANE_AVX512 inline Acs acs_tables() {
    alignas(64) int16_t ie[32], il[32], ih[32];
    for (int j = 0; j < 32; j++) {
        ie[j] = branch_bits[2 * j];
        il[j] = static_cast<int16_t>((j & 1) * 32 + j / 2);
        ih[j] = static_cast<int16_t>((j & 1) * 32 + 16 + j / 2);
    }
    return {_mm512_load_si512(ie), _mm512_load_si512(il), _mm512_load_si512(ih)};
}

TERVANE_AVX512 inline void acs_step(const Acs& a, uint64_t tbl, __m512i& lo, __m512i& hi, uint64_t* decision) {
    // The odd state's branch carries the even one's code bits inverted.
    const __m512i be = _mm512_permutexvar_epi16(a.idx_e, _mm512_set1_epi64(static_cast<long long>(tbl)));
    const __m512i ae = _mm512_add_epi16(lo, be), ce = _mm512_sub_epi16(hi, be);
    const __m512i ao = _mm512_sub_epi16(lo, be), co = _mm512_add_epi16(hi, be);
    const __m512i ne = _mm512_max_epi16(ae, ce), no = _mm512_max_epi16(ao, co);
    *decision = _cvtmask64_u64(_mm512_kunpackd(_mm512_cmpgt_epi16_mask(co, ao), _mm512_cmpgt_epi16_mask(ce, ae)));
    lo = _mm512_permutex2var_epi16(ne, a.idx_l, no);
    hi = _mm512_permutex2var_epi16(ne, a.idx_h, no);
}

TERVANE_AVX512 inline void renormalise(__m512i& lo, __m512i& hi) {
    const __m512i b = _mm512_broadcastw_epi16(_mm512_castsi512_si128(lo));
    lo = _mm512_sub_epi16(lo, b), hi = _mm512_sub_epi16(hi, b);
}

TERVANE_AVX512 void viterbi_acs_avx512(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions) {
    const Acs a = acs_tables();
    __m512i lo = _mm512_loadu_si512(metrics), hi = _mm512_loadu_si512(metrics + 32);
    alignas(64) uint64_t tbl[32];
    for (size_t base = 0; base < n; base += 32) {
        const size_t m = n - base < 32 ? n - base : 32;
        branch_tables(pairs + 2 * base, m, tbl);
        for (size_t t = 0; t < m; t++) acs_step(a, tbl[t], lo, hi, decisions + base + t);
        if (m == 32) renormalise(lo, hi);
    }
    _mm512_storeu_si512(metrics, lo);
    _mm512_storeu_si512(metrics + 32, hi);
}

// K decoders step by step: each step's operations depend on the step before
// in the same decoder only, so the processor overlaps the K chains.
template <size_t K>
TERVANE_AVX512 void acs_set(const ViterbiSet& v, size_t n) {
    const Acs a = acs_tables();
    __m512i lo[K], hi[K];
    alignas(64) uint64_t tbl[K][32];
    for (size_t k = 0; k < K; k++)
        lo[k] = _mm512_loadu_si512(v.metrics[k]), hi[k] = _mm512_loadu_si512(v.metrics[k] + 32);
    for (size_t base = 0; base < n; base += 32) {
        const size_t m = n - base < 32 ? n - base : 32;
        for (size_t k = 0; k < K; k++) branch_tables(v.pairs[k] + 2 * base, m, tbl[k]);
        for (size_t t = 0; t < m; t++) {
#pragma GCC unroll 4
            for (size_t k = 0; k < K; k++) acs_step(a, tbl[k][t], lo[k], hi[k], v.decisions[k] + base + t);
        }
        if (m == 32)
            for (size_t k = 0; k < K; k++) renormalise(lo[k], hi[k]);
    }
    for (size_t k = 0; k < K; k++)
        _mm512_storeu_si512(v.metrics[k], lo[k]), _mm512_storeu_si512(v.metrics[k] + 32, hi[k]);
}

TERVANE_AVX512 void viterbi_acs_set_avx512(const ViterbiSet& v, size_t n) {
    switch (v.count) {
    case 1: return acs_set<1>(v, n);
    case 2: return acs_set<2>(v, n);
    case 3: return acs_set<3>(v, n);
    case 4: return acs_set<4>(v, n);
    default: return;
    }
}

// 32 steps at a time: the 64 bytes reversed, so that the first step's X sign
// lands in the mask's highest bit, X in the odd bits and Y in the even ones.
TERVANE_AVX512 void hard_decisions_avx512(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x,
                                          uint64_t* neg_y, uint64_t* any_y) {
    const __m512i rev =
        _mm512_set_epi64(0x0001020304050607, 0x08090A0B0C0D0E0F, 0x0001020304050607, 0x08090A0B0C0D0E0F,
                         0x0001020304050607, 0x08090A0B0C0D0E0F, 0x0001020304050607, 0x08090A0B0C0D0E0F);
    constexpr uint64_t odd = 0xAAAAAAAAAAAAAAAAu, even = 0x5555555555555555u;
    for (size_t k = 0; k < n / 64; k++) {
        uint64_t nx = 0, ax = 0, ny = 0, ay = 0;
        for (size_t h = 0; h < 2; h++) {
            __m512i v = _mm512_loadu_si512(pairs + 128 * k + 64 * h);
            v = _mm512_shuffle_i64x2(_mm512_shuffle_epi8(v, rev), _mm512_shuffle_epi8(v, rev), 0x1B);
            const uint64_t neg = _cvtmask64_u64(_mm512_movepi8_mask(v)),
                           any = _cvtmask64_u64(_mm512_test_epi8_mask(v, v));
            nx = nx << 32 | _pext_u64(neg, odd), ax = ax << 32 | _pext_u64(any, odd);
            ny = ny << 32 | _pext_u64(neg, even), ay = ay << 32 | _pext_u64(any, even);
        }
        neg_x[k] = nx, any_x[k] = ax, neg_y[k] = ny, any_y[k] = ay;
    }
}

// The same with 128-bit registers: m[r] holds states 8 r .. 8 r + 7; the
// survivors of states 16 c .. 16 c + 15 come from m[c] and m[c + 4], and the
// interleave of the even and odd results stays within each register pair.
TERVANE_AVX void viterbi_acs_avx(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions) {
    __m128i m[8], ctl_e[4], ctl_o[4];
    for (int r = 0; r < 8; r++) m[r] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(metrics + 8 * r));
    for (int c = 0; c < 4; c++) {
        alignas(16) uint8_t e[16], o[16];
        for (int k = 0; k < 8; k++) {
            const int j = 8 * c + k;
            e[2 * k] = static_cast<uint8_t>(2 * branch_bits[2 * j]), e[2 * k + 1] = static_cast<uint8_t>(e[2 * k] + 1);
            o[2 * k] = static_cast<uint8_t>(2 * branch_bits[2 * j + 1]),
                  o[2 * k + 1] = static_cast<uint8_t>(o[2 * k] + 1);
        }
        ctl_e[c] = _mm_load_si128(reinterpret_cast<const __m128i*>(e));
        ctl_o[c] = _mm_load_si128(reinterpret_cast<const __m128i*>(o));
    }
    for (size_t t = 0; t < n; t++) {
        const __m128i tbl = _mm_set1_epi64x(static_cast<long long>(branch_metrics(pairs + 2 * t)));
        __m128i next[8];
        uint64_t dec = 0;
        for (int c = 0; c < 4; c++) {
            const __m128i be = _mm_shuffle_epi8(tbl, ctl_e[c]), bo = _mm_shuffle_epi8(tbl, ctl_o[c]);
            const __m128i ae = _mm_add_epi16(m[c], be), ce = _mm_sub_epi16(m[c + 4], be);
            const __m128i ao = _mm_add_epi16(m[c], bo), co = _mm_sub_epi16(m[c + 4], bo);
            const __m128i ne = _mm_max_epi16(ae, ce), no = _mm_max_epi16(ao, co);
            const __m128i de = _mm_cmpgt_epi16(ce, ae), dn = _mm_cmpgt_epi16(co, ao);
            next[2 * c] = _mm_unpacklo_epi16(ne, no);
            next[2 * c + 1] = _mm_unpackhi_epi16(ne, no);
            const auto d = static_cast<uint64_t>(_mm_movemask_epi8(_mm_packs_epi16(de, dn)));
            dec |= (d & 0xFF) << (8 * c) | (d >> 8) << (32 + 8 * c);
        }
        decisions[t] = dec;
        if ((t & 31) == 31) {
            const __m128i base = _mm_set1_epi16(static_cast<int16_t>(_mm_extract_epi16(next[0], 0)));
            for (int r = 0; r < 8; r++) next[r] = _mm_sub_epi16(next[r], base);
        }
        for (int r = 0; r < 8; r++) m[r] = next[r];
    }
    for (int r = 0; r < 8; r++) _mm_storeu_si128(reinterpret_cast<__m128i*>(metrics + 8 * r), m[r]);
}

}  // namespace rx::detail

#endif
