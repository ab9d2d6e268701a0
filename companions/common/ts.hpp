// The test streams: the transport stream's packet size, sync byte and null
// PID (the transmitter's), and the PRBS 2^23-1 (x^23 + x^18 + 1) that tsgen
// writes into the payloads of its null packets and tscheck checks in what a
// receiver gives back.
#pragma once

#include <cstdint>

#include "outer/mpeg2.hpp"

struct Prbs23 {
    static constexpr unsigned kDegree = 23, kTap = 18;
    static constexpr uint32_t kMask = (1u << kDegree) - 1;
    // The last 23 output bits, the newest in bit 0. All ones at the start: any
    // non-zero state gives the full period.
    uint32_t reg = kMask;

    // Output and feedback bit = stage 23 XOR stage 18, shifted in as the newest bit.
    unsigned next_bit() {
        const unsigned bit = ((reg >> (kDegree - 1)) ^ (reg >> (kTap - 1))) & 1u;
        reg = ((reg << 1) | bit) & kMask;
        return bit;
    }

    // Eight bits, the first one the most significant.
    uint8_t next_byte() {
        unsigned byte = 0;
        for (int i = 0; i < 8; ++i) byte = (byte << 1) | next_bit();
        return static_cast<uint8_t>(byte);
    }

    // Continues the sequence after 23 received bits (the newest in bit 0).
    void load(uint32_t last23) { reg = last23 & kMask; }
};
