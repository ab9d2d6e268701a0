// Rate 1/2 convolutional encoder (K = 7, generators 171/133 octal) and the
// puncturer to the code rates 1/2 .. 7/8.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

// Partab[v] = 1 when v has an odd number of set bits.
inline constexpr std::array<uint8_t, 256> Partab = [] {
    std::array<uint8_t, 256> t{};
    for (unsigned v = 0; v < 256; v++) {
        unsigned p = 0;
        for (unsigned x = v; x != 0; x >>= 1) p ^= x & 1u;
        t[v] = static_cast<uint8_t>(p);
    }
    return t;
}();

// Puncturing periods by rate index (1/2, 2/3, 3/4, 5/6, 7/8): input bits,
// output bits, and one keep flag per input bit in the order X1 Y1 X2 Y2 ...
inline constexpr std::array<int32_t, 5> in_plen{2, 4, 6, 10, 14};
inline constexpr std::array<int32_t, 5> out_plen{2, 3, 4, 6, 8};
inline constexpr std::array<std::array<int32_t, 14>, 5> p_mat{{
    {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    {1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    {1, 1, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    {1, 1, 0, 1, 1, 0, 0, 1, 1, 0, 0, 0, 0, 0},
    {1, 1, 0, 1, 0, 1, 0, 1, 1, 0, 0, 1, 1, 0},
}};

// Sets the encoder shift register.
void init_convenc(uint32_t* state, uint32_t value);

// Encodes bytes (most significant bit first) into coded bits X, Y per input
// bit, one bit per output element. maxlen limits the input bytes. Returns the
// input bytes consumed; the output grows by 16 per byte.
int32_t encode27(dvbVect* in, dvbVect* out, uint32_t* state, uint32_t maxlen, FILE* dump);

// Punctures whole periods of coded bits at rate index rate (0..4). maxlen
// limits the input bits. Returns the input bits consumed.
int32_t puncture(dvbVect* in, dvbVect* out, uint16_t rate, uint32_t maxlen, FILE* dump);
