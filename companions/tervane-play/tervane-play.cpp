// tervane-play: streams a DVB-T signal to an SDR transmitter through SoapySDR.
//
// Live mode runs the transmitter's chain in-process on a transport stream (a
// file, looped on request, or standard input, where null packets fill in when
// nothing is waiting) and sends its samples in real time. Playback mode (-play)
// sends a finished tervane output file. Either way the samples are scaled so
// that their nominal complex RMS sits -bo dB below the device's full scale and
// converted here to the device's native format:
//   y = x * k,  k = fullscale * 10^(-bo/20) / (sqrt(2) * dvbRefAmplitude(mode) / L)
// in double, L the interpolation factor; CF32 takes float(y) saturated to
// [-fullscale, fullscale]; CS16 and CS8 take round(y) (half away from zero)
// saturated to [-fullscale, fullscale - 1] (and to the type's range). Each
// saturated I or Q value counts as clipped.
//
// Threads: a producer runs the chain (single-threaded, as always) into a ring
// of device-format samples of -buf seconds, filled before the stream starts;
// the main thread owns the device stream and writes from that ring.
#include <poll.h>
#include <unistd.h>

#include <SoapySDR/Device.hpp>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Logger.hpp>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <numbers>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "companion.hpp"
#include "frame/chain.hpp"
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "outer/mpeg2.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kUsageError = 1;
constexpr int kDeviceError = 3;

const char kUsage[] =
    "usage: tervane-play -dev ARGS [device options] -i in.ts|- [tervane options]   live\n"
    "       tervane-play -dev ARGS [device options] -a 1|2|4 -ihp hp.ts -ilp lp.ts [...]\n"
    "       tervane-play -dev ARGS [device options] -play out.bin [tervane options]\n"
    "  Streams a DVB-T signal to a SoapySDR transmitter in real time: live from a\n"
    "  transport stream through the transmitter chain (tervane's options, same\n"
    "  spellings and meanings), or a finished tervane output file with -play.\n"
    "  -dev ARGS     SoapySDR device arguments, e.g. driver=hackrf\n"
    "  -fc HZ        centre frequency of the channel\n"
    "  -gain DB      overall TX gain; -ge NAME=DB a named gain element (repeatable)\n"
    "  -bw HZ        analogue baseband filter bandwidth (set after the rate)\n"
    "  -ant NAME     antenna\n"
    "  -lo HZ        tune the LO HZ away from -fc and shift the signal digitally by -HZ\n"
    "  -bo DB        back-off of the complex RMS below full scale (12)\n"
    "  -buf SECONDS  sample ring between the chain and the device (0.5)\n"
    "  -t SECONDS    stop after this much air time\n"
    "  -loop N|inf   play the input N times in all, or without end\n"
    "  -play FILE    play a tervane output file (format and rate from -F, -b, -I or\n"
    "                its SigMF metadata)\n"
    "  At the end: samples=N seconds=X rate=X underflows=N late=N clipped=N\n"
    "  peak_dbfs=X rms_dbfs=X loops=N nulls=N on standard output.\n"
    "  Exit status: 0 normal end, 1 usage or input error, 3 device error.\n";

std::atomic<bool> g_signalled{false};
std::atomic<long> g_log_underflows{0};

extern "C" void on_signal(int) { g_signalled.store(true); }

// Driver messages: "U" markers are underflows; warnings and worse go to stderr.
void on_log(const SoapySDRLogLevel level, const char* message) {
    if (level == SOAPY_SDR_SSI) {
        for (const char* c = message; *c != '\0'; ++c)
            if (*c == 'U') g_log_underflows.fetch_add(1);
        return;
    }
    if (level <= SOAPY_SDR_WARNING) std::fprintf(stderr, "%s: [driver] %s\n", companion::prog(), message);
}

// The device-side sample format and the conversion of scaled values into it.
struct Format {
    enum Kind { CF32, CS16, CS8 } kind = CF32;
    std::string name;  // CF32, CS16 or CS8
    double fullscale = 1;
    size_t size = 8;         // bytes per complex sample
    double lo = -1, hi = 1;  // saturation bounds

