// tervane-channel: the channel between the transmitter and a receiver under
// test. It reads a time-domain output in the "std" format (little-endian float32
// I/Q pairs) and writes one in the same format, sample for sample, after, in
// this order: a static multipath profile (none, the Ricean F1 or the Rayleigh P1
// channel of EN 300 744's receiver tests), a carrier frequency offset, and white
// Gaussian noise at a carrier-to-noise ratio counted in the signal's bandwidth.
//
// The echoes lie at fractions of a sample: every path is a Kaiser-windowed sinc
// interpolator, and the paths add up to one FIR filter, run over the file in
// blocks with its history carried over, so that files of any size need little
// memory. The noise power follows from the power of the signal after the
// channel, measured in a first pass over the file.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "companion.hpp"
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "frame/version.hpp"

static_assert(std::endian::native == std::endian::little, "the std format is little-endian float32");

namespace {

const char kUsage[] =
    "usage: tervane-channel -i IN.bin -o OUT.bin [-m MODE] [-b SPACING] [-I RATE] [-f MAP]\n"
    "                       -profile gaussian|ricean|rayleigh [-cn DB] [-cfo HZ] [-ppm PPM] [-seed N]\n"
    "  Reads tervane's time-domain output IN.bin (format std: float32 I/Q pairs) and\n"
    "  writes OUT.bin in the same format after a channel profile, a clock offset, a\n"
    "  carrier frequency offset and white Gaussian noise, in this order.\n"
    "  -m 2k|4k|8k     OFDM mode of the run (default 2k): the signal's bandwidth\n"
    "  -b 5|6|7|8      channel spacing in MHz (default 8)   the sample rate: the\n"
    "  -I 1x|2x|4x     interpolation of the run (default 1x) elementary rate times -I\n"
    "  -f 0|BB|INV     frequency mapping of the run (default 0): where the band lies\n"
    "  -profile NAME   gaussian (no echoes), ricean (F1: a direct path and 20 echoes)\n"
    "                  or rayleigh (P1: the 20 echoes alone)\n"
    "  -cn DB          C/N in the signal's bandwidth, -100 to 300 dB (no noise without it)\n"
    "  -cfo HZ         carrier frequency offset (default none)\n"
    "  -ppm PPM        sampling-clock offset, -1000 to 1000: the output is resampled as\n"
    "                  a receiver whose clock runs PPM parts per million fast samples it\n"
    "                  (default none: sample for sample)\n"
    "  -seed N         seed of the noise, 0 to 18446744073709551615 (default 1)\n"
    "  -h, -V          this help, the version\n"
    "  The other options of tervane are accepted and ignored; any other word is an error.\n";

// The 20 echoes of the receiver-test channels: attenuation, delay (us), phase (rad).
struct Echo {
    double rho, tau_us, theta;
};
constexpr std::array<Echo, 20> kEchoes{{
    {0.057662, 1.003019, 4.855121}, {0.176809, 5.422091, 3.419109}, {0.407163, 0.518650, 5.864470},
    {0.303585, 2.751772, 2.215894}, {0.258782, 0.602895, 3.758058}, {0.061831, 1.016585, 5.430202},
    {0.150340, 0.143556, 3.952093}, {0.051534, 0.153832, 1.093586}, {0.185074, 3.324866, 5.775198},
    {0.400967, 1.935570, 0.154459}, {0.295723, 0.429948, 5.928383}, {0.350825, 3.228872, 3.053023},
    {0.262909, 0.848831, 0.628578}, {0.225894, 0.073883, 2.128544}, {0.170996, 0.203952, 1.099463},
    {0.149723, 0.194207, 3.462951}, {0.240140, 0.924450, 3.664773}, {0.116587, 1.381320, 2.833799},
    {0.221155, 0.640512, 3.334290}, {0.259730, 1.368671, 0.393889},
}};
constexpr double kRiceanFactor = 10.0;  // power of the direct path over that of the echoes

// Fractional-delay interpolator: taps per path and the Kaiser window's beta.
// Over the occupied band at 1x its error is below -100 dB (the man page gives the
// measured accuracy of whole channels).
constexpr int kTaps = 48;
constexpr double kBeta = 12.0;

constexpr size_t kBlock = 1 << 16;  // samples per block

// ---------------------------------------------------------------- options

using companion::fail;

// The channel's own options; tervane's fill the transmitter's settings.
char *g_profile, *g_cn, *g_cfo, *g_ppm, *g_seed;
const dvbOption kOwnOptions[] = {
    {.name = "-profile", .kind = dvbString, .target = &g_profile},
    {.name = "-cn", .kind = dvbString, .target = &g_cn},
    {.name = "-cfo", .kind = dvbString, .target = &g_cfo},
    {.name = "-ppm", .kind = dvbString, .target = &g_ppm},
    {.name = "-seed", .kind = dvbString, .target = &g_seed},
};

enum class Profile { gaussian, ricean, rayleigh };

struct Settings {
    std::string in, out;
    Profile profile = Profile::gaussian;
    bool noise = false, offset = false, clock = false;
    double cn_db = 0, cfo_hz = 0, ppm = 0;
    uint64_t seed = 1;
    double fs = 0, rate = 0, bandwidth = 0, centre = 0;  // Hz
    double lowest = 0;  // the lowest carrier's frequency (Hz), where the echoes' phases hold
    uint64_t samples = 0;
};

// The value of a text option, empty when absent (the parser refuses an empty one).
std::string value_of(const char* text) { return text != nullptr ? text : ""; }

double number(const std::string& text, const char* name, const char* what) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        fail("%s takes %s, not \"%s\"", name, what, text.c_str());
    return v;
}

