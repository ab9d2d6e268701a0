// The player's samples: the device's sample format and the conversion of
// scaled values into it, the LO shift, and the ring between the producer
// thread and the device's writer.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "vectors/manage.hpp"

namespace play {

// The device-side sample format: CF32 takes float(y) saturated to
// [-fullscale, fullscale]; CS16 and CS8 take round(y) (half away from zero)
// saturated to [-fullscale, fullscale - 1] and to the type's range.
struct Format {
    enum Kind { CF32, CS16, CS8 } kind = CF32;
    std::string name;  // CF32, CS16 or CS8, SoapySDR's names
    double fullscale = 1;
    size_t size = 8;         // bytes per complex sample
    double lo = -1, hi = 1;  // saturation bounds

    // The format for the device's native one (any other is sent as CF32) and
    // its full scale (0 or less: the type's own).
    static Format make(const std::string& native, double fs);

    // Writes one component in the format K (this one's); returns whether it was saturated.
    template <Kind K>
    bool put(double y, uint8_t* dst) const {
        if constexpr (K == CF32) {
            const float v = static_cast<float>(y);
            const bool clip = !(v >= lo && v <= hi);  // a NaN too, sent as full scale
            const float s = clip ? static_cast<float>(v < lo ? lo : hi) : v;
            std::memcpy(dst, &s, sizeof s);
            return clip;
        }
        // Rounded half away from zero: the truncation, moved by one where the
        // part cut off is a half or more (exact, as y - t is). A NaN becomes
        // hi + 1 here and so is saturated like any value out of range.
        const double c = std::fmax(lo - 1, std::fmin(y, hi + 1));
        const auto t = static_cast<int32_t>(c);
        const double cut = c - t;
        double r = t + (cut >= 0.5) - (cut <= -0.5);
        const bool clip = !(r >= lo && r <= hi);
        if (clip) r = y < 0 ? lo : hi;
        if constexpr (K == CS8) {
            const auto v = static_cast<int8_t>(r);
            std::memcpy(dst, &v, sizeof v);
        } else {
            const auto v = static_cast<int16_t>(r);
            std::memcpy(dst, &v, sizeof v);
        }
        return clip;
    }

    // Adds the largest magnitude and the sum of squares of n components, as
    // they stand in the device's format, relative to full scale, to peak and power.
    void measure(const uint8_t* src, size_t n, double& peak, double& power) const;
};

// Scales, shifts and converts complex values into device samples. The shift
// turns each sample by a phasor that advances by a fixed step; it is taken
// afresh from the exact phase every kBlock samples, so that its error stays
// far below a float's while each sample costs a complex product, not a sine.
class Converter {
public:
    // k: the scale; the shift of lo_hz at the given sample rate moves the
    // signal by -lo_hz.
    Converter(const Format& f, double k, double lo_hz, double rate);
    void convert(const dvbComplex* x, size_t n, uint8_t* dst);
    std::atomic<long> clipped{0};  // saturated I or Q values so far

    static constexpr unsigned kBlock = 4096;

private:
    template <Format::Kind K>
    void convert_as(const dvbComplex* x, size_t n, uint8_t* dst);

    Format f_;
    double k_, step_, phase_ = 0;  // phase_: of the next block's first sample, in turns
    double wr_ = 1, wi_ = 0, pr_ = 1, pi_ = 0;
    unsigned left_ = 0;
};

// The ring of device-format samples between the producer and the writer.
class Ring {
public:
    Ring(size_t samples, size_t size) : data_(samples * size), cap_(samples), size_(size) {}
    // Appends all n samples, waiting for room; false when stopped first.
    bool push(const uint8_t* src, size_t n);
    // Takes up to n samples into dst, waiting at most the timeout for the first.
    size_t pop(uint8_t* dst, size_t n, std::chrono::milliseconds timeout);
    // Waits at most the timeout for the ring to be full or the producer done.
    bool wait_full(std::chrono::milliseconds timeout);
    // The producer has no more samples.
    void finish();
    // Ends every wait: push refuses from now on.
    void stop();
    bool stopped();
    // The producer is done and every sample taken.
    bool drained();
    size_t fill();
    size_t capacity() const { return cap_; }

private:
    std::mutex m_;
    std::condition_variable room_, ready_;
    std::vector<uint8_t> data_;
    size_t cap_, size_, head_ = 0, fill_ = 0;
    bool done_ = false, stop_ = false;
};

}  // namespace play