    static Format make(const std::string& native, double fs) {
        Format f;
        f.kind = native == SOAPY_SDR_CS8 ? CS8 : native == SOAPY_SDR_CS16 ? CS16 : CF32;
        f.name = f.kind == CS8 ? SOAPY_SDR_CS8 : f.kind == CS16 ? SOAPY_SDR_CS16 : SOAPY_SDR_CF32;
        f.fullscale = fs > 0 ? fs : (f.kind == CS8 ? 128 : f.kind == CS16 ? 32768 : 1);
        if (f.kind != CF32) {
            const double top = f.kind == CS8 ? 127 : 32767;
            f.size = f.kind == CS8 ? 2 : 4;
            f.lo = std::max(-std::floor(f.fullscale), -top - 1);
            f.hi = std::min(std::floor(f.fullscale) - 1, top);
        } else {
            f.lo = -f.fullscale;
            f.hi = f.fullscale;
        }
        return f;
    }
    // Writes one component in the format K (this one's); returns whether it was saturated.
    template <Kind K>
    bool put(double y, uint8_t* dst) const {
        if constexpr (K == CF32) {
            const float v = static_cast<float>(y);
            const bool clip = v < lo || v > hi;
            const float s = clip ? static_cast<float>(v < lo ? lo : hi) : v;
            std::memcpy(dst, &s, sizeof s);
            return clip;
        }
        // Rounded half away from zero: the truncation, moved by one where the
        // part cut off is a half or more (exact, as y - t is).
        const double c = std::clamp(y, lo - 1, hi + 1);
        const auto t = static_cast<int32_t>(c);
        const double cut = c - t;
        double r = t + (cut >= 0.5) - (cut <= -0.5);
        const bool clip = !(r >= lo && r <= hi);
        if (clip) r = y < 0 ? lo : hi;
        if constexpr (K == CS8) {
            *reinterpret_cast<int8_t*>(dst) = static_cast<int8_t>(r);
        } else {
            const auto v = static_cast<int16_t>(r);
            std::memcpy(dst, &v, sizeof v);
        }
        return clip;
    }
    // The largest magnitude and the sum of squares of n components, as they
    // stand in the device's format (relative to full scale: divide by it).
    void measure(const uint8_t* src, size_t n, double& peak, double& power) const {
        double p = 0, e = 0;
        if (kind == CF32) {
            for (size_t i = 0; i < n; ++i) {
                float v;
                std::memcpy(&v, src + 4 * i, sizeof v);
                p = std::max(p, double{std::fabs(v)}), e += double{v} * v;
            }
        } else {
            int64_t top = 0, sum = 0;
            for (size_t i = 0; i < n; ++i) {
                int16_t v = 0;
                if (kind == CS8) v = static_cast<int8_t>(src[i]);
                else std::memcpy(&v, src + 2 * i, sizeof v);
                top = std::max<int64_t>(top, v < 0 ? -v : v), sum += int64_t{v} * v;
            }
            p = static_cast<double>(top), e = static_cast<double>(sum);
        }
        peak = std::max(peak, p / fullscale);
        power += e / (fullscale * fullscale);
    }
};

struct Settings {
    std::string dev;
    std::optional<double> fc, gain, bw, limit;
    double lo = 0, backoff = 12, buf = 0.5;
    std::vector<std::pair<std::string, double>> gains;
    std::string ant;
    long loops = 1;  // plays of the input in all; 0 for no end
    std::string play;
    bool agi = false;  // -play: big-endian 16-bit I/Q codes
    double rate = 0;
};

// The ring of device-format samples between the producer and the writer.
class Ring {
public:
    Ring(size_t samples, size_t size) : data_(samples * size), cap_(samples), size_(size) {}
    // Appends all n samples, waiting for room; false when stopped first.
    bool push(const uint8_t* src, size_t n) {
        std::unique_lock<std::mutex> lock(m_);
        while (n > 0) {
            room_.wait(lock, [&] { return stop_ || fill_ < cap_; });
            if (stop_) return false;
            const size_t tail = (head_ + fill_) % cap_;
            const size_t k = std::min({n, cap_ - fill_, cap_ - tail});
            std::memcpy(&data_[tail * size_], src, k * size_);
            fill_ += k;
            src += k * size_;
            n -= k;
            ready_.notify_all();
        }
        return true;
    }
    // Takes up to n samples into dst, waiting at most the timeout for the first.
    size_t pop(uint8_t* dst, size_t n, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_);
        ready_.wait_for(lock, timeout, [&] { return fill_ > 0 || done_ || stop_; });
        size_t got = 0;
        while (got < n && fill_ > 0) {
            const size_t k = std::min({n - got, fill_, cap_ - head_});
            std::memcpy(dst + got * size_, &data_[head_ * size_], k * size_);
            head_ = (head_ + k) % cap_;
            fill_ -= k;
            got += k;
        }
        room_.notify_all();
        return got;
    }
    // Waits at most the timeout for the ring to be full or the producer done.
    bool wait_full(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_);
        return ready_.wait_for(lock, timeout, [&] { return fill_ == cap_ || done_ || stop_; });
    }
    void finish() {
        std::lock_guard<std::mutex> l(m_);
        done_ = true;
        ready_.notify_all();
    }
    void stop() {
        std::lock_guard<std::mutex> l(m_);
        stop_ = true;
        room_.notify_all();
        ready_.notify_all();
    }
    bool drained() {
        std::lock_guard<std::mutex> l(m_);
        return done_ && fill_ == 0;
    }
    size_t fill() {
        std::lock_guard<std::mutex> l(m_);
        return fill_;
    }
    size_t capacity() const { return cap_; }

