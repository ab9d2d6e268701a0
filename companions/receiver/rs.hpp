// The outer code of the receiver: GF(256) with the field polynomial
// x^8 + x^4 + x^3 + x^2 + 1, the shortened Reed-Solomon code RS(204,188, t = 8)
// (generator roots alpha^0 .. alpha^15), its encoder and its decoder, and the
// energy dispersal sequence of the 8-packet groups.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace rx {

inline constexpr uint32_t rs_n = 204, rs_k = 188, rs_parity = 16, rs_t = 8;

// The 16 parity bytes of a packet, in the order they follow it.
void rs_encode(std::span<const uint8_t, 188> packet, std::span<uint8_t, 16> parity);

struct RsResult {
    bool ok = false;  // a codeword: no error, or at most 8 found and corrected
    int bytes = 0;    // bytes corrected
    int bits = 0;     // bits changed in them
};

// Decodes a received codeword in place (byte 0 is the first sent). When the
// errors cannot be corrected the bytes are left as they came.
RsResult rs_decode(std::span<uint8_t, 204> codeword);

// The energy dispersal sequence: byte p (0..1502) is combined with byte p + 1
// of an 8-packet group; sync bytes are skipped as the transmitter skips them.
const std::array<uint8_t, 1504>& dispersal_sequence();

// Energy dispersal of the 188 bytes of a packet at position g (0..7) of its
// group, in place: the sync byte inverted at position 0, the other bytes
// combined with the sequence. The same procedure undoes it.
void disperse(std::span<uint8_t, 188> packet, uint32_t g);

}  // namespace rx
