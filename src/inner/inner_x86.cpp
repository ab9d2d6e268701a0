// The x86 vector forms of the coder, the puncturer, the bit interleaver and the
// mapper; inner_coder.cpp, inner_int.cpp and mapper.cpp hold the portable forms
// they equal.
#include "inner/inner_x86.hpp"

#if TERVANE_X86

#include <cstring>

namespace inner_detail {

TERVANE_AVX512 void encode_groups_avx512(const uint8_t* src, uint8_t* dst, uint32_t g, uint64_t* prev) {
    const __m512i one = _mm512_set1_epi8(1);
    uint64_t pw = *prev;
    for (uint32_t i = 0; i < g; i++, src += 8, dst += 128) {
        const uint64_t w = bits_in_time_order(load64(src));
        const CodedWords c = code_word(w, pw);
        pw = w;
        constexpr uint64_t even = 0x5555555555555555ull, odd = 0xAAAAAAAAAAAAAAAAull;
        const uint64_t m0 = _pdep_u64(c.x, even) | _pdep_u64(c.y, odd);
        const uint64_t m1 = _pdep_u64(c.x >> 32, even) | _pdep_u64(c.y >> 32, odd);
        _mm512_storeu_si512(dst, _mm512_maskz_mov_epi8(m0, one));
        _mm512_storeu_si512(dst + 64, _mm512_maskz_mov_epi8(m1, one));
    }
    *prev = pw;
}

namespace {

// Whole periods of rate index R with one byte permutation per register: as
// many periods as fit in 64 input bytes, gathered into their kept bits.
// Returns the periods done (a multiple of that count).
template <int R>
TERVANE_AVX512 uint32_t puncture_periods(const uint8_t* s, uint8_t* d, uint32_t periods) {
    constexpr uint32_t ip = in_plen[R];
    constexpr uint32_t op = out_plen[R];
    constexpr uint32_t P = 64 / ip;
    constexpr auto idx = kept_positions<R>();
    alignas(64) uint8_t perm[64] = {};
    for (uint32_t o = 0; o < P * op; o++) perm[o] = static_cast<uint8_t>((o / op) * ip + idx[o % op]);
    const __m512i pv = _mm512_load_si512(perm);
    const __mmask64 in_mask = ~0ull >> (64 - P * ip);
    const __mmask64 out_mask = ~0ull >> (64 - P * op);
    uint32_t done = 0;
    for (; done + P <= periods; done += P, s += P * ip, d += P * op)
        _mm512_mask_storeu_epi8(d, out_mask, _mm512_permutexvar_epi8(pv, _mm512_maskz_loadu_epi8(in_mask, s)));
    return done;
}

}  // namespace

TERVANE_AVX512 uint32_t puncture_avx512(int R, const uint8_t* s, uint8_t* d, uint32_t periods) {
    switch (R) {
    case 0: return puncture_periods<0>(s, d, periods);
    case 1: return puncture_periods<1>(s, d, periods);
    case 2: return puncture_periods<2>(s, d, periods);
    case 3: return puncture_periods<3>(s, d, periods);
    default: return puncture_periods<4>(s, d, periods);
    }
}

namespace {

__extension__ typedef unsigned __int128 u128;

// Byte permutes of one layout: sub-stream e takes byte W k + pos of a run of
// 64 groups (W registers) for its k-th bit; idx[e] picks it within each pair of
// registers, pair[e][p] marks the k whose byte lies in pair p.
struct BiPermutes {
    BiLayout layout{};
    bool built = false;
    alignas(64) uint8_t idx[6][64];
    uint64_t pair[6][3];
};
BiPermutes perms;

void build_permutes(const BiLayout& l) {
    for (uint32_t e = 0; e < l.V; e++) {
        const uint32_t W = l.from_lp[e] != 0 ? l.lp_width : l.hp_width;
        for (uint32_t p = 0; p < 3; p++) perms.pair[e][p] = 0;
        for (uint32_t k = 0; k < 64; k++) {
            const uint32_t b = W * k + l.pos[e];
            perms.idx[e][k] = static_cast<uint8_t>(b % 128);
            perms.pair[e][b / 128] |= uint64_t{1} << k;
        }
    }
    perms.layout = l;
    perms.built = true;
}

// The W registers of groups 64 h .. 64 h + 63 of a stream of 126 groups of W
// bytes, zero past its end.
TERVANE_AVX512 void load_half(const uint8_t* src, uint32_t W, uint32_t h, __m512i* z) {
    const uint32_t n = W * bi_block_words;
    for (uint32_t i = 0; i < W; i++) {
        const uint32_t off = 64 * (W * h + i);
        const uint32_t left = off < n ? n - off : 0;
        const __mmask64 k = left >= 64 ? ~__mmask64{0} : (__mmask64{1} << left) - 1;
        z[i] = _mm512_maskz_loadu_epi8(k, src + (off < n ? off : 0));
    }
}

// Bit k of the result: byte W k + pos of the 64 groups in z is not zero.
TERVANE_AVX512 uint64_t substream_bits(const __m512i* z, uint32_t W, uint32_t e) {
    const __m512i idx = _mm512_load_si512(perms.idx[e]);
    __m512i r = _mm512_permutex2var_epi8(z[0], idx, z[1]);
    for (uint32_t p = 1; 2 * p < W; p++)
        r = _mm512_mask_blend_epi8(perms.pair[e][p], r, _mm512_permutex2var_epi8(z[2 * p], idx, z[2 * p + 1]));
    return _mm512_test_epi8_mask(r, r);
}

}  // namespace

// Each sub-stream's 126 bits are gathered from the block's bytes 64 at a time
// with byte permutes, rotated by the sub-stream's start, and set bit V - 1 - e
// of the words where they are 1.
TERVANE_AVX512 void bi_block_avx512(const BiLayout& l, const uint8_t* hp, const uint8_t* lp, uint8_t* words) {
    if (!perms.built || !(perms.layout == l)) build_permutes(l);
    __m512i zh[2][6], zl[2][6];
    for (uint32_t h = 0; h < 2; h++) {
        load_half(hp, l.hp_width, h, zh[h]);
        if (lp != nullptr) load_half(lp, l.lp_width, h, zl[h]);
    }
    __m512i lo = _mm512_setzero_si512(), hi = _mm512_setzero_si512();
    const u128 all = (u128{1} << bi_block_words) - 1;
    for (uint32_t e = 0; e < l.V; e++) {
        const bool from_lp = l.from_lp[e] != 0;
        const uint32_t W = from_lp ? l.lp_width : l.hp_width;
        const u128 s = substream_bits(from_lp ? zl[0] : zh[0], W, e) |
                       static_cast<u128>(substream_bits(from_lp ? zl[1] : zh[1], W, e)) << 64;
        const u128 t = ((s >> l.start[e]) | (s << (bi_block_words - l.start[e]))) & all;
        const __m512i bit = _mm512_set1_epi8(static_cast<char>(1u << (l.V - 1 - e)));
        lo = _mm512_or_si512(lo, _mm512_maskz_mov_epi8(static_cast<uint64_t>(t), bit));
        hi = _mm512_or_si512(hi, _mm512_maskz_mov_epi8(static_cast<uint64_t>(t >> 64), bit));
    }
    _mm512_storeu_si512(words, lo);
    _mm512_mask_storeu_epi8(words + 64, (__mmask64{1} << (bi_block_words - 64)) - 1, hi);
}

// Real and imaginary parts looked up apart: each part's 64 values fill four
// registers, two 32-entry permutes per part and the word's bit 5 choosing
// between them; then the parts are interleaved into (re, im) pairs.
TERVANE_AVX512 uint32_t map_cells_avx512(const dvbComplex* table, const uint8_t* src, uint32_t n, dvbComplex* dst) {
    alignas(64) float re[64], im[64];
    for (uint32_t k = 0; k < 64; k++) re[k] = table[k].re, im[k] = table[k].im;
    const __m512 r0 = _mm512_load_ps(re), r1 = _mm512_load_ps(re + 16), r2 = _mm512_load_ps(re + 32),
                 r3 = _mm512_load_ps(re + 48);
    const __m512 i0 = _mm512_load_ps(im), i1 = _mm512_load_ps(im + 16), i2 = _mm512_load_ps(im + 32),
                 i3 = _mm512_load_ps(im + 48);
    const __m512i bit5 = _mm512_set1_epi32(32);
    const __m512i first = _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11),
                  second = _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15);
    uint32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m512i w = _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        const __mmask16 upper = _mm512_test_epi32_mask(w, bit5);
        const __m512 vr =
            _mm512_mask_blend_ps(upper, _mm512_permutex2var_ps(r0, w, r1), _mm512_permutex2var_ps(r2, w, r3));
        const __m512 vi =
            _mm512_mask_blend_ps(upper, _mm512_permutex2var_ps(i0, w, i1), _mm512_permutex2var_ps(i2, w, i3));
        const __m512d lo = _mm512_castps_pd(_mm512_unpacklo_ps(vr, vi));  // cells 0 1, 4 5, 8 9, 12 13
        const __m512d hi = _mm512_castps_pd(_mm512_unpackhi_ps(vr, vi));  // cells 2 3, 6 7, 10 11, 14 15
        _mm512_storeu_pd(reinterpret_cast<double*>(dst + i), _mm512_permutex2var_pd(lo, first, hi));
        _mm512_storeu_pd(reinterpret_cast<double*>(dst + i + 8), _mm512_permutex2var_pd(lo, second, hi));
    }
    return i;
}

}  // namespace inner_detail

#endif