private:
    std::mutex m_;
    std::condition_variable room_, ready_;
    std::vector<uint8_t> data_;
    size_t cap_, size_, head_ = 0, fill_ = 0;
    bool done_ = false, stop_ = false;
};

// Scales, shifts and converts complex values into device samples. The shift
// turns each sample by a phasor that advances by a fixed step; it is taken
// afresh from the exact phase every kBlock samples, so that its error stays
// far below a float's while each sample costs a complex product, not a sine.
class Converter {
public:
    Converter(const Format& f, double k, double lo_hz, double rate) : f_(f), k_(k), step_(-lo_hz / rate) {
        const double a = 2 * std::numbers::pi * step_;
        wr_ = std::cos(a), wi_ = std::sin(a);
    }
    void convert(const dvbComplex* x, size_t n, uint8_t* dst) {
        switch (f_.kind) {
        case Format::CF32: convert_as<Format::CF32>(x, n, dst); break;
        case Format::CS16: convert_as<Format::CS16>(x, n, dst); break;
        case Format::CS8: convert_as<Format::CS8>(x, n, dst); break;
        }
    }
    std::atomic<long> clipped{0};

private:
    template <Format::Kind K>
    void convert_as(const dvbComplex* x, size_t n, uint8_t* dst) {
        const size_t half = f_.size / 2;
        long clips = 0;
        for (size_t i = 0; i < n; ++i, dst += f_.size) {
            double re = double{x[i].re} * k_, im = double{x[i].im} * k_;
            if (step_ != 0) {
                if (left_ == 0) {
                    const double a = 2 * std::numbers::pi * phase_;
                    pr_ = std::cos(a), pi_ = std::sin(a);
                    phase_ += step_ * kBlock;
                    phase_ -= std::floor(phase_);
                    left_ = kBlock;
                }
                const double r2 = re * pr_ - im * pi_;
                im = re * pi_ + im * pr_;
                re = r2;
                const double p2 = pr_ * wr_ - pi_ * wi_;
                pi_ = pr_ * wi_ + pi_ * wr_;
                pr_ = p2;
                --left_;
            }
            clips += f_.put<K>(re, dst) + f_.put<K>(im, dst + half);
        }
        clipped += clips;
    }

    static constexpr unsigned kBlock = 4096;
    Format f_;
    double k_, step_, phase_ = 0;  // phase_: of the next block's first sample, in turns
    double wr_ = 1, wi_ = 0, pr_ = 1, pi_ = 0;
    unsigned left_ = 0;
};

// The transport stream source of one branch: a file played a number of
// times, or standard input.
struct Source {
    FILE* fp = nullptr;
    std::string name;
    bool live = false;  // standard input
    long plays = 0;     // completed passes over the file
    bool done = false;
    std::vector<uint8_t> partial;  // standard input: the bytes of an incomplete packet
};

class Producer {
public:
    Producer(const Settings& s, Ring& ring, Converter& conv, size_t elem)
        : s_(s), ring_(ring), conv_(conv), elem_(elem) {
        if (const char* d = std::getenv("TERVANE_PLAY_TEST_DELAY_US")) delay_us_ = std::atol(d);
    }
    std::vector<Source> sources;
    std::atomic<long> nulls{0}, loops{0};
    std::atomic<uint64_t> limit{UINT64_MAX};  // samples the writer can still take in all

    void run_live() {
        std::vector<uint8_t> out;
        uint64_t produced = 0;
        while (produced < limit.load()) {
            bool fed = false;
            for (size_t b = 0; b < sources.size(); ++b) fed = feed(sources[b], chain_input(b == 1)) || fed;
            bool moved = chain_pass_to_samples();
            dvbVect* s = chain_samples();
            while (s->fill > 0) {
                const uint32_t n = dvbRingRun(s, s->head, s->fill);
                out.resize(size_t{n} * elem_);
                conv_.convert(dvbCplx(s) + s->head, n, out.data());
                dvbRingConsume(s, n);
                if (!ring_.push(out.data(), n)) return;
                produced += n;
                moved = true;
                pace();
            }
            // The chain stalls once either branch's input has ended.
            const bool ended = std::any_of(sources.begin(), sources.end(), [](const Source& x) { return x.done; });
            if (!moved && !fed && ended) break;
            if (!moved && !fed && sources[0].live) wait_input();
        }
        ring_.finish();
    }

