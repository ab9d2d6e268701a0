// Frame adaptation: spreads the data cells of each OFDM symbol over the active
// carriers between the continual pilots, the scattered pilots and the TPS cells,
// and generates the TPS word of every frame with its BCH parity.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>

#include "vectors/manage.hpp"

// Continual pilot carriers of the 8k mode; the entries below K are those of 2k and 4k.
inline constexpr std::array<int32_t, 177> cpilot{
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

// TPS carriers of the 8k mode; the entries below K are those of 2k and 4k.
inline constexpr std::array<int32_t, 68> tps{
    34,   50,   209,  346,  413,  569,  595,  688,  790,  901,  1073, 1219, 1262, 1286, 1469, 1594, 1687,
    1738, 1754, 1913, 2050, 2117, 2273, 2299, 2392, 2494, 2605, 2777, 2923, 2966, 2990, 3173, 3298, 3391,
    3442, 3458, 3617, 3754, 3821, 3977, 4003, 4096, 4198, 4309, 4481, 4627, 4670, 4694, 4877, 5002, 5095,
    5146, 5162, 5321, 5458, 5525, 5681, 5707, 5800, 5902, 6013, 6185, 6331, 6374, 6398, 6581, 6706, 6799};

// Continual pilots and TPS carriers used per mode (2k, 4k, 8k).
inline constexpr std::array<int32_t, 3> cpilot_count{45, 89, 177};
inline constexpr std::array<int32_t, 3> tps_count{17, 34, 68};

// Real amplitude of every pilot cell: the float nearest to 4/3.
inline constexpr float pilot_ampl = 4.0f / 3.0f;

// Computes the TPS word of the current frame from the transmission parameters.
void init_tps();

// Builds whole OFDM symbols of K carriers from N data cells each. maxlen counts
// input cells. Returns the number of data cells consumed (a multiple of N).
uint32_t piltps_add(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);

// Read-only views of the module state.
std::span<const uint8_t, 6817> framing_w();     // reference sequence bit per carrier
std::span<const uint8_t, 68> framing_s();       // TPS bits s0 .. s67 of the current frame
std::span<const float, 68> framing_tps_ampl();  // last amplitude of each TPS carrier
int32_t framing_sym_num();                      // next symbol within its frame
int32_t framing_frame_num();                    // current frame within its superframe
