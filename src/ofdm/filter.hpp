// Interpolation by 2 or 4 with a fixed linear-phase low-pass filter, computed in
// polyphase form so that the inserted zeros are never multiplied.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

namespace filter_detail {
template <size_t L, size_t H>
constexpr std::array<float, L> mirror(const std::array<float, H>& half) {
    std::array<float, L> h{};
    for (size_t i = 0; i < H; ++i) {
        h[i] = half[i];
        h[L - 1 - i] = half[i];
    }
    return h;
}
}  // namespace filter_detail

// The 2x filter: 31 taps, symmetric; h[15] is the centre.
inline constexpr std::array<float, 31> filter2x = filter_detail::mirror<31>(std::array<float, 16>{
    0.0023961172f, 0.00823879f, 0.006146139f, -0.0068566743f, -0.0102531705f, 0.0091651855f, 0.01811418f, -0.011463286f,
    -0.030780762f, 0.013532053f, 0.052437153f, -0.015168005f, -0.099063866f, 0.0162153f, 0.31591025f, 0.483423f});

// The 4x filter: 63 taps, symmetric; h[31] is the centre.
inline constexpr std::array<float, 63> filter4x = filter_detail::mirror<63>(std::array<float, 32>{
    -9.815619e-05f, 0.00123949f,   0.0025861044f,  0.003983935f,   0.0044331793f, 0.0031807339f, 0.00022650273f,
    -0.0033616086f, -0.005734106f, -0.0051783915f, -0.0012608389f, 0.004499078f,  0.00901284f,   0.0091278f,
    0.0035953387f,  -0.005631224f, -0.013770492f,  -0.015455282f,  -0.007912841f, 0.006641832f,  0.021054357f,
    0.026271867f,   0.016286477f,  -0.0074414546f, -0.034677316f,  -0.04956587f,  -0.037391398f, 0.007953504f,
    0.07944872f,    0.1579662f,    0.21891603f,    0.24186862f});

inline constexpr std::array<int32_t, 2> filt2xlen{15, 16};
inline constexpr std::array<int32_t, 4> filt4xlen{15, 16, 16, 16};

// Selects the filter of the interpolation factor in dvbt_parms; nothing at 1x.
void init_filt();

// Each input sample gives R output samples; maxlen and the free space of the
// output are divided by R. Returns the input samples consumed.
uint32_t transmit(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);

// The plain per-phase form, one input sample at a time, for tests: shifts u
// into the phase delay lines and writes the R outputs to y.
void transmit_reference_step(dvbComplex u, dvbComplex* y);
