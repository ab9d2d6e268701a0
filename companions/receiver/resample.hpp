// A resampler for the receiver's input: band-limited interpolation at any
// ratio, for recordings whose rate is not 1, 2 or 4 times the channel's
// elementary rate, and to take a sampling-clock offset out of the signal.
#pragma once

#include <complex>
#include <span>
#include <vector>

namespace rx {

struct Resampler {
    double step = 1;                        // input samples per output sample
    int taps = 0;                           // input samples each output is made of
    int phases = 512;                       // fractional positions of the table
    std::vector<float> table;               // (phases + 1) rows of taps coefficients
    std::vector<std::complex<float>> hist;  // input not yet used up
    double t = 0;                           // position of the next output in hist
};

// A resampler of the given ratio (input rate over output rate, at least 1/2):
// a Kaiser-windowed sinc whose cutoff is the output's Nyquist frequency (or
// the input's, whichever is lower), of 48 output periods.
void resampler_init(Resampler& r, double step);
// Changes the ratio by a little (a clock correction), keeping the filter.
inline void resampler_retune(Resampler& r, double step) { r.step = step; }
// Appends to out the outputs that the input so far makes whole.
void resample(Resampler& r, std::span<const std::complex<float>> in, std::vector<std::complex<float>>& out);

}  // namespace rx