Settings settle() {
    Settings s;
    s.in = value_of(mpeg2ts_fname);
    s.out = value_of(out_fname);
    const std::string profile = value_of(g_profile);
    const std::string cn = value_of(g_cn);
    const std::string cfo = value_of(g_cfo);
    const std::string seed = value_of(g_seed);
    const std::string ppm = value_of(g_ppm);
    if (s.in.empty()) fail("no input file given (-i IN.bin; %s -h for usage)", companion::prog());
    if (s.out.empty()) fail("no output file given (-o OUT.bin; %s -h for usage)", companion::prog());
    if (profile.empty()) fail("no channel profile given (-profile gaussian, ricean or rayleigh)");
    if (profile == "gaussian") s.profile = Profile::gaussian;
    else if (profile == "ricean") s.profile = Profile::ricean;
    else if (profile == "rayleigh") s.profile = Profile::rayleigh;
    else fail("unknown profile \"%s\" (gaussian, ricean or rayleigh)", profile.c_str());
    const dvbt_parms_t& p = dvbt_parms;
    if (p.dumpformat != 0) fail("reads the std format only, not -F %s", dvbt_dumpformat[p.dumpformat]);

    s.fs = dvbSampleRate(p.band, 0);
    s.rate = dvbSampleRate(p.band, p.interp);
    s.bandwidth = dvbt_K[p.mode] * s.fs / dvbt_fftsize[p.mode];
    s.centre = p.ifftmm == 1 ? s.fs / 2 : 0.0;  // BB puts the centre carrier at half the elementary rate
    s.lowest = s.centre - (dvbt_K[p.mode] - 1) / 2 * s.fs / dvbt_fftsize[p.mode];
    if (!cn.empty()) {
        s.noise = true, s.cn_db = number(cn, "-cn", "a C/N in dB");
        if (s.cn_db < -100 || s.cn_db > 300) fail("-cn %s: the C/N must lie between -100 and 300 dB", cn.c_str());
    }
    if (!cfo.empty()) {
        s.offset = true;
        s.cfo_hz = number(cfo, "-cfo", "an offset in Hz");
        if (std::fabs(s.cfo_hz) >= s.rate / 2)
            fail("-cfo %s Hz: the offset must stay below half the sample rate (%.0f Hz)", cfo.c_str(), s.rate / 2);
    }
    if (!ppm.empty()) {
        s.ppm = number(ppm, "-ppm", "a clock offset in parts per million");
        if (std::fabs(s.ppm) > 1000) fail("-ppm %s: the clock offset must lie between -1000 and 1000 ppm", ppm.c_str());
        s.clock = s.ppm != 0;
    }
    if (!seed.empty()) {
        errno = 0;
        char* end = nullptr;
        s.seed = std::strtoull(seed.c_str(), &end, 10);
        if (seed[0] < '0' || seed[0] > '9' || *end != '\0' || errno == ERANGE)
            fail("-seed takes a whole number from 0 to 18446744073709551615, not \"%s\"", seed.c_str());
    }

    const uint64_t size = companion::input_size(s.in);
    if (size % 8 != 0)
        fail("\"%s\" is not a whole number of 8-byte samples (%llu bytes)", s.in.c_str(),
             static_cast<unsigned long long>(size));
    if (size == 0) fail("\"%s\" holds no samples", s.in.c_str());
    s.samples = size / 8;
    companion::check_not_input(s.out, s.in);
    return s;
}

