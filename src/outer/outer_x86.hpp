// Internal to the outer interleaver: its x86 vector form, which gives the same
// bytes and leaves the same branch FIFOs as the portable form in outer_int.cpp.
#pragma once

#include <cstdint>

#include "vectors/simd.hpp"

namespace outer_detail {

#if TERVANE_X86
// Interleaves the c groups of 12 bytes at src into dst through the branch
// FIFOs: fifo[j] (null for a branch without delay) of flen[j] cells, read and
// rewritten from cell fpos[j] on, which advances by c.
void interleave_avx512(const uint8_t* src, uint32_t c, uint8_t* dst, uint8_t* const* fifo, const uint32_t* flen,
                       uint32_t* fpos);
#endif

}  // namespace outer_detail
