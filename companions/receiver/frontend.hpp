// The receiver's front end: from complex baseband samples to the equalised
// data cells of each OFDM symbol (decoder.hpp), with nothing known beforehand
// but the frequency mapping and the channel spacing.
//
// Acquisition: the guard-interval correlation gives the mode, the guard, the
// symbol timing and the fractional carrier offset; the continual pilots of two
// successive symbols give the integer offset; the TPS synchronisation word
// gives the symbol and frame numbers, and the TPS word, once its BCH parity
// checks, every transmission parameter. Tracking, symbol by symbol, from the
// continual pilots: the common phase, the carrier offset (a frequency loop on
// the phase), and the timing drift of a sampling-clock offset (a second-order
// loop on the phase slope across the band, which moves the FFT window by a
// sample when the drift reaches one). Channel estimation: by default from the
// scattered pilots, interpolated over time (the four symbols of their pattern)
// and then over frequency; or, for a channel that stays fixed over the
// recording, from every pilot of the run (two passes over the input).
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "receiver/decoder.hpp"

namespace rx {

struct FrontEndConfig {
    uint32_t band = 3;            // channel spacing: 5, 6, 7, 8 MHz (tervane's index)
    uint32_t mapping = 0;         // frequency mapping: 0, BB, INV
    uint32_t interp = 0;          // samples at 1, 2 or 4 times the elementary rate
    int mode = -1;                // forced mode, or -1 to acquire it
    int delta = -1;               // forced guard interval, or -1 to acquire it
    double max_offset_hz = 60e3;  // integer carrier offsets searched, either way
    int search_span = 131072;     // samples (at the elementary rate) one search correlates
    // The input's sample rate in Hz when it is not 1, 2 or 4 times the
    // elementary rate (interp is then 1x and the input is resampled to it); 0
    // when it is.
    double rate = 0;
    // Resampling, to take out a sampling-clock offset found beyond 2 ppm (the
    // first lock then waits for the offset to be measured).
    bool clock_correction = true;
    // -est static: the first pass collects (collect_static) and emits nothing;
    // the second is given what it collected.
    bool collect_static = false;
};

// The fixed channel of a run, estimated from every pilot: the response of each
// carrier and the noise power per carrier.
struct StaticChannel {
    std::vector<std::complex<float>> h;
    float noise = 0;
    uint64_t symbols = 0;  // symbols it was estimated from
};

struct FrontEndStatus {
    bool locked = false;  // tracking a signal whose TPS has been read
    bool ever_locked = false;
    int losses = 0;  // times the lock was lost
    bool have_tps = false;
    Transmission tps;               // as the last good TPS word says (cid: the whole identifier once both bytes came)
    double offset_hz = 0;           // carrier frequency offset
    double clock_ppm = 0;           // sample clock against the nominal rate
    double corrected_ppm = 0;       // of which the resampler takes out
    double mer_db = 0;              // over the data cells emitted
    double snr_db = 0;              // pilots' carrier-to-noise ratio
    uint64_t symbols = 0;           // symbols emitted
    uint64_t tps_failures = 0;      // TPS words whose parity or sync failed while locked
    uint64_t lock_sample = 0;       // input sample where the first lock's first symbol began
    uint64_t not_finite = 0;        // sample values that were not finite numbers (taken as zero)
    uint64_t first_not_finite = 0;  // the first sample that held one
};

// Each symbol's cells, with the transmission they belong to.
using CellSink = std::function<void(const Transmission&, const SymbolCells&)>;

struct FrontEnd;
struct FrontEndDeleter {
    void operator()(FrontEnd* f) const;
};
using FrontEndPtr = std::unique_ptr<FrontEnd, FrontEndDeleter>;

// A front end; with a static channel (from a first pass over the same input)
// it equalises with that instead of the scattered pilots.
FrontEndPtr frontend_create(const FrontEndConfig& c, const StaticChannel* fixed = nullptr);
// Takes the next samples; every symbol completed goes to the sink.
void frontend_push(FrontEnd& f, std::span<const std::complex<float>> samples, const CellSink& sink);
FrontEndStatus frontend_status(const FrontEnd& f);
// After a collecting pass: the channel of the run (empty h when it never locked).
StaticChannel frontend_static(const FrontEnd& f);

}  // namespace rx