// ---------------------------------------------------------------- the channel

// Impulse response of the profile at the sample rate, taps h[k] for k = lo .. lo + size - 1.
struct Response {
    int lo = 0;
    std::vector<double> re, im;
    double min_delay = 0, max_delay = 0;  // of the echoes, in samples
};

double bessel_i0(double x) {
    double sum = 1, term = 1;
    for (int k = 1; term > 1e-17 * sum; ++k) term *= (x / (2 * k)) * (x / (2 * k)), sum += term;
    return sum;
}

// Adds a path of complex weight w delayed by d samples: an exact tap for a whole
// delay, else kTaps taps of a Kaiser-windowed sinc centred on d, turned to the
// band's centre frequency (fc, in cycles per sample) so that the delay is right
// over the band wherever it lies.
void add_path(Response& h, double d, double wr, double wi, double fc) {
    const double base = std::floor(d);
    std::vector<std::pair<int, double>> taps;
    if (base == d) {
        taps.emplace_back(static_cast<int>(d), 1.0);
    } else {
        const double half = kTaps / 2;
        for (int n = static_cast<int>(base) - kTaps / 2 + 1; n <= static_cast<int>(base) + kTaps / 2; ++n) {
            const double x = n - d;
            const double r = x / half;
            const double window = bessel_i0(kBeta * std::sqrt(std::max(0.0, 1 - r * r))) / bessel_i0(kBeta);
            taps.emplace_back(n, window * std::sin(std::numbers::pi * x) / (std::numbers::pi * x));
        }
    }
    for (const auto& [n, v] : taps) {
        if (h.re.empty()) h.lo = n, h.re.assign(1, 0.0), h.im.assign(1, 0.0);
        if (n < h.lo) {
            h.re.insert(h.re.begin(), static_cast<size_t>(h.lo - n), 0.0);
            h.im.insert(h.im.begin(), static_cast<size_t>(h.lo - n), 0.0);
            h.lo = n;
        }
        const auto k = static_cast<size_t>(n - h.lo);
        if (k >= h.re.size()) h.re.resize(k + 1, 0.0), h.im.resize(k + 1, 0.0);
        // v rotated by e^(j 2 pi fc (n - d)), times the weight
        const double a = 2 * std::numbers::pi * fc * (n - d);
        const double vr = v * std::cos(a), vi = v * std::sin(a);
        h.re[k] += wr * vr - wi * vi;
        h.im[k] += wr * vi + wi * vr;
    }
}

Response response(const Settings& s) {
    Response h;
    if (s.profile == Profile::gaussian) {
        add_path(h, 0, 1, 0, 0);
        return h;
    }
    double echo_power = 0;
    for (const Echo& e : kEchoes) echo_power += e.rho * e.rho;
    const double direct = s.profile == Profile::ricean ? std::sqrt(kRiceanFactor * echo_power) : 0.0;
    const double norm = std::sqrt(direct * direct + echo_power);
    const double fc = s.centre / s.rate;
    if (direct > 0) add_path(h, 0, direct / norm, 0, fc);
    h.min_delay = 1e300;
    // Echo i's phase theta_i holds at the lowest carrier, as in the simulations
    // behind the standard's performance figures: its weight is rho_i
    // e^(-j phi_i) with phi_i = theta_i - 2 pi f_lowest tau_i, so that H(f) =
    // sum rho_i e^(-j theta_i) e^(-j 2 pi (f - f_lowest) tau_i).
    for (const Echo& e : kEchoes) {
        const double d = e.tau_us * 1e-6 * s.rate;
        const double phi = e.theta - 2 * std::numbers::pi * s.lowest * e.tau_us * 1e-6;
        h.min_delay = std::min(h.min_delay, d), h.max_delay = std::max(h.max_delay, d);
        add_path(h, d, e.rho * std::cos(phi) / norm, -e.rho * std::sin(phi) / norm, fc);
    }
    return h;
}

