// The receiver's decoder: from the equalised data cells of each OFDM symbol to
// transport stream packets, with soft decisions throughout (bit metrics with
// the channel state, symbol and bit deinterleaving, depuncturing, Viterbi
// decoding, outer deinterleaving, Reed-Solomon decoding, derandomising).
//
// This header is the contract between the receiver's front end (acquisition,
// tracking, channel estimation) and its decoder.
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace rx {

// The transmission, as the TPS signals it (or as the user forces it), in the
// index conventions of tervane's own names (frame/params.hpp: dvbt_modename,
// dvbt_Mname, dvbt_alphaname, dvbt_deltaname, dvbt_ratename).
struct Transmission {
    uint32_t mode = 0;     // 2k, 4k, 8k
    uint32_t M = 0;        // QPSK, 16-QAM, 64-QAM
    uint32_t alpha = 0;    // 0 non-hierarchical; 1, 2, 3 for alpha 1, 2, 4
    uint32_t delta = 0;    // guard interval 1/4, 1/8, 1/16, 1/32
    uint32_t rate_hp = 0;  // code rate of the HP stream (the only one when non-hierarchical)
    uint32_t rate_lp = 0;  // code rate of the LP stream
    uint32_t idi = 0;      // in-depth interleaving
    int32_t cid = -1;      // cell identifier, negative when none is sent
};

// One OFDM symbol's data cells as the equaliser gives them: the N data cells
// (1512, 3024 or 6048) in ascending carrier order, pilots and TPS removed,
// each the received cell divided by the channel's response, so that without
// noise it equals the transmitter's mapped cell (unit mean power); with each a
// reliability, |H|^2 over the noise power at that carrier (0 for an erased cell).
struct SymbolCells {
    uint32_t frame = 0;   // 0..3 within the superframe
    uint32_t symbol = 0;  // 0..67 within the frame
    std::span<const std::complex<float>> cells;
    std::span<const float> csi;
};

// One transport packet out of the Reed-Solomon decoder. A packet that failed
// (not ok) still carries its bytes, derandomised when its place in the
// 8-packet group is known, with the transport error indicator set (the top
// bit of byte 1). The first 11 packets after a (re)start hold the outer
// deinterleaver's fill and fail.
struct Packet {
    bool lp = false;                 // the LP stream (hierarchical transmission)
    std::span<const uint8_t> coded;  // the 204 bytes before correction (after the outer deinterleaver)
    std::span<const uint8_t> ts;     // the 188 bytes out: corrected, derandomised, sync byte 0x47
    bool ok = false;                 // decoded (no error, or every error corrected)
    int corrected_bytes = 0;         // bytes the decoder corrected (0 when not ok)
    int corrected_bits = 0;          // bits in those bytes
};

struct DecoderCounts {
    uint64_t packets = 0, corrected = 0, uncorrectable = 0;       // packets out, with errors corrected, failed
    uint64_t bits_before_viterbi = 0, errors_before_viterbi = 0;  // hard decisions against the re-encoded output
    uint64_t bits_after_viterbi = 0, errors_after_viterbi = 0;    // from the corrections of decoded packets
};

struct Decoder;
struct DecoderDeleter {
    void operator()(Decoder* d) const;
};
using DecoderPtr = std::unique_ptr<Decoder, DecoderDeleter>;

// A decoder for the transmission; null when a field is out of its range. A
// hierarchical QPSK request decodes as 16-QAM, and in-depth interleaving is
// ignored in 8k, as the transmitter does.
DecoderPtr decoder_create(const Transmission& t);

// Takes the next symbol. Decoding starts at the first symbol 0 of frame 0 (a
// superframe start, where packets, puncturing periods and interleaver blocks
// all begin); a symbol that does not follow the previous one restarts it there.
// Every packet completed is handed to the sink, in order (HP before LP).
// A symbol whose spans do not hold N cells and N reliabilities, or whose
// numbers are out of range, does not follow. Packets come out up to about
// 16600 bits of each stream after their last bit was received (the Viterbi
// decoder decides four windows of 4096 bits at a time), and after the first packet of
// an 8-packet group was decoded (its inverted sync byte gives the group's
// phase; up to 64 packets wait for it, and those still waiting at a restart
// go out as failed).
void decoder_push(Decoder& d, const SymbolCells& s, const std::function<void(const Packet&)>& sink);

const DecoderCounts& decoder_counts(const Decoder& d);

}  // namespace rx
