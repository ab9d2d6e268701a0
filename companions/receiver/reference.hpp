// Exact bit errors after the Viterbi decoder, against the stream that was sent:
// each decoded packet is placed in the reference stream, and its received
// codeword is compared with the one the transmitter made of that packet.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "receiver/decoder.hpp"

namespace rx {

struct ReferenceCounts {
    uint64_t packets = 0;   // packets placed and compared
    uint64_t bits = 0;      // their codeword bits (204 x 8 each)
    uint64_t errors = 0;    // bits in which the received codewords differ from the sent ones
    uint64_t unplaced = 0;  // packets that could not be placed in the reference
    // Error events: the decoder errs in bursts, so bit errors less than
    // event_gap bits apart in the decoder's output (before the outer
    // deinterleaver) count as one event.
    uint64_t events = 0;
};
inline constexpr uint64_t event_gap = 64;

struct Reference;
struct ReferenceDeleter {
    void operator()(Reference* r) const;
};
using ReferencePtr = std::unique_ptr<Reference, ReferenceDeleter>;

// The stream sent, as the transmitter read it from its start (whole 188-byte
// packets; a part packet at the end is ignored). A hierarchical transmission
// needs one reference per stream.
ReferencePtr reference_create(std::span<const uint8_t> ts);

// Places the packet: a decoded one by its content (the packet after the last
// placed one first), a failed one after the last placed one. Returns the bits
// in which its coded bytes differ from the codeword sent (the reference packet
// energy-dispersed at its place in its 8-packet group and RS-encoded), or -1
// when it could not be placed.
int reference_compare(Reference& r, const Packet& p);

// The counts so far; the error events are counted up to the packets compared.
const ReferenceCounts& reference_counts(Reference& r);

}  // namespace rx