// Reads the input once from the start, block by block, into separate I and Q arrays.
class Reader {
public:
    explicit Reader(const Settings& s) : name_(s.in), left_(s.samples), fp_(std::fopen(s.in.c_str(), "rb")) {
        if (fp_ == nullptr) fail("can't read \"%s\": %s", name_.c_str(), std::strerror(errno));
    }
    ~Reader() { std::fclose(fp_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Up to n samples into re[0..), im[0..); returns the count (0 at the end).
    size_t read(float* re, float* im, size_t n) {
        n = static_cast<size_t>(std::min<uint64_t>(n, left_));
        buf_.resize(2 * n);
        if (n > 0 && std::fread(buf_.data(), 8, n, fp_) != n)
            fail("reading \"%s\" failed: %s", name_.c_str(),
                 std::ferror(fp_) ? std::strerror(errno) : "the file got shorter");
        for (size_t k = 0; k < n; ++k) {
            re[k] = buf_[2 * k], im[k] = buf_[2 * k + 1];
            if (!std::isfinite(re[k]) || !std::isfinite(im[k]))
                fail("sample %llu of \"%s\" is not a finite number", static_cast<unsigned long long>(done_ + k),
                     name_.c_str());
            power_ += static_cast<double>(re[k]) * re[k] + static_cast<double>(im[k]) * im[k];
        }
        left_ -= n, done_ += n;
        return n;
    }
    double power() const { return done_ ? power_ / static_cast<double>(done_) : 0.0; }

private:
    std::string name_;
    uint64_t left_, done_ = 0;
    FILE* fp_;
    std::vector<float> buf_;
    double power_ = 0;
};

// Runs the whole input through the channel's FIR and hands the output, aligned
// with the input (the direct path at delay 0), block by block to sink(re, im, n).
// The filter is run as a causal one of the same taps, whose first outputs, as
// many as it looks ahead, are dropped; zeros follow the end of the file.
template <typename Sink>
double filter_pass(const Settings& s, const Response& h, Sink&& sink) {
    Reader in(s);
    const size_t len = h.re.size(), hist = len - 1;
    const auto ahead = static_cast<uint64_t>(-std::min(h.lo, 0));
    std::vector<float> gr(h.re.begin(), h.re.end()), gi(h.im.begin(), h.im.end());
    const bool identity = len == 1 && h.lo == 0 && gr[0] == 1.0f && gi[0] == 0.0f;
    std::vector<float> xr(hist + kBlock, 0.0f), xi(hist + kBlock, 0.0f), yr(kBlock), yi(kBlock);
    uint64_t skip = ahead, zeros = ahead;
    for (;;) {
        size_t n = in.read(xr.data() + hist, xi.data() + hist, kBlock);
        if (n < kBlock && zeros > 0) {  // past the end: the zeros that flush the look-ahead
            const auto z = static_cast<size_t>(std::min<uint64_t>(zeros, kBlock - n));
            std::fill_n(xr.data() + hist + n, z, 0.0f);
            std::fill_n(xi.data() + hist + n, z, 0.0f);
            n += z, zeros -= z;
        }
        if (n == 0) break;
        if (identity) {
            std::copy_n(xr.data(), n, yr.data());
            std::copy_n(xi.data(), n, yi.data());
        } else {
            std::fill_n(yr.data(), n, 0.0f);
            std::fill_n(yi.data(), n, 0.0f);
            for (size_t j = 0; j < len; ++j) {
                const float a = gr[j], b = gi[j];
                const float* __restrict pr = xr.data() + hist - j;
                const float* __restrict pi = xi.data() + hist - j;
                float* __restrict qr = yr.data();
                float* __restrict qi = yi.data();
                for (size_t m = 0; m < n; ++m) {
                    qr[m] += a * pr[m] - b * pi[m];
                    qi[m] += a * pi[m] + b * pr[m];
                }
            }
        }
        const auto drop = static_cast<size_t>(std::min<uint64_t>(skip, n));
        skip -= drop;
        if (n > drop) sink(yr.data() + drop, yi.data() + drop, n - drop);
        // The last hist inputs become the history of the next block.
        std::copy(xr.begin() + static_cast<std::ptrdiff_t>(n), xr.begin() + static_cast<std::ptrdiff_t>(n + hist),
                  xr.begin());
        std::copy(xi.begin() + static_cast<std::ptrdiff_t>(n), xi.begin() + static_cast<std::ptrdiff_t>(n + hist),
                  xi.begin());
    }
    return in.power();
}

// The clock offset: the signal sampled again at instants 1 / (1 + ppm 1e-6)
// input samples apart, each output a Kaiser-windowed sinc of kTaps input
// samples around its instant, from a table of kPhases fractional positions
// interpolated linearly. The first output falls on the first input sample;
// zeros lie before and after the input.
class ClockShift {
public:
    explicit ClockShift(double ppm) : step_(1.0 / (1.0 + ppm * 1e-6)), table_((kPhases + 1) * kTaps) {
        for (int p = 0; p <= kPhases; ++p)
            for (int k = 0; k < kTaps; ++k) {
                const double x = (k - kTaps / 2 + 1) - static_cast<double>(p) / kPhases;
                const double r = x / (kTaps / 2);
                const double w = bessel_i0(kBeta * std::sqrt(std::max(0.0, 1 - r * r))) / bessel_i0(kBeta);
                table_[p * kTaps + k] = x == 0 ? 1.0 : w * std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
            }
        xr_.assign(kTaps / 2, 0.0f), xi_.assign(kTaps / 2, 0.0f);
        base_ = -kTaps / 2;  // input index of xr_[0]: zeros before the first sample
    }
    // Takes n input samples (none at the end: the zeros that flush the last
    // outputs) and hands the outputs whose taps are all in to sink(re, im, n).
    template <typename Sink>
    void push(const float* re, const float* im, size_t n, bool end, Sink&& sink) {
        xr_.insert(xr_.end(), re, re + n), xi_.insert(xi_.end(), im, im + n);
        inputs_ += n;
        if (end) xr_.insert(xr_.end(), kTaps, 0.0f), xi_.insert(xi_.end(), kTaps, 0.0f);
        const double last = end ? static_cast<double>(inputs_) : static_cast<double>(inputs_) - kTaps / 2 - 1;
        std::vector<float> outr, outi;
        for (; t_ < last; t_ = static_cast<double>(++count_) * step_) {
            const double fl = std::floor(t_);
            const double pos = (t_ - fl) * kPhases;
            const int p = static_cast<int>(pos);
            const double a = pos - p;
            const auto first = static_cast<size_t>(static_cast<int64_t>(fl) - kTaps / 2 + 1 - base_);
            double yr = 0, yi = 0;
            for (int k = 0; k < kTaps; ++k) {
                const double h = (1 - a) * table_[p * kTaps + k] + a * table_[(p + 1) * kTaps + k];
                yr += h * xr_[first + k], yi += h * xi_[first + k];
            }
            outr.push_back(static_cast<float>(yr)), outi.push_back(static_cast<float>(yi));
        }
        if (!outr.empty()) sink(outr.data(), outi.data(), outr.size());
        // Keep what the next outputs need.
        const int64_t keep_from = static_cast<int64_t>(std::floor(t_)) - kTaps / 2 + 1;
        const auto drop =
            static_cast<size_t>(std::clamp<int64_t>(keep_from - base_, 0, static_cast<int64_t>(xr_.size())));
        xr_.erase(xr_.begin(), xr_.begin() + static_cast<std::ptrdiff_t>(drop));
        xi_.erase(xi_.begin(), xi_.begin() + static_cast<std::ptrdiff_t>(drop));
        base_ += static_cast<int64_t>(drop);
    }

private:
    static constexpr int kPhases = 1024;
    double step_, t_ = 0;
    uint64_t count_ = 0, inputs_ = 0;
    std::vector<double> table_;
    std::vector<float> xr_, xi_;
    int64_t base_;
};

// Seeded generator (splitmix64 seeding xoshiro256**) and Box-Muller: the same
// noise for the same seed on every system.
class Gaussian {
public:
    explicit Gaussian(uint64_t seed) {
        for (auto& w : s_) {
            seed += 0x9E3779B97F4A7C15ull;
            uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            w = z ^ (z >> 31);
        }
    }
    // Two independent standard normal values.
    void pair(double& a, double& b) {
        const double u1 = 1.0 - uniform();  // (0, 1]
        const double u2 = uniform();
        const double r = std::sqrt(-2.0 * std::log(u1));
        a = r * std::cos(2 * std::numbers::pi * u2);
        b = r * std::sin(2 * std::numbers::pi * u2);
    }

private:
    uint64_t s_[4];
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    double uniform() {  // [0, 1) in steps of 2^-53
        const uint64_t result = rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0], s_[3] ^= s_[1], s_[1] ^= s_[2], s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = rotl(s_[3], 45);
        return static_cast<double>(result >> 11) * 0x1.0p-53;
    }
};

double db(double ratio) { return 10 * std::log10(ratio); }

}  // namespace

