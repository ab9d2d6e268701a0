// Internal to the inner interleaver and the mapper: their x86 vector forms,
// which give the same bytes as the portable forms beside them.
#pragma once

#include <array>
#include <cstdint>

#include "vectors/manage.hpp"
#include "vectors/simd.hpp"

namespace inner_detail {

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
// One block of 126 words from the block's input bits (one bit, 0 or 1, per
// byte); lp is null when no sub-stream takes LP bits.
void bi_block_avx512(const BiLayout& l, const uint8_t* hp, const uint8_t* lp, uint8_t* words);
// The cells of the first words of src[0 .. n) (their low 6 bits) from a 64-cell
// table, 16 at a time; returns how many it mapped.
uint32_t map_cells_avx512(const dvbComplex* table, const uint8_t* src, uint32_t n, dvbComplex* dst);
#endif

}  // namespace inner_detail