    void run_playback(FILE* fp) {
        const double sf = s_.agi ? dvbIntegerScale(1, dvbt_parms.mode, dvbt_parms.gain) : 1.0;
        const size_t width = s_.agi ? 4 : 8;  // bytes a sample in the file
        std::vector<dvbComplex> x(8192);
        std::vector<uint8_t> raw(x.size() * width), out;
        uint64_t produced = 0;
        while (produced < limit.load()) {
            const size_t n = std::fread(raw.data(), width, x.size(), fp);
            if (n == 0) {
                if (s_.loops != 0 && sources[0].plays + 1 >= s_.loops) break;
                ++sources[0].plays;
                loops.fetch_add(1);
                std::rewind(fp);
                continue;
            }
            for (size_t i = 0; i < n; ++i) x[i] = s_.agi ? agi(&raw[4 * i], sf) : cf32le(&raw[8 * i]);
            out.resize(n * elem_);
            conv_.convert(x.data(), n, out.data());
            if (!ring_.push(out.data(), n)) return;
            produced += n;
            pace();
        }
        ring_.finish();
    }

private:
    static dvbComplex cf32le(const uint8_t* p) {
        if constexpr (std::endian::native == std::endian::little) {
            dvbComplex v;
            std::memcpy(&v, p, sizeof v);
            return v;
        }
        uint32_t u[2];
        for (int c = 0; c < 2; ++c)
            u[c] = uint32_t{p[4 * c]} | uint32_t{p[4 * c + 1]} << 8 | uint32_t{p[4 * c + 2]} << 16 |
                   uint32_t{p[4 * c + 3]} << 24;
        dvbComplex v;
        std::memcpy(&v.re, &u[0], 4);
        std::memcpy(&v.im, &u[1], 4);
        return v;
    }
    static dvbComplex agi(const uint8_t* p, double sf) {
        const auto i = static_cast<int16_t>(uint16_t(p[0] << 8 | p[1]));
        const auto q = static_cast<int16_t>(uint16_t(p[2] << 8 | p[3]));
        return {static_cast<float>(i / sf), static_cast<float>(q / sf)};
    }

    // A test knob: slows the producer down by this many microseconds a batch,
    // so that the tests can make it late on purpose.
    void pace() const {
        if (delay_us_ > 0) std::this_thread::sleep_for(std::chrono::microseconds(delay_us_));
    }

    // Fills the free part of the chain's input ring; returns whether it took anything.
    bool feed(Source& src, dvbVect* in) {
        if (src.done) return false;
        if (src.live) return feed_live(src, in);
        bool took = false;
        while (in->fill < in->len) {
            const uint32_t pos = dvbRingWritePos(in);
            const uint32_t want = dvbRingRun(in, pos, in->len - in->fill);
            const size_t got = std::fread(dvbBytes(in) + pos, 1, want, src.fp);
            in->fill += static_cast<uint32_t>(got);
            took = took || got > 0;
            if (got == want) continue;
            if (std::ferror(src.fp)) companion::fail("reading \"%s\" failed", src.name.c_str());
            ++src.plays;
            if (s_.loops != 0 && src.plays >= s_.loops) {
                src.done = true;
                break;
            }
            if (&src == &sources[0]) loops.fetch_add(1);
            std::rewind(src.fp);
        }
        return took;
    }

    // Standard input: whole packets as they come; when none is waiting and the
    // sample ring has room, a null packet keeps the air going.
    bool feed_live(Source& src, dvbVect* in) {
        bool took = false;
        while (in->len - in->fill >= TS_PACKET) {
            uint8_t buf[TS_PACKET];
            size_t have = src.partial.size();
            if (have > 0) std::memcpy(buf, src.partial.data(), have);
            pollfd p{STDIN_FILENO, POLLIN, 0};
            while (have < TS_PACKET && (::poll(&p, 1, 0) > 0)) {
                const ssize_t r = ::read(STDIN_FILENO, buf + have, TS_PACKET - have);
                if (r < 0 && errno == EINTR) continue;
                if (r <= 0) {
                    src.done = true;
                    return took;
                }
                have += static_cast<size_t>(r);
            }
            if (have < TS_PACKET) {
                src.partial.assign(buf, buf + have);
                if (ring_.fill() >= ring_.capacity()) return took;
                null_packet(buf);
                nulls.fetch_add(1);
            } else {
                src.partial.clear();
            }
            const uint32_t pos = dvbRingWritePos(in);
            dvbRingPut(in, pos, buf, TS_PACKET);
            in->fill += TS_PACKET;
            took = true;
        }
        return took;
    }

    static void null_packet(uint8_t* p) {
        std::memset(p, 0xFF, TS_PACKET);
        p[0] = TS_SYNC;
        p[1] = static_cast<uint8_t>(TS_NULL_PID >> 8);
        p[2] = static_cast<uint8_t>(TS_NULL_PID & 0xFF);
        p[3] = 0x10;  // payload only, continuity counter 0
    }

    static void wait_input() {
        pollfd p{STDIN_FILENO, POLLIN, 0};
        ::poll(&p, 1, 5);
    }

