// Internal to the inner stages (coder, puncturer, bit interleaver, mapper):
// what their portable forms share with their x86 vector forms, and those
// forms, which give the same bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "inner/inner_coder.hpp"
#include "vectors/manage.hpp"
#include "vectors/simd.hpp"

namespace inner_detail {

// ---- Coder and puncturer ----

// The encoder works on whole words: eight input bytes give 128 coded bits.

// Reverses the bits of every byte, so that the input bits, most significant
// first within each byte, lie in time order from bit 0 up.
inline uint64_t bits_in_time_order(uint64_t x) {
    x = ((x >> 1) & 0x5555555555555555ull) | ((x & 0x5555555555555555ull) << 1);
    x = ((x >> 2) & 0x3333333333333333ull) | ((x & 0x3333333333333333ull) << 2);
    return ((x >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((x & 0x0F0F0F0F0F0F0F0Full) << 4);
}

// The 64 input bits from time order (bit i the i-th bit), with prev the word
// before, give the X and Y bits of each time: X_i = b_i ^ b_i-1 ^ b_i-2 ^ b_i-3
// ^ b_i-6 and Y_i = b_i ^ b_i-2 ^ b_i-3 ^ b_i-5 ^ b_i-6 (taps 0x4F and 0x6D).
struct CodedWords {
    uint64_t x, y;
};
inline CodedWords code_word(uint64_t w, uint64_t prev) {
    const auto back = [w, prev](int k) { return (w << k) | (prev >> (64 - k)); };
    const uint64_t s2 = back(2), s3 = back(3), s6 = back(6);
    return {w ^ back(1) ^ s2 ^ s3 ^ s6, w ^ s2 ^ s3 ^ back(5) ^ s6};
}

inline uint64_t load64(const uint8_t* p) {
    uint64_t x;
    std::memcpy(&x, p, 8);
    return x;
}

// Kept positions of one period for rate index R, taken from p_mat.
template <int R>
constexpr auto kept_positions() {
    std::array<uint32_t, out_plen[R]> idx{};
    uint32_t m = 0;
    for (uint32_t k = 0; k < static_cast<uint32_t>(in_plen[R]); k++)
        if (p_mat[R][k] != 0) idx[m++] = k;
    return idx;
}

// ---- Bit interleaver and mapper ----

inline constexpr uint32_t bi_block_words = 126;

// Where sub-stream e of a bit-interleaver block takes its bits: bit pos[e] of
// every group of hp_width bits of the HP input, or of lp_width bits of the LP
// input when from_lp[e]; word w takes the sub-stream's bit (w + start[e]) mod 126.
struct BiLayout {
    uint32_t V, hp_width, lp_width;
    std::array<uint32_t, 6> pos, start;
    std::array<uint8_t, 6> from_lp;
    bool operator==(const BiLayout&) const = default;
};

#if TERVANE_X86
// Codes g groups of eight bytes from src to 128 g coded bits at dst (one per
// byte); *prev is the word before the first group and becomes the last one.
void encode_groups_avx512(const uint8_t* src, uint8_t* dst, uint32_t g, uint64_t* prev);
// Whole periods of rate index R (0..4) from s to d; returns how many it did,
// the rest is left to the portable form.
uint32_t puncture_avx512(int R, const uint8_t* s, uint8_t* d, uint32_t periods);
// One block of 126 words from the block's input bits (one bit, 0 or 1, per
// byte); lp is null when no sub-stream takes LP bits.
void bi_block_avx512(const BiLayout& l, const uint8_t* hp, const uint8_t* lp, uint8_t* words);
// The cells of the first words of src[0 .. n) (their low 6 bits) from a 64-cell
// table, 16 at a time; returns how many it mapped.
uint32_t map_cells_avx512(const dvbComplex* table, const uint8_t* src, uint32_t n, dvbComplex* dst);
#endif

}  // namespace inner_detail
