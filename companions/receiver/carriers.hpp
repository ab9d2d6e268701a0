// What the receiver knows of the frame before it hears it: the carriers of the
// continual pilots and of the TPS, the reference sequence that sets every
// pilot's sign, the TPS synchronisation word and the BCH code that protects the
// TPS, and the constellations.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "frame/params.hpp"
#include "ofdm/framing.hpp"
#include "receiver/decoder.hpp"

namespace rx {

// The frame's carriers and sizes are the transmitter's (ofdm/framing.hpp: cpilot,
// tps, cpilot_count, tps_count, pilot_ampl; frame/params.hpp: dvbt_fftsize,
// dvbt_K, dvbt_N), which the chain tests check against independent models.
// Guard interval as a divisor of the FFT size, by tervane's index (1/4, 1/8, 1/16, 1/32).
inline constexpr std::array<int, 4> kGuardDivisor{4, 8, 16, 32};

// The reference sequence, one bit per carrier: x^11 + x^2 + 1 from all ones.
inline constexpr std::array<uint8_t, 6817> kReference = [] {
    std::array<uint8_t, 6817> w{};
    for (int n = 0; n < 11; ++n) w[n] = 1;
    for (int n = 0; n + 11 < 6817; ++n) w[n + 11] = w[n + 2] ^ w[n];
    return w;
}();

// Real value of a pilot on carrier k.
inline float pilot_value(int k) { return kReference[k] ? -pilot_ampl : pilot_ampl; }

// The TPS synchronisation word s1 .. s16 of frames 0 and 2 (frames 1 and 3 send its inverse).
inline constexpr std::array<uint8_t, 16> kTpsSync{0, 0, 1, 1, 0, 1, 0, 1, 1, 1, 1, 0, 1, 1, 1, 0};

// What one frame's TPS word says, once its BCH parity checks.
struct TpsWord {
    uint32_t frame = 0;     // within the superframe
    Transmission t;         // cid: the byte this frame carries, or -1 when none is signalled
    bool cid_high = false;  // the byte is the identifier's high one (frames 0 and 2)
};

// Whether s1 .. s67 (s[1] .. s[67]) form a word of the shortened BCH(67,53)
// code, generator x^14 + x^9 + x^8 + x^6 + x^5 + x^4 + x^2 + x + 1.
inline bool tps_bch_ok(const std::array<uint8_t, 68>& s) {
    uint32_t r = 0;  // remainder, degree 13 at bit 13
    for (int i = 1; i <= 67; ++i) {
        const uint32_t top = (r >> 13) & 1u;
        r = ((r << 1) | s[i]) & 0x3FFFu;
        if (top) r ^= 0x0377u;  // the generator without its x^14 term
    }
    return r == 0;
}

// Reads a word whose sync and parity check; nothing when either fails or a
// field holds a value that does not exist.
inline std::optional<TpsWord> tps_parse(const std::array<uint8_t, 68>& s) {
    auto field = [&](int from, int bits) {
        uint32_t v = 0;
        for (int i = 0; i < bits; ++i) v = v << 1 | s[from + i];
        return v;
    };
    bool sync = true, inverse = true;
    for (int i = 0; i < 16; ++i) sync &= s[1 + i] == kTpsSync[i], inverse &= s[1 + i] != kTpsSync[i];
    if (!(sync || inverse) || !tps_bch_ok(s)) return std::nullopt;
    TpsWord w;
    const uint32_t length = field(17, 6);
    w.frame = field(23, 2);
    if (sync != (w.frame % 2 == 0)) return std::nullopt;
    if (length != 23 && length != 31) return std::nullopt;
    w.t.M = field(25, 2);
    w.t.idi = s[27];
    w.t.alpha = field(28, 2);
    w.t.rate_hp = field(30, 3);
    w.t.rate_lp = field(33, 3);
    w.t.delta = 3 - field(36, 2);
    const uint32_t mode = field(38, 2);
    if (w.t.M > 2 || w.t.rate_hp > 4 || w.t.rate_lp > 4 || mode > 2) return std::nullopt;
    w.t.mode = mode == 0 ? 0 : mode == 1 ? 2 : 1;
    w.t.cid = length == 31 ? static_cast<int32_t>(field(40, 8)) : -1;
    w.cid_high = w.frame % 2 == 0;
    return w;
}

}  // namespace rx
