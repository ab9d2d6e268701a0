// What the receiver knows of the frame before it hears it: the carriers of the
// continual pilots and of the TPS, the reference sequence that sets every
// pilot's sign, the TPS synchronisation word and the BCH code that protects the
// TPS, and the constellations. Written out here on their own, so that the
// receiver checks the transmitter rather than sharing its mistakes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "receiver/decoder.hpp"

namespace rx {

// Continual pilot carriers of the 8k mode; those below K serve 2k and 4k.
inline constexpr std::array<int16_t, 177> kContinual{
    0,    48,   54,   87,   141,  156,  192,  201,  255,  279,  282,  333,  432,  450,  483,  525,  531,  618,
    636,  714,  759,  765,  780,  804,  873,  888,  918,  939,  942,  969,  984,  1050, 1101, 1107, 1110, 1137,
    1140, 1146, 1206, 1269, 1323, 1377, 1491, 1683, 1704, 1752, 1758, 1791, 1845, 1860, 1896, 1905, 1959, 1983,
    1986, 2037, 2136, 2154, 2187, 2229, 2235, 2322, 2340, 2418, 2463, 2469, 2484, 2508, 2577, 2592, 2622, 2643,
    2646, 2673, 2688, 2754, 2805, 2811, 2814, 2841, 2844, 2850, 2910, 2973, 3027, 3081, 3195, 3387, 3408, 3456,
    3462, 3495, 3549, 3564, 3600, 3609, 3663, 3687, 3690, 3741, 3840, 3858, 3891, 3933, 3939, 4026, 4044, 4122,
    4167, 4173, 4188, 4212, 4281, 4296, 4326, 4347, 4350, 4377, 4392, 4458, 4509, 4515, 4518, 4545, 4548, 4554,
    4614, 4677, 4731, 4785, 4899, 5091, 5112, 5160, 5166, 5199, 5253, 5268, 5304, 5313, 5367, 5391, 5394, 5445,
    5544, 5562, 5595, 5637, 5643, 5730, 5748, 5826, 5871, 5877, 5892, 5916, 5985, 6000, 6030, 6051, 6054, 6081,
    6096, 6162, 6213, 6219, 6222, 6249, 6252, 6258, 6318, 6381, 6435, 6489, 6603, 6795, 6816};

// TPS carriers of the 8k mode; those below K serve 2k and 4k.
inline constexpr std::array<int16_t, 68> kTpsCarriers{
    34,   50,   209,  346,  413,  569,  595,  688,  790,  901,  1073, 1219, 1262, 1286, 1469, 1594, 1687,
    1738, 1754, 1913, 2050, 2117, 2273, 2299, 2392, 2494, 2605, 2777, 2923, 2966, 2990, 3173, 3298, 3391,
    3442, 3458, 3617, 3754, 3821, 3977, 4003, 4096, 4198, 4309, 4481, 4627, 4670, 4694, 4877, 5002, 5095,
    5146, 5162, 5321, 5458, 5525, 5681, 5707, 5800, 5902, 6013, 6185, 6331, 6374, 6398, 6581, 6706, 6799};

// Per mode (2k, 4k, 8k): FFT size, active carriers, data cells, continual pilots, TPS carriers.
inline constexpr std::array<int, 3> kFftSize{2048, 4096, 8192};
inline constexpr std::array<int, 3> kCarriers{1705, 3409, 6817};
inline constexpr std::array<int, 3> kDataCells{1512, 3024, 6048};
inline constexpr std::array<int, 3> kContinualCount{45, 89, 177};
inline constexpr std::array<int, 3> kTpsCount{17, 34, 68};
// Guard interval as a divisor of the FFT size, by tervane's index (1/4, 1/8, 1/16, 1/32).
inline constexpr std::array<int, 4> kGuardDivisor{4, 8, 16, 32};

inline constexpr float kPilotBoost = 4.0f / 3.0f;

// The reference sequence, one bit per carrier: x^11 + x^2 + 1 from all ones.
inline constexpr std::array<uint8_t, 6817> kReference = [] {
    std::array<uint8_t, 6817> w{};
    for (int n = 0; n < 11; ++n) w[n] = 1;
    for (int n = 0; n + 11 < 6817; ++n) w[n + 11] = w[n + 2] ^ w[n];
    return w;
}();

// Real value of a pilot on carrier k.
inline float pilot_value(int k) { return kReference[k] ? -kPilotBoost : kPilotBoost; }

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