    const Settings& s_;
    Ring& ring_;
    Converter& conv_;
    size_t elem_;
    long delay_us_ = 0;
};

// A text option's value: the parser leaves an empty text when it is not given.
const char* given(const char* text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }

double parse_number(const char* opt, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v))
        companion::fail("%s: \"%s\" is not a valid value", opt, text.c_str());
    return v;
}

// The SigMF metadata beside a data file, when there is one: its datatype and rate.
void read_sigmf(Settings& s) {
    std::string meta = s.play;
    if (meta.size() > 4 && meta.compare(meta.size() - 4, 4, ".bin") == 0) meta.resize(meta.size() - 4);
    meta += ".sigmf-meta";
    std::ifstream f(meta);
    if (!f) return;
    const std::string text{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    const auto value = [&](const char* key) -> std::string {
        const size_t k = text.find(std::string("\"") + key + "\"");
        if (k == std::string::npos) return "";
        size_t v = text.find(':', k + std::strlen(key) + 2);
        if (v == std::string::npos) return "";
        v = text.find_first_not_of(" \t\r\n\"", v + 1);
        const size_t e = text.find_first_of(",}\"\r\n", v);
        return v == std::string::npos ? "" : text.substr(v, e - v);
    };
    const std::string type = value("core:datatype");
    if (type == "cf32_le") s.agi = false;
    else if (type == "ci16_be") s.agi = true;
    else companion::fail("%s: datatype \"%s\" cannot be played (cf32_le or ci16_be)", meta.c_str(), type.c_str());
    const std::string rate = value("core:sample_rate");
    if (!rate.empty()) s.rate = parse_number("core:sample_rate", rate);
}

struct Device {
    SoapySDR::Device* dev = nullptr;
    SoapySDR::Stream* stream = nullptr;
    bool active = false;
    void close() {
        try {
            if (active) dev->deactivateStream(stream);
            if (stream != nullptr) dev->closeStream(stream);
        } catch (const std::exception&) {}
        active = false;
        stream = nullptr;
        if (dev != nullptr) SoapySDR::Device::unmake(dev);
        dev = nullptr;
    }
    [[noreturn]] void fail(const char* what, const std::string& why) {
        close();
        companion::fail_status(kDeviceError, "%s: %s", what, why.c_str());
    }
};

// Sets the device up as asked: rate (refused unless within 1 ppm), filter,
// antenna, gains, frequency; returns the stream's format.
Format setup(Device& d, const Settings& s) {
    try {
        d.dev = SoapySDR::Device::make(s.dev);
    } catch (const std::exception& e) {
        companion::fail_status(kDeviceError, "can't open the device \"%s\": %s", s.dev.c_str(), e.what());
    }
    const char* step = "setting the sample rate";
    try {
        d.dev->setSampleRate(SOAPY_SDR_TX, 0, s.rate);
        const double got = d.dev->getSampleRate(SOAPY_SDR_TX, 0);
        if (std::fabs(got - s.rate) > 1e-6 * s.rate) {
            d.close();
            companion::fail_status(kDeviceError,
                                   "the device gave %.3f Hz for the %.3f Hz asked (%.1f ppm off, more than 1 ppm): "
                                   "try another interpolation (-I 1x, 2x or 4x) or, on a device that has one, "
                                   "a master clock in -dev that the rate divides (e.g. master_clock_rate=%.3f)",
                                   got, s.rate, (got - s.rate) / s.rate * 1e6,
                                   s.rate * std::max(1.0, std::floor(61.44e6 / s.rate)));
        }
        step = "setting the bandwidth";
        if (s.bw) d.dev->setBandwidth(SOAPY_SDR_TX, 0, *s.bw);
        step = "setting the antenna";
        if (!s.ant.empty()) d.dev->setAntenna(SOAPY_SDR_TX, 0, s.ant);
        step = "setting the gain";
        if (s.gain) d.dev->setGain(SOAPY_SDR_TX, 0, *s.gain);
        for (const auto& [name, db] : s.gains) d.dev->setGain(SOAPY_SDR_TX, 0, name, db);
        step = "tuning";
        if (s.fc) d.dev->setFrequency(SOAPY_SDR_TX, 0, *s.fc + s.lo);
        step = "setting up the stream";
        double fs = 0;
        const std::string native = d.dev->getNativeStreamFormat(SOAPY_SDR_TX, 0, fs);
        const Format f = Format::make(native, fs);
        d.stream = d.dev->setupStream(SOAPY_SDR_TX, f.name, std::vector<size_t>{0});
        return f;
    } catch (const std::exception& e) {
        d.fail(step, e.what());
    }
}

struct Stats {
    uint64_t samples = 0;
    long status_underflows = 0, late = 0;
    double peak = 0, power = 0;
    Clock::time_point start = Clock::now(), end = start;
};

void report_line(const Stats& st, double rate, const Ring& ring_cap, size_t fill, long clipped, bool tty) {
    const double t = std::chrono::duration<double>(Clock::now() - st.start).count();
    std::fprintf(stderr,
                 "%s%.1f s  %llu samples  %.0f S/s (%.4f%%)  ring %3.0f%%  underflows %ld  late %ld  clipped %ld%s",
                 tty ? "\r" : "", t, static_cast<unsigned long long>(st.samples), t > 0 ? st.samples / t : 0.0,
                 t > 0 ? (st.samples / t / rate - 1) * 100 : 0.0, 100.0 * fill / ring_cap.capacity(),
                 std::max(st.status_underflows, g_log_underflows.load()), st.late, clipped, tty ? "" : "\n");
}

}  // namespace