int main(int argc, char** argv) {
    companion::start("tervane-channel");
    int32_t verbosity_arg = 0;
    const auto tervane = tervane_options(&verbosity_arg);
    companion::parse_options(argc, argv, {tervane, kOwnOptions});
    if (help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (version) {
        companion::print_version();
        return 0;
    }
    const Settings s = settle();
    const Response h = response(s);

    // First pass when there is noise to add: the power of the signal at the
    // receiver's input, i.e. after the channel.
    double carrier = 0, input_power = 0;
    auto measure = [&carrier](const float* re, const float* im, size_t n) {
        for (size_t k = 0; k < n; ++k)
            carrier += static_cast<double>(re[k]) * re[k] + static_cast<double>(im[k]) * im[k];
    };
    if (s.noise) {
        input_power = filter_pass(s, h, measure);
        carrier /= static_cast<double>(s.samples);
        if (!(carrier > 0)) fail("\"%s\" holds no signal (power 0 after the channel): no C/N can be set", s.in.c_str());
    }
    // Noise power per sample over the whole sample rate: C / (C/N) in the
    // signal's bandwidth, spread over rate / bandwidth as much.
    const double noise_power = s.noise ? carrier / std::pow(10.0, s.cn_db / 10) * (s.rate / s.bandwidth) : 0.0;
    const double sigma = std::sqrt(noise_power / 2);

    // Written under a temporary name beside the output and renamed at the end:
    // a run that fails leaves no partial file and an older output as it was.
    const std::string partial = s.out + ".part" + std::to_string(::getpid());
    FILE* out = std::fopen(partial.c_str(), "wb");
    if (out == nullptr) fail("can't create \"%s\": %s", s.out.c_str(), std::strerror(errno));
    companion::remove_on_failure(partial);
    Gaussian noise(s.seed);
    const double cycles_per_sample = s.cfo_hz / s.rate;
    uint64_t n_out = 0;
    double carrier2 = 0, added = 0;
    std::vector<float> buf(2 * kBlock);
    auto write = [&](const float* re, const float* im, size_t n) {
        if (buf.size() < 2 * n) buf.resize(2 * n);  // a clock offset gives a few more than a block
        for (size_t k = 0; k < n; ++k, ++n_out) {
            double yr = re[k], yi = im[k];
            carrier2 += yr * yr + yi * yi;
            if (s.offset) {
                const double c = static_cast<double>(n_out) * cycles_per_sample;
                const double a = 2 * std::numbers::pi * (c - std::floor(c));
                const double cr = std::cos(a), ci = std::sin(a);
                const double tr = yr * cr - yi * ci;
                yi = yr * ci + yi * cr, yr = tr;
            }
            auto sr = static_cast<float>(yr), si = static_cast<float>(yi);
            float orr = sr, oi = si;
            if (s.noise) {
                double a, b;
                noise.pair(a, b);
                orr = static_cast<float>(yr + sigma * a), oi = static_cast<float>(yi + sigma * b);
                const double er = static_cast<double>(orr) - sr, ei = static_cast<double>(oi) - si;
                added += er * er + ei * ei;
            }
            buf[2 * k] = orr, buf[2 * k + 1] = oi;
        }
        if (std::fwrite(buf.data(), 8, n, out) != n)
            fail("writing \"%s\" failed: %s", s.out.c_str(), std::strerror(errno));
    };
    double input_power2 = 0;
    if (s.clock) {
        ClockShift shift(s.ppm);
        input_power2 =
            filter_pass(s, h, [&](const float* re, const float* im, size_t n) { shift.push(re, im, n, false, write); });
        shift.push(nullptr, nullptr, 0, true, write);
    } else {
        input_power2 = filter_pass(s, h, write);
    }
    if (std::fclose(out) != 0) fail("closing \"%s\" failed: %s", partial.c_str(), std::strerror(errno));
    if (std::rename(partial.c_str(), s.out.c_str()) != 0)
        fail("can't rename \"%s\" to \"%s\": %s", partial.c_str(), s.out.c_str(), std::strerror(errno));
    companion::remove_on_failure({});
    if (!s.noise) input_power = input_power2, carrier = carrier2 / static_cast<double>(n_out);

    std::printf("%s %s: %s, %s MHz channel, %s: sample rate %.6f MHz, signal bandwidth %.6f MHz (%d carriers)\n",
                companion::prog(), TERVANE_VERSION, dvbt_modename[dvbt_parms.mode], dvbt_bandname[dvbt_parms.band],
                dvbt_interpname[dvbt_parms.interp], s.rate / 1e6, s.bandwidth / 1e6, dvbt_K[dvbt_parms.mode]);
    std::printf("Input: %s, %llu samples (%.6f s), mean power %.6g\n", s.in.c_str(),
                static_cast<unsigned long long>(s.samples), static_cast<double>(s.samples) / s.rate, input_power);
    if (s.profile == Profile::gaussian) {
        std::printf("Profile: gaussian: no echoes\n");
    } else {
        std::printf("Profile: %s: %s20 echoes, delays %.6f to %.6f us (%.4f to %.4f samples), phases at the "
                    "lowest carrier (%.6f MHz)\n",
                    s.profile == Profile::ricean ? "ricean (F1)" : "rayleigh (P1)",
                    s.profile == Profile::ricean ? "a direct path 10 dB above the sum of the " : "",
                    h.min_delay / s.rate * 1e6, h.max_delay / s.rate * 1e6, h.min_delay, h.max_delay,
                    s.lowest / 1e6);
        std::printf("Interpolator: Kaiser-windowed sinc of %d taps per path (beta %.0f), one FIR of %zu taps%s\n",
                    kTaps, kBeta, h.re.size(), dvbt_parms.ifftmm == 1 ? ", centred on the BB band" : "");
        std::printf("Signal power after the channel: %.6g (%+.3f dB against the input)\n", carrier,
                    db(carrier / input_power));
    }
    if (s.clock)
        std::printf("Clock offset: %.6g ppm: resampled by %.9f, %llu samples in, %llu out\n", s.ppm, 1 + s.ppm * 1e-6,
                    static_cast<unsigned long long>(s.samples), static_cast<unsigned long long>(n_out));
    else std::printf("Clock offset: none\n");
    if (s.offset) std::printf("Carrier frequency offset: %.6g Hz\n", s.cfo_hz);
    else std::printf("Carrier frequency offset: none\n");
    if (s.noise) {
        const double measured = added / static_cast<double>(n_out);
        std::printf("Noise: seed %llu, mean power %.6g over the %.6f MHz of the sample rate\n",
                    static_cast<unsigned long long>(s.seed), measured, s.rate / 1e6);
        const double achieved = db(carrier / (measured * s.bandwidth / s.rate));
        std::printf("C/N: requested %.2f dB, achieved %.3f dB\n", s.cn_db, achieved);
        // C counts the boosted pilots (16/9 of a data cell's power) and the TPS
        // cells; the data cells alone, at the mean power of the carriers'
        // span, make the C/N that decides the bit error ratio.
        const int mode = static_cast<int>(dvbt_parms.mode);
        const double data = dvbt_N[mode], tps = 17 << mode, pilots = dvbt_K[mode] - data - tps;
        const double share = db((data + tps + pilots * 16.0 / 9.0) / dvbt_K[mode]);
        std::printf("C/N of the data cells: %.3f dB (the boosted pilots and the TPS carry %.2f dB of C)\n",
                    achieved - share, share);
    } else {
        std::printf("Noise: none (no -cn)\n");
    }
    std::printf("Output: %s, %llu samples\n", s.out.c_str(), static_cast<unsigned long long>(n_out));
    return 0;
}
