// The x86 vector forms of the bit interleaver and the mapper; inner_int.cpp and
// mapper.cpp hold the portable forms they equal.
#include "inner/inner_x86.hpp"

#if TERVANE_X86

#include <cstring>

namespace inner_detail {

namespace {

__extension__ typedef unsigned __int128 u128;

// The n input bytes of a stream (0 or 1 each) as a bit string, 64 per word,
// zero beyond n.
TERVANE_AVX512 void pack_bits(const uint8_t* src, uint32_t n, uint64_t* bits) {
    for (uint32_t i = 0; i < n; i += 64, src += 64) {
        const uint32_t left = n - i;
        const __mmask64 k = left >= 64 ? ~__mmask64{0} : (__mmask64{1} << left) - 1;
        const __m512i v = _mm512_maskz_loadu_epi8(k, src);
        *bits++ = _mm512_test_epi8_mask(v, v);
    }
}

}  // namespace

// Each sub-stream's 126 bits come out of the packed input eight at a time (one
// bit extract over eight groups, W bytes of the bit string), are rotated by the
// sub-stream's start, and set bit V - 1 - e of the words where they are 1.
TERVANE_AVX512 void bi_block_avx512(const BiLayout& l, const uint8_t* hp, const uint8_t* lp, uint8_t* words) {
    // 756 bits at most; room for the 8-byte reads of the last groups.
    uint64_t hp_bits[14] = {}, lp_bits[14] = {};
    pack_bits(hp, l.hp_width * bi_block_words, hp_bits);
    if (lp != nullptr) pack_bits(lp, l.lp_width * bi_block_words, lp_bits);
    __m512i lo = _mm512_setzero_si512(), hi = _mm512_setzero_si512();
    for (uint32_t e = 0; e < l.V; e++) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(l.from_lp[e] != 0 ? lp_bits : hp_bits);
        const uint32_t W = l.from_lp[e] != 0 ? l.lp_width : l.hp_width;
        uint64_t select = 0;
        for (uint32_t k = 0; k < 8; k++) select |= uint64_t{1} << (W * k + l.pos[e]);
        u128 s = 0;
        for (uint32_t c = 0; c < 16; c++) {
            uint64_t window;
            std::memcpy(&window, bytes + W * c, 8);
            s |= static_cast<u128>(_pext_u64(window, select)) << (8 * c);
        }
        const u128 all = (u128{1} << bi_block_words) - 1;
        s &= all;
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
    const __m512i first = _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11), second = _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15);
    uint32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m512i w = _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        const __mmask16 upper = _mm512_test_epi32_mask(w, bit5);
        const __m512 vr = _mm512_mask_blend_ps(upper, _mm512_permutex2var_ps(r0, w, r1), _mm512_permutex2var_ps(r2, w, r3));
        const __m512 vi = _mm512_mask_blend_ps(upper, _mm512_permutex2var_ps(i0, w, i1), _mm512_permutex2var_ps(i2, w, i3));
        const __m512d lo = _mm512_castps_pd(_mm512_unpacklo_ps(vr, vi));  // cells 0 1, 4 5, 8 9, 12 13
        const __m512d hi = _mm512_castps_pd(_mm512_unpackhi_ps(vr, vi));  // cells 2 3, 6 7, 10 11, 14 15
        _mm512_storeu_pd(reinterpret_cast<double*>(dst + i), _mm512_permutex2var_pd(lo, first, hi));
        _mm512_storeu_pd(reinterpret_cast<double*>(dst + i + 8), _mm512_permutex2var_pd(lo, second, hi));
    }
    return i;
}

}  // namespace inner_detail

#endif
