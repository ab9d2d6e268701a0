// The x86 vector form of the outer interleaver. Output byte i of branch
// j = i mod 12 is the input byte 12 flen[j] before it: with the FIFOs' bytes laid
// out as the input that would precede the piece, every output register of five
// groups is twelve masked loads, one per branch, each at its branch's delay.
#include "outer/outer_x86.hpp"

#if TERVANE_X86

#include <cstring>
#include <vector>

namespace outer_detail {

namespace {
constexpr uint32_t GROUP = 12;
constexpr uint32_t PER_REG = 5 * GROUP;  // output bytes per register
std::vector<uint8_t> line;               // the preceding bytes the FIFOs stand for, then the piece
}  // namespace

TERVANE_AVX512 void interleave_avx512(const uint8_t* src, uint32_t c, uint8_t* dst, uint8_t* const* fifo,
                                      const uint32_t* flen, uint32_t* fpos) {
    uint32_t deepest = 0;
    for (uint32_t j = 0; j < GROUP; j++)
        if (fifo[j] != nullptr && flen[j] > deepest) deepest = flen[j];
    const uint32_t D = GROUP * deepest, bytes = GROUP * c;
    if (line.size() < D + bytes + 64) line.resize(D + bytes + 64);
    uint8_t* x = line.data() + D;
    // Cell fpos + m of FIFO j is output at the branch's m-th next visit: it
    // stands for the input byte of branch j flen[j] - m groups before the piece.
    for (uint32_t j = 0; j < GROUP; j++) {
        if (fifo[j] == nullptr) continue;
        const uint32_t L = flen[j];
        uint8_t* h = x - GROUP * L + j;
        for (uint32_t m = 0, p = fpos[j]; m < L; m++, h += GROUP) {
            *h = fifo[j][p];
            if (++p == L) p = 0;
        }
    }
    std::memcpy(x, src, bytes);

    __mmask64 branch[GROUP];
    for (uint32_t j = 0; j < GROUP; j++) {
        branch[j] = 0;
        for (uint32_t g = 0; g < 5; g++) branch[j] |= __mmask64{1} << (GROUP * g + j);
    }
    for (uint32_t i = 0; i < bytes; i += PER_REG) {
        const uint32_t left = bytes - i;
        const __mmask64 valid = left >= PER_REG ? (__mmask64{1} << PER_REG) - 1 : (__mmask64{1} << left) - 1;
        __m512i v = _mm512_setzero_si512();
        for (uint32_t j = 0; j < GROUP; j++) {
            const uint32_t delay = fifo[j] != nullptr ? GROUP * flen[j] : 0;
            v = _mm512_mask_loadu_epi8(v, branch[j] & valid, x + i - delay);
        }
        _mm512_mask_storeu_epi8(dst + i, valid, v);
    }

    // The FIFOs afterwards: the last flen[j] bytes of each branch, the oldest
    // at the advanced cell index.
    for (uint32_t j = 0; j < GROUP; j++) {
        if (fifo[j] == nullptr) continue;
        const uint32_t L = flen[j];
        const uint32_t p0 = static_cast<uint32_t>((uint64_t{fpos[j]} + c) % L);
        const uint8_t* h = x + GROUP * c - GROUP * L + j;
        for (uint32_t m = 0, p = p0; m < L; m++, h += GROUP) {
            fifo[j][p] = *h;
            if (++p == L) p = 0;
        }
        fpos[j] = p0;
    }
}

}  // namespace outer_detail

#endif