int main(int argc, char** argv) {
    companion::start("tervane-play");
    // The parser fills every field of dvbt_parms, the defaults included.
    int32_t verbosity_arg = 0;
    const auto options = tervane_options(&verbosity_arg);

    // The parser's text blocks live as long as the process, as tervane's settings do.
    static char *dev = nullptr, *ant = nullptr, *loop = nullptr, *play = nullptr, *ge = nullptr;
    static char *fc = nullptr, *gain = nullptr, *bw = nullptr, *lo = nullptr, *limit = nullptr, *bo = nullptr,
                *buf = nullptr;
    const dvbOption own[] = {
        {.name = "-dev", .kind = dvbString, .target = &dev},   {.name = "-fc", .kind = dvbString, .target = &fc},
        {.name = "-gain", .kind = dvbString, .target = &gain}, {.name = "-ge", .kind = dvbString, .target = &ge},
        {.name = "-bw", .kind = dvbString, .target = &bw},     {.name = "-ant", .kind = dvbString, .target = &ant},
        {.name = "-lo", .kind = dvbString, .target = &lo},     {.name = "-t", .kind = dvbString, .target = &limit},
        {.name = "-bo", .kind = dvbString, .target = &bo},     {.name = "-buf", .kind = dvbString, .target = &buf},
        {.name = "-loop", .kind = dvbString, .target = &loop}, {.name = "-play", .kind = dvbString, .target = &play},
    };
    companion::parse_options(argc, argv, {std::span<const dvbOption>(options), std::span<const dvbOption>(own)});
    verbosity = 0;  // the chain prints nothing
    if (help != 0) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (version != 0) {
        companion::print_version();
        return 0;
    }

    Settings s;
    s.dev = given(dev) != nullptr ? dev : "";
    s.ant = given(ant) != nullptr ? ant : "";
    s.play = given(play) != nullptr ? play : "";
    const auto real = [](const char* opt, const char* text) -> std::optional<double> {
        if (given(text) == nullptr) return std::nullopt;
        return parse_number(opt, text);
    };
    s.fc = real("-fc", fc);
    s.gain = real("-gain", gain);
    s.bw = real("-bw", bw);
    s.limit = real("-t", limit);
    if (s.limit && *s.limit <= 0) companion::fail("-t: the air time must be positive");
    s.lo = real("-lo", lo).value_or(0);
    s.backoff = real("-bo", bo).value_or(12);
    s.buf = real("-buf", buf).value_or(0.5);
    if (s.buf <= 0 || s.buf > 60) companion::fail("-buf: \"%s\" is not between 0 and 60 seconds", buf);
    if (given(loop) != nullptr) {
        if (std::strcmp(loop, "inf") == 0) {
            s.loops = 0;
        } else {
            char* end = nullptr;
            s.loops = std::strtol(loop, &end, 10);
            if (*end != '\0' || s.loops < 1 || s.loops > 1000000000)
                companion::fail("-loop takes a number of plays (1 or more) or inf, not \"%s\"", loop);
        }
    }
    // Every -ge, in order (the option table keeps one).
    for (int a = 1; a + 1 < argc; ++a) {
        bool flag = false;
        for (const auto& o : options) flag = flag || (std::strcmp(argv[a], o.name) == 0 && o.kind == dvbBool);
        if (flag) continue;
        if (std::strcmp(argv[a], "-ge") == 0) {
            const std::string v = argv[a + 1];
            const size_t eq = v.find('=');
            if (eq == std::string::npos || eq == 0) companion::fail("-ge takes NAME=DB, not \"%s\"", v.c_str());
            s.gains.emplace_back(v.substr(0, eq), parse_number("-ge", v.substr(eq + 1)));
        }
        ++a;
    }

    if (given(out_fname) || given(dumptypes) || given(log_fname))
        companion::fail("-o, -d and -l name tervane's output files: tervane-play writes none");
    const uint32_t requested_M = dvbt_parms.M;
    settle_parms();
    compute_rates();
    double L = dvbt_interprate[dvbt_parms.interp];
    s.rate = dvbSampleRate(dvbt_parms.band, dvbt_parms.interp);
    const bool hier = dvbt_hierarchical();

    // The inputs, checked before the device is touched.
    std::vector<Source> sources;
    FILE* play_fp = nullptr;
    uint64_t play_bytes = 0;
    if (!s.play.empty()) {
        if (given(mpeg2ts_fname) || hier) companion::fail("-play takes no transport stream input (-i, -a)");
        s.agi = dvbt_parms.dumpformat == 1;
        if (dvbt_parms.dumpformat == 2) companion::fail("-play: the agiold format (two files) cannot be played");
        read_sigmf(s);
        // A rate from the metadata that is one of the channel's interpolated rates gives the interpolation.
        for (uint32_t i = 0; i < dvbt_interprate.size(); ++i)
            if (std::fabs(s.rate - dvbSampleRate(dvbt_parms.band, i)) < 1e-6 * s.rate) L = dvbt_interprate[i];
        play_bytes = companion::input_size(s.play);
        play_fp = std::fopen(s.play.c_str(), "rb");
        if (play_fp == nullptr) companion::fail("can't read \"%s\": %s", s.play.c_str(), std::strerror(errno));
        const uint64_t n = play_bytes / (s.agi ? 4 : 8);
        if (n == 0) companion::fail("\"%s\" holds no samples", s.play.c_str());
        const auto F = static_cast<uint64_t>(dvbt_fftsize[dvbt_parms.mode]);
        const uint64_t superframe =
            static_cast<uint64_t>(dvbt_superframe_symbols) *
            (F + static_cast<uint64_t>(static_cast<float>(F) * dvbt_guardfrac[dvbt_parms.delta])) *
            static_cast<uint64_t>(L);
        if (n % superframe != 0 || play_bytes % (s.agi ? 4 : 8) != 0)
            std::fprintf(stderr,
                         "%s: warning: \"%s\" is not a whole number of superframes (%llu samples each): "
                         "the seam of a loop is not clean\n",
                         companion::prog(), s.play.c_str(), static_cast<unsigned long long>(superframe));
        sources.emplace_back();
    } else {
        chain_set_lengths();
        if (packnum < chain_min_packnum(requested_M))
            companion::fail("-s %d is too small for this mode (use -s %d or more)", packnum,
                            chain_min_packnum(requested_M));
        chain_create();
        const std::vector<const char*> names =
            hier ? std::vector<const char*>{given(mpeg2ts_hp_fname), given(mpeg2ts_lp_fname)}
                 : std::vector<const char*>{given(mpeg2ts_fname)};
        for (const char* name : names) {
            if (name == nullptr)
                companion::fail(hier ? "-ihp and -ilp name the inputs" : "no input: -i FILE, -i - or -play FILE");
            Source src;
            src.name = name;
            if (src.name == "-") {
                if (hier) companion::fail("hierarchical inputs must be files");
                if (s.loops != 1) companion::fail("-loop needs a file input");
                src.live = true;
            } else {
                const uint64_t size = companion::input_size(src.name);
                src.fp = std::fopen(name, "rb");
                if (src.fp == nullptr) companion::fail("can't read \"%s\": %s", name, std::strerror(errno));
                if (size == 0 && s.loops != 1) companion::fail("\"%s\" is empty: nothing to loop", name);
            }
            sources.push_back(std::move(src));
        }
    }
    if (s.loops != 1)
        std::fprintf(stderr,
                     "%s: looping the input: the programme clocks (PCR, PTS) and the continuity "
                     "counters jump at each seam\n",
                     companion::prog());
    const double band = B_n;
    if (s.lo != 0 && std::fabs(s.lo) + band / 2 > s.rate / 2)
        companion::fail(
            "-lo %.0f: the shifted channel (%.0f Hz wide) leaves the %.0f Hz band; use a higher "
            "interpolation (-I 2x or 4x) or a smaller offset",
            s.lo, static_cast<double>(band), s.rate);

    // The device.
    SoapySDR::registerLogHandler(&on_log);
    Device d;
    const Format f = setup(d, s);
    size_t mtu = 0;
    try {
        mtu = d.dev->getStreamMTU(d.stream);
    } catch (const std::exception&) {}
    if (mtu == 0) mtu = 8192;
    const double nominal = std::sqrt(2.0) * dvbRefAmplitude(dvbt_parms.mode) / L;
    const double k = f.fullscale * std::pow(10.0, -s.backoff / 20.0) / nominal;
    std::fprintf(stderr, "%s: %s, %s full scale %g, %.3f Hz, back-off %.1f dB\n", companion::prog(),
                 d.dev->getHardwareKey().c_str(), f.name.c_str(), f.fullscale, s.rate, s.backoff);

    Ring ring(std::max<size_t>(static_cast<size_t>(std::ceil(s.buf * s.rate)), mtu), f.size);
    Converter conv(f, k, s.lo, s.rate);
    Producer prod(s, ring, conv, f.size);
    prod.sources = std::move(sources);
    const uint64_t to_send = s.limit ? static_cast<uint64_t>(std::llround(*s.limit * s.rate)) : UINT64_MAX;
    prod.limit = to_send;
    std::thread producer([&] {
        if (play_fp != nullptr) prod.run_playback(play_fp);
        else prod.run_live();
    });

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    // The writer: the ring filled first, then the stream.
    while (!ring.wait_full(std::chrono::milliseconds(100)) && !g_signalled.load()) {}
    Stats st;
    bool status_ok = true, played_out = false;
    std::string failure;
    const auto poll_status = [&](long timeout_us) {
        if (!status_ok) return;
        size_t mask = 0;
        int flags = 0;
        long long t = 0;
        const int r = d.dev->readStreamStatus(d.stream, mask, flags, t, timeout_us);
        if (r == SOAPY_SDR_NOT_SUPPORTED) status_ok = false;
        if (r == SOAPY_SDR_UNDERFLOW) ++st.status_underflows;
        if (r == 0 && (flags & SOAPY_SDR_END_BURST) != 0) played_out = true;
    };
    const bool tty = ::isatty(STDERR_FILENO) != 0;
    try {
        if (d.dev->activateStream(d.stream) != 0) throw std::runtime_error("activateStream failed");
        d.active = true;
        st.start = Clock::now();
        auto next_report = st.start + std::chrono::seconds(1);
        std::vector<uint8_t> chunk(mtu * f.size);
        bool empty = false;
        for (bool last = false; !last;) {
            // The device wants samples: an empty ring is a late delivery (once an episode).
            const bool late = ring.fill() == 0 && !ring.drained() && !g_signalled.load();
            if (late && !empty) ++st.late;
            empty = late;
            const size_t n =
                ring.pop(chunk.data(), std::min<uint64_t>(mtu, to_send - st.samples), std::chrono::milliseconds(100));
            const bool stop = g_signalled.load();
            if (n == 0 && !stop && !ring.drained()) continue;
            last = stop || st.samples + n >= to_send || ring.drained();
            f.measure(chunk.data(), 2 * n, st.peak, st.power);
            size_t done = 0;
            do {
                int flags = last ? SOAPY_SDR_END_BURST : 0;
                const void* b[] = {chunk.data() + done * f.size};
                const int r = d.dev->writeStream(d.stream, b, n - done, flags, 0, 100000);
                if (r == SOAPY_SDR_UNDERFLOW) ++st.status_underflows;
                else if (r == SOAPY_SDR_TIMEOUT) {
                    if (g_signalled.load() && !last) break;
                } else if (r < 0) throw std::runtime_error(std::string("writeStream: ") + SoapySDR::errToStr(r));
                else done += static_cast<size_t>(r);
                poll_status(0);
            } while (done < n);
            st.samples += done;
            if (Clock::now() >= next_report) {
                report_line(st, s.rate, ring, ring.fill(), conv.clipped.load(), tty);
                next_report += std::chrono::seconds(1);
            }
        }
        // Played out: the END_BURST status, else the duration of what was sent.
        const auto sent_end =
            st.start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(st.samples / s.rate));
        const auto deadline = std::max(Clock::now(), sent_end) + std::chrono::seconds(1);
        while (status_ok && !played_out && Clock::now() < deadline) poll_status(100000);
        if (!played_out) std::this_thread::sleep_until(std::max(Clock::now(), sent_end));
    } catch (const std::exception& e) {
        failure = e.what();
    }
    st.end = Clock::now();
    ring.stop();
    producer.join();
    if (tty) std::fputc('\n', stderr);
    d.close();
    if (!failure.empty()) companion::fail_status(kDeviceError, "stream failure: %s", failure.c_str());

    const double secs = std::chrono::duration<double>(st.end - st.start).count();
    const auto db = [](double x) { return x > 0 ? 10 * std::log10(x) : -999.0; };
    std::printf(
        "samples=%llu seconds=%.3f rate=%.1f underflows=%ld late=%ld clipped=%ld peak_dbfs=%.2f "
        "rms_dbfs=%.2f loops=%ld nulls=%ld\n",
        static_cast<unsigned long long>(st.samples), secs, secs > 0 ? st.samples / secs : 0.0,
        std::max(st.status_underflows, g_log_underflows.load()), st.late, conv.clipped.load(), db(st.peak * st.peak),
        db(st.samples > 0 ? st.power / st.samples : 0), prod.loops.load(), prod.nulls.load());
    for (Source& src : prod.sources)
        if (src.fp != nullptr) std::fclose(src.fp);
    if (play_fp != nullptr) std::fclose(play_fp);
    chain_destroy();
    return 0;
}
