#include "receiver/frontend.hpp"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numbers>

#include "receiver/carriers.hpp"
#include "receiver/kernels.hpp"
#include "receiver/resample.hpp"

namespace rx {
namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;
constexpr double kTwoPi = 2 * std::numbers::pi;

// Elementary sample rates, Hz: 8 MHz x (5 + band) / 7.
double elementary_rate(uint32_t band) { return 8e6 * (5.0 + band) / 7.0; }

// Normalised guard correlation below which a search finds no signal.
constexpr double kSearchThreshold = 0.12;
// Normalised continual-pilot correlation of two symbols below which the
// integer offset is not trusted.
constexpr double kFreqThreshold = 0.25;
// Symbols after the frequency acquisition within which the TPS must sync.
constexpr int kSyncSymbols = 3 * 68;
// Consecutive bad TPS words, or symbols whose pilots no longer match, that lose the lock.
constexpr int kBadWords = 2;
constexpr int kBadSymbols = 24;

void rotations(double a0, double a1, int n, float* re, float* im);

// Frequency interpolators from every third carrier: windowed sincs for the
// offsets 1/3 and 2/3, taps on the pilots j - half + 1 .. j + half.
struct Interpolator {
    int half = 0;
    std::vector<float> c0, c1, c2;  // offsets 0 (empty: the pilots as they are), 1/3, 2/3
};

// A low-pass of the given band (1: all the delays that pilots every third
// carrier can tell apart; less for a shorter guard interval, so that the
// noise of the pilots is smoothed too), a Kaiser-windowed sinc.
Interpolator make_interpolator(int half, double beta, double band) {
    Interpolator ip;
    ip.half = half;
    auto i0 = [](double x) {
        double sum = 1, term = 1;
        for (int k = 1; term > 1e-12 * sum; ++k) term *= (x / (2 * k)) * (x / (2 * k)), sum += term;
        return sum;
    };
    band = std::min(band, 1.0);
    for (int r = band < 1 ? 0 : 1; r <= 2; ++r) {
        auto& c = r == 0 ? ip.c0 : r == 1 ? ip.c1 : ip.c2;
        double sum = 0;
        for (int t = 0; t < 2 * half; ++t) {
            const double x = (t - half + 1) - r / 3.0;  // pilot position against the carrier, in pilot spacings
            const double u = x / (half + 0.5);
            const double w = i0(beta * std::sqrt(std::max(0.0, 1 - u * u))) / i0(beta);
            const double bx = std::numbers::pi * band * x;
            const double s = bx == 0 ? 1.0 : std::sin(bx) / bx;
            c.push_back(static_cast<float>(w * s));
            sum += w * s;
        }
        for (float& v : c) v = static_cast<float>(v / sum);
    }
    return ip;
}

// Fills h (all K carriers) from the estimates of every third carrier, h3[j] of
// carrier 3j (centred in delay by the derotation): each offset (0 when the
// pilots are smoothed too, 1/3, 2/3) is one FIR over the pilots, run along
// them; near the band's edges, where the FIR would reach past the last pilot,
// straight lines.
void interpolate(const Interpolator& ip, std::span<const cf> h3, std::span<cf> h) {
    const int J = static_cast<int>(h3.size());
    const int K = static_cast<int>(h.size());
    static thread_local std::vector<float> v0, v1, v2;
    v1.assign(2 * static_cast<size_t>(J), 0.0f), v2.assign(2 * static_cast<size_t>(J), 0.0f);
    const bool smooth = !ip.c0.empty();
    if (smooth) v0.assign(2 * static_cast<size_t>(J), 0.0f);
    const float* c = reinterpret_cast<const float*>(h3.data());
    const int taps = 2 * ip.half;
    const int lo = ip.half - 1, hi = J - ip.half;  // pilots j with every tap inside: lo <= j < hi
    if (hi > lo) {
        for (int t = 0; t < taps; ++t) {
            const float a1 = ip.c1[t], a2 = ip.c2[t];
            const float* __restrict in = c + 2 * (t - ip.half + 1);
            float* __restrict o1 = v1.data();
            float* __restrict o2 = v2.data();
            for (int i = 2 * lo; i < 2 * hi; ++i) o1[i] += a1 * in[i], o2[i] += a2 * in[i];
            if (smooth) {
                const float a0 = ip.c0[t];
                float* __restrict o0 = v0.data();
                for (int i = 2 * lo; i < 2 * hi; ++i) o0[i] += a0 * in[i];
            }
        }
    }
    for (int j = 0; j < J; ++j) {
        if (j >= lo && j < hi) continue;
        const int n = std::min(j + 1, J - 1);
        for (int comp = 0; comp < 2; ++comp) {
            const float x0 = c[2 * j + comp], x1 = c[2 * n + comp];
            if (smooth) v0[2 * j + comp] = x0;
            v1[2 * j + comp] = x0 + (x1 - x0) * (1 / 3.0f);
            v2[2 * j + comp] = x0 + (x1 - x0) * (2 / 3.0f);
        }
    }
    float* out = reinterpret_cast<float*>(h.data());
    const float* planes[3] = {smooth ? v0.data() : c, v1.data(), v2.data()};
    for (int r = 0; r < 3; ++r) {
        const float* __restrict v = planes[r];
        for (int j = 0, k = r; k < K; ++j, k += 3) out[2 * k] = v[2 * j], out[2 * k + 1] = v[2 * j + 1];
    }
}

}  // namespace

struct FrontEnd {
    FrontEndConfig cfg;
    int L = 1;
    double fs = 0;
    std::optional<StaticChannel> fixed;

    // The input held: buf[head ..] are the samples from absolute index buf0 on;
    // what lies before head is dropped when it grows larger than what is kept.
    std::vector<cf> buf;
    int64_t buf0 = 0;
    size_t head = 0;

    enum class State { search, freq, track } state = State::search;
    int64_t search_from = 0;

    // What the search found.
    int mode = 0, delta = 0, F = 0, Fl = 0, Gl = 0, Sl = 0, K = 0, Kc = 0, J = 0;
    int64_t win = 0;       // start of the next FFT window (the useful part), absolute
    double eps = 0;        // carrier offset in carrier spacings, removed before the transform
    double nco_phase = 0;  // cycles, at sample nco_at
    int64_t nco_at = 0;

    // Transforms, one plan per size, made once.
    std::map<int, fftwf_plan> plans;
    float* fin = nullptr;  // interleaved complex, fftwf_malloc'ed, 4 x 8192
    float* fout = nullptr;

    // Carrier k's bin and signed frequency (bins from 0 Hz).
    std::vector<int> bin, freq;
    std::vector<int> cps, tpc;  // the mode's continual-pilot and TPS carriers
    std::vector<float> cp_value;

    // Tracking.
    std::vector<cf> ref;           // each continual pilot's channel (slow average)
    int64_t tracked = 0;           // symbols tracked since the frequency acquisition
    double tau = 0, tau_rate = 0;  // timing drift (samples) and its change per symbol
    int shift = 0;                 // samples the window has moved for it
    double last_phase = 0;
    double noise = 0;   // noise power per carrier (slow average)
    double signal = 0;  // pilots' channel power (slow average)
    int bad_symbols = 0;
    int since_bad = 0;               // symbols since the last whose pilots did not match
    std::vector<cf>* cur = nullptr;  // the symbol being tracked: one of the ring's
    std::vector<cf> tps_prev;
    std::vector<float> rot_re, rot_im;  // rotations of the oscillator and of the derotation

    // Frame sync from the TPS.
    std::array<uint8_t, 68> last_bits{};  // last 68 differential bits, newest last
    bool synced = false;
    int sym = 0;     // number of the symbol being processed within its frame
    int frame = -1;  // its frame, -1 until a word has been read
    std::array<uint8_t, 68> word{};
    int bad_words = 0;
    bool have_tps = false;
    bool in_lock = false;  // a word read since the last search began
    Transmission tps;
    int cid_high = -1, cid_low = -1;

    // Channel estimation: the last four symbols, and the two latest pilots of
    // every third carrier.
    std::array<std::vector<cf>, 4> ring;
    std::array<int, 4> ring_sym{}, ring_frame{};
    std::vector<cf> last_p, prev_p;
    int64_t est_start = -1;  // symbol count where estimation began
    std::vector<cf> h3, h, cells;
    std::vector<float> eq, pk;  // each carrier's equaliser and reliability
    std::vector<float> csi;
    std::array<std::vector<int>, 4> data_carriers;
    Interpolator ip_track, ip_static = make_interpolator(16, 8.0, 1.0);

    // Static collection: sums of every pilot of every third carrier.
    std::vector<cd> sum3;
    std::vector<double> sq3;
    std::vector<uint32_t> n3;
    uint64_t static_symbols = 0;

    // Resampling: of a rate that is not 1, 2 or 4 times the elementary one, and
    // to take out a clock offset.
    bool resampling = false;
    double nominal_step = 1, step = 1;  // input samples per sample at the elementary rate times L
    int corrections = 0;
    Resampler rs;
    std::vector<cf> incoming;

    // Figures.
    bool ever_locked = false;
    int losses = 0;
    uint64_t emitted = 0, tps_failures = 0, lock_sample = 0;
    uint64_t pushed = 0, not_finite = 0, first_not_finite = 0;  // samples taken; values not numbers or infinite
    double mer_sig = 0, mer_err = 0;

    ~FrontEnd() {
        for (auto& [n, p] : plans) fftwf_destroy_plan(p);
        fftwf_free(fin);
        fftwf_free(fout);
    }
};

void FrontEndDeleter::operator()(FrontEnd* f) const { delete f; }

namespace {

fftwf_plan plan_for(FrontEnd& f, int n) {
    auto it = f.plans.find(n);
    if (it != f.plans.end()) return it->second;
    auto* in = reinterpret_cast<fftwf_complex*>(f.fin);
    auto* out = reinterpret_cast<fftwf_complex*>(f.fout);
    fftwf_plan p = fftwf_plan_dft_1d(n, in, out, FFTW_FORWARD, FFTW_ESTIMATE);
    f.plans.emplace(n, p);
    return p;
}

const cf* at(const FrontEnd& f, int64_t n) { return f.buf.data() + f.head + (n - f.buf0); }
int64_t end_of(const FrontEnd& f) { return f.buf0 + static_cast<int64_t>(f.buf.size() - f.head); }

// Drops the samples before n.
void drop_before(FrontEnd& f, int64_t n) {
    const int64_t k = std::clamp<int64_t>(n - f.buf0, 0, static_cast<int64_t>(f.buf.size() - f.head));
    f.head += static_cast<size_t>(k);
    f.buf0 += k;
    if (f.head > (1u << 16) && f.head > f.buf.size() - f.head) {
        f.buf.erase(f.buf.begin(), f.buf.begin() + static_cast<std::ptrdiff_t>(f.head));
        f.head = 0;
    }
}

// Sets the mode's tables for the mode and guard found.
void set_mode(FrontEnd& f, int mode, int delta) {
    f.mode = mode, f.delta = delta;
    f.F = dvbt_fftsize[mode];
    f.Fl = f.F * f.L;
    f.Gl = f.Fl / kGuardDivisor[delta];
    f.Sl = f.Fl + f.Gl;
    f.K = dvbt_K[mode];
    f.Kc = (f.K - 1) / 2;
    f.J = (f.K - 1) / 3 + 1;
    f.bin.resize(f.K), f.freq.resize(f.K);
    for (int k = 0; k < f.K; ++k) {
        int b = k - f.Kc;
        if (f.cfg.mapping == 1) b += f.F / 2;
        if (f.cfg.mapping == 2) b = f.Kc - k;
        f.freq[k] = b;
        f.bin[k] = (b % f.Fl + f.Fl) % f.Fl;
    }
    f.cps.assign(cpilot.begin(), cpilot.begin() + cpilot_count[mode]);
    f.tpc.assign(tps.begin(), tps.begin() + tps_count[mode]);
    f.cp_value.clear();
    for (int k : f.cps) f.cp_value.push_back(pilot_value(k));
    std::vector<uint8_t> special(static_cast<size_t>(f.K));
    for (int ph = 0; ph < 4; ++ph) {
        std::fill(special.begin(), special.end(), 0);
        for (int k = 3 * ph; k < f.K; k += 12) special[k] = 1;
        for (int k : f.cps) special[k] = 1;
        for (int k : f.tpc) special[k] = 1;
        f.data_carriers[ph].clear();
        for (int k = 0; k < f.K; ++k)
            if (!special[k]) f.data_carriers[ph].push_back(k);
    }
    // The channel's delays lie within the guard (and the eighth of it the
    // window starts early): the pilots' interpolation passes that, and a margin.
    const double band = 3.0 * 1.3 / kGuardDivisor[delta] + 0.1;
    f.ip_track = band >= 1 ? make_interpolator(4, 5.0, 1.0) : make_interpolator(8, 6.0, band);
    plan_for(f, f.Fl);
}

// One search over kSearchSpan samples from search_from: the mode and guard
// whose guard-interval correlation, folded over the symbols, peaks highest.
bool search(FrontEnd& f) {
    const int span = f.L * std::clamp(f.cfg.search_span, 4096, 1 << 20);
    const int Fmax = f.L * 8192;
    const int64_t need = f.search_from + span + Fmax;
    if (end_of(f) < need) return false;
    const cf* x = at(f, f.search_from);
    double best = 0;
    int best_mode = -1, best_delta = -1;
    int64_t best_start = 0;
    double best_eps = 0;
    std::vector<cd> P(static_cast<size_t>(span) + 1);
    std::vector<double> E(static_cast<size_t>(span) + 1);
    for (int mode = 0; mode < 3; ++mode) {
        if (f.cfg.mode >= 0 && f.cfg.mode != mode) continue;
        const int Fl = f.L * dvbt_fftsize[mode];
        P[0] = 0, E[0] = 0;
        for (int n = 0; n < span; ++n) {
            const cd a(x[n]), b(x[n + Fl]);
            P[n + 1] = P[n] + a * std::conj(b);
            E[n + 1] = E[n] + 0.5 * (std::norm(a) + std::norm(b));
        }
        for (int delta = 0; delta < 4; ++delta) {
            if (f.cfg.delta >= 0 && f.cfg.delta != delta) continue;
            const int Gl = Fl / kGuardDivisor[delta], Sl = Fl + Gl;
            const int nsym = (span - Gl) / Sl;
            if (nsym < 3) continue;
            std::vector<cd> C(static_cast<size_t>(Sl));
            std::vector<double> W(static_cast<size_t>(Sl));
            for (int s = 0; s < nsym; ++s)
                for (int p = 0; p < Sl; ++p) {
                    const int n = s * Sl + p;
                    C[p] += P[n + Gl] - P[n];
                    W[p] += E[n + Gl] - E[n];
                }
            for (int p = 0; p < Sl; ++p) {
                if (!(W[p] > 0)) continue;
                const double m = std::abs(C[p]) / W[p];
                if (m > best && std::isfinite(std::arg(C[p])))
                    best = m, best_mode = mode, best_delta = delta, best_start = p, best_eps = -std::arg(C[p]) / kTwoPi;
            }
        }
    }
    if (best_mode < 0 || best < kSearchThreshold) {
        f.search_from += span / 2;
        drop_before(f, f.search_from);
        return true;
    }
    set_mode(f, best_mode, best_delta);
    // The window starts an eighth of the guard before the end of the guard
    // found, so that echoes that come early stay inside the guard.
    f.win = f.search_from + best_start + f.Gl - f.Gl / 8;
    f.eps = best_eps;
    f.state = FrontEnd::State::freq;
    return true;
}

// Writes v[m] = e^(j (a0 + a1 m)) for m = 0 .. n-1 into (re, im): a table of
// 64 steps times one anchor per 64, each computed exactly in double precision.
void rotations(double a0, double a1, int n, float* re, float* im) {
    // Both the steps and the anchors by complex recursion in double precision:
    // two sines and cosines a call, an error far below a float's.
    float tr[64], ti[64];
    const cd w1 = std::polar(1.0, a1);
    cd z{1, 0};
    for (int m = 0; m < 64; ++m) tr[m] = static_cast<float>(z.real()), ti[m] = static_cast<float>(z.imag()), z = z * w1;
    const cd w64 = z;
    cd anchor = std::polar(1.0, a0);
    for (int b = 0; b < n; b += 64) {
        const auto ar = static_cast<float>(anchor.real()), ai = static_cast<float>(anchor.imag());
        const int e = std::min(64, n - b);
        for (int m = 0; m < e; ++m) re[b + m] = ar * tr[m] - ai * ti[m], im[b + m] = ar * ti[m] + ai * tr[m];
        anchor = anchor * w64;
    }
}

// The transform of the window starting at n, the offset eps removed (the
// oscillator's phase follows the samples); the bins land in fout.
void transform(FrontEnd& f, int64_t n) {
    f.nco_phase += f.eps * static_cast<double>(n - f.nco_at) / f.Fl;
    f.nco_phase -= std::floor(f.nco_phase);
    f.nco_at = n;
    const float* x = reinterpret_cast<const float*>(at(f, n));
    f.rot_re.resize(static_cast<size_t>(f.Fl)), f.rot_im.resize(static_cast<size_t>(f.Fl));
    rotations(-kTwoPi * f.nco_phase, -kTwoPi * f.eps / f.Fl, f.Fl, f.rot_re.data(), f.rot_im.data());
    const float* __restrict rr = f.rot_re.data();
    const float* __restrict ri = f.rot_im.data();
    float* __restrict out = f.fin;
    for (int m = 0; m < f.Fl; ++m) {
        const float a = x[2 * m], b = x[2 * m + 1];
        out[2 * m] = a * rr[m] - b * ri[m];
        out[2 * m + 1] = a * ri[m] + b * rr[m];
    }
    fftwf_execute(plan_for(f, f.Fl));
}

cf bin_value(const FrontEnd& f, int b) { return {f.fout[2 * b], f.fout[2 * b + 1]}; }

// The integer offset: the shift at which the continual pilots of two
// successive symbols agree best.
void acquire_frequency(FrontEnd& f) {
    if (end_of(f) < f.win + f.Sl + f.Fl) return;
    const double frac = f.eps;
    std::vector<cf> a(static_cast<size_t>(f.Fl)), b(static_cast<size_t>(f.Fl));
    transform(f, f.win);
    for (int m = 0; m < f.Fl; ++m) a[m] = bin_value(f, m);
    transform(f, f.win + f.Sl);
    for (int m = 0; m < f.Fl; ++m) b[m] = bin_value(f, m);
    const double spacing = f.fs / f.F;
    const int spare = (f.Fl - f.K) / 2 - 1;
    const int Q = std::min(spare, static_cast<int>(f.cfg.max_offset_hz / spacing) + 1);
    double best = -1;
    int best_q = 0;
    double best_norm = 0;
    for (int q = -Q; q <= Q; ++q) {
        cd acc{0, 0};
        double pw = 0;
        for (int k : f.cps) {
            const int m = ((f.bin[k] + q) % f.Fl + f.Fl) % f.Fl;
            acc += cd(b[m]) * std::conj(cd(a[m]));
            pw += 0.5 * (std::norm(a[m]) + std::norm(b[m]));
        }
        const double v = std::abs(acc);
        if (v > best) best = v, best_q = q, best_norm = pw > 0 ? v / pw : 0;
    }
    if (best_norm < kFreqThreshold) {  // not a DVB-T signal after all: search on
        f.state = FrontEnd::State::search;
        f.search_from = f.win + 2 * f.Sl;
        drop_before(f, f.search_from);
        return;
    }
    f.eps = frac + best_q;
    f.state = FrontEnd::State::track;
    f.tracked = 0, f.tau = 0, f.tau_rate = 0, f.shift = 0, f.noise = 0, f.signal = 0, f.bad_symbols = 0,
    f.since_bad = 0;
    f.synced = false, f.frame = -1, f.bad_words = 0, f.est_start = -1;
    f.last_bits.fill(0);
    f.ref.assign(f.cps.size(), cf{0, 0});
    f.tps_prev.assign(f.tpc.size(), cf{0, 0});
    for (auto& r : f.ring) r.resize(static_cast<size_t>(f.K));
    f.last_p.assign(static_cast<size_t>(f.J), cf{0, 0});
    f.prev_p.assign(static_cast<size_t>(f.J), cf{0, 0});
    f.h3.resize(static_cast<size_t>(f.J));
    f.h.resize(static_cast<size_t>(f.K));
    if (f.cfg.collect_static) {
        f.sum3.assign(static_cast<size_t>(f.J), cd{0, 0});
        f.sq3.assign(static_cast<size_t>(f.J), 0.0);
        f.n3.assign(static_cast<size_t>(f.J), 0);
        f.static_symbols = 0;
    }
}

void lose_lock(FrontEnd& f) {
    if (f.in_lock) ++f.losses;  // an attempt that never locked loses nothing
    f.in_lock = false;
    f.state = FrontEnd::State::search;
    f.search_from = f.win;
    f.synced = false;
}

// Before the first lock is taken: once the drift has been tracked for 100
// symbols, a clock offset beyond 2 ppm is taken out by resampling, and the
// search starts again on the resampled signal (as often as three times).
// Whether the lock may be taken now.
bool hold_for_clock(FrontEnd& f) {
    if (f.tracked < 100) return false;
    const double ppm = f.tau_rate / f.Sl * 1e6;
    if (std::fabs(ppm) <= 2 || f.corrections >= 3) return true;
    ++f.corrections;
    f.step *= 1 + ppm * 1e-6;
    if (!f.resampling) resampler_init(f.rs, f.step);
    resampler_retune(f.rs, f.step);
    f.resampling = true;
    // What is held was sampled at the old ratio: the search starts on what comes next.
    f.buf0 = end_of(f);
    f.buf.clear(), f.head = 0;
    f.state = FrontEnd::State::search;
    f.search_from = f.buf0;
    f.synced = false;
    return false;
}

// The word of the frame just completed: its parameters, or a failure.
void read_word(FrontEnd& f) {
    const auto w = tps_parse(f.word);
    if (!w || w->t.mode != static_cast<uint32_t>(f.mode) || w->t.delta != static_cast<uint32_t>(f.delta) ||
        (f.frame >= 0 && static_cast<int>(w->frame) != f.frame)) {
        if (f.have_tps) ++f.tps_failures;
        if (++f.bad_words >= kBadWords) {
            f.synced = false;
            if (f.have_tps) lose_lock(f);
        }
        return;
    }
    f.bad_words = 0;
    f.frame = static_cast<int>(w->frame);
    if (!f.have_tps && f.cfg.clock_correction && !hold_for_clock(f)) return;
    if (w->t.cid < 0) f.cid_high = f.cid_low = -1;
    else (w->cid_high ? f.cid_high : f.cid_low) = w->t.cid;
    f.tps = w->t;
    f.tps.cid = f.cid_high >= 0 && f.cid_low >= 0 ? f.cid_high << 8 | f.cid_low : -1;
    if (!f.have_tps) f.ever_locked = true;
    f.have_tps = true;
    f.in_lock = true;
}

void emit(FrontEnd& f, int slot, const CellSink& sink);

// One symbol at the window: its continual pilots set the phase, the timing
// drift and the offset; its TPS cell its differential bit; then it joins the
// channel estimator, which hands out the symbol three before it.
void track_symbol(FrontEnd& f, const CellSink& sink) {
    transform(f, f.win);
    // The timing drift expected at this symbol, less the window's moves.
    const double tau_pred = f.tau + f.tau_rate;
    // Radians per bin to add back: the drift, and the delay at which the window
    // placed the channel (an eighth of a guard in), so that what the estimator
    // interpolates is centred in delay and varies slowly across the carriers.
    const double slope = kTwoPi * (tau_pred - f.shift + f.Gl / 8) / f.Fl;
    // The drift's rotation of every carrier (bins in carrier order).
    const int sgn = f.cfg.mapping == 2 ? -1 : 1;
    f.rot_re.resize(static_cast<size_t>(f.K)), f.rot_im.resize(static_cast<size_t>(f.K));
    rotations(slope * f.freq[0], slope * sgn, f.K, f.rot_re.data(), f.rot_im.data());
    // Continual pilots against their reference.
    const size_t ncp = f.cps.size();
    cd sum{0, 0};
    double pw = 0, rp = 0;
    static thread_local std::vector<cd> z;
    z.resize(ncp);
    for (size_t i = 0; i < ncp; ++i) {
        const int k = f.cps[i];
        const cd v = cd(bin_value(f, f.bin[k])) * cd(f.rot_re[k], f.rot_im[k]) / double(f.cp_value[i]);
        z[i] = v;
        sum += v * std::conj(cd(f.ref[i]));
        pw += std::norm(v), rp += std::norm(f.ref[i]);
    }
    // Samples so large that their powers overflow carry no usable pilots: the
    // symbol is taken as one that does not match, and the loops keep their state.
    if (!std::isfinite(pw) || !std::isfinite(std::abs(sum))) {
        f.win += f.Sl;
        if (++f.bad_symbols >= kBadSymbols) lose_lock(f);
        return;
    }
    const bool first = f.tracked == 0;
    const double phase = first ? 0.0 : std::arg(sum);
    // The slope left: a weighted least-squares line through the pilots'
    // phases against their reference, over their frequencies (small angles
    // once the expected drift is taken out).
    double res_slope = 0;
    if (!first) {
        double sw = 0, sb = 0;
        for (size_t i = 0; i < ncp; ++i) {
            const double wgt = std::norm(f.ref[i]);
            sw += wgt, sb += wgt * f.freq[f.cps[i]];
        }
        const double mean_b = sw > 0 ? sb / sw : 0.0;
        const cd back = std::polar(1.0, -phase);
        double num = 0, den = 0;
        for (size_t i = 0; i < ncp; ++i) {
            const double wgt = std::norm(f.ref[i]);
            const double b = f.freq[f.cps[i]] - mean_b;
            num += wgt * b * std::arg(z[i] * std::conj(cd(f.ref[i])) * back);
            den += wgt * b * b;
        }
        res_slope = den > 0 ? num / den : 0.0;
    }
    const double corr = (!first && pw > 0 && rp > 0) ? std::abs(sum) / std::sqrt(pw * rp) : 1.0;
    // Derotate the pilots, then measure the noise against the reference and update it.
    const cd dr = std::polar(1.0, -phase);
    double err = 0, sig = 0;
    const double a = first ? 1.0 : std::max(1.0 / static_cast<double>(f.tracked + 1), 1.0 / 32);
    for (size_t i = 0; i < ncp; ++i) {
        const cd v = z[i] * dr;
        if (!first) err += std::norm(v - cd(f.ref[i])), sig += std::norm(f.ref[i]);
        f.ref[i] = cf(cd(f.ref[i]) + a * (v - cd(f.ref[i])));
    }
    if (!first) {
        // The pilots are boosted: noise per cell is 16/9 that on a pilot's channel estimate.
        const double nv = err / static_cast<double>(ncp) * (16.0 / 9.0);
        const double sv = sig / static_cast<double>(ncp);
        const double g = std::max(1.0 / static_cast<double>(f.tracked), 1.0 / 64);
        f.noise += g * (nv - f.noise);
        f.signal += g * (sv - f.signal);
    }
    // All carriers, derotated alike, into carrier order, straight into the
    // estimator's ring.
    f.cur = &f.ring[static_cast<size_t>(f.tracked & 3)];
    {
        const auto pr = static_cast<float>(std::cos(phase)), pi = static_cast<float>(-std::sin(phase));
        const float* __restrict rr = f.rot_re.data();
        const float* __restrict ri = f.rot_im.data();
        const int* __restrict bins = f.bin.data();
        const float* __restrict y = f.fout;
        float* __restrict c = reinterpret_cast<float*>(f.cur->data());
        for (int k = 0; k < f.K; ++k) {
            const float a = y[2 * bins[k]], b = y[2 * bins[k] + 1];
            const float u = a * rr[k] - b * ri[k], v = a * ri[k] + b * rr[k];
            c[2 * k] = u * pr - v * pi;
            c[2 * k + 1] = u * pi + v * pr;
        }
    }
    // Loops: the offset from the phase's advance, the drift from the slope left.
    if (!first) {
        double adv = phase - f.last_phase;  // the phase's advance over one symbol
        adv -= kTwoPi * std::round(adv / kTwoPi);
        f.eps += 0.1 * adv / kTwoPi * f.Fl / f.Sl;
        const double tau_err = -res_slope * f.Fl / kTwoPi;
        // Wide at first, to pull in a clock offset of 50 ppm and more within a
        // few symbols, then narrow, so that the noise moves the window little.
        const double wide = std::exp(-static_cast<double>(f.tracked) / 16);
        f.tau = tau_pred + (0.1 + 0.5 * wide) * tau_err;
        f.tau_rate += (0.003 + 0.1 * wide) * tau_err;
    }
    f.last_phase = phase;
    // TPS: the differential bit of this symbol.
    {
        cd d{0, 0};
        for (size_t j = 0; j < f.tpc.size(); ++j) {
            const cf v = (*f.cur)[f.tpc[j]];
            d += cd(v) * std::conj(cd(f.tps_prev[j]));
            f.tps_prev[j] = v;
        }
        const uint8_t bit = d.real() < 0 ? 1 : 0;
        std::rotate(f.last_bits.begin(), f.last_bits.begin() + 1, f.last_bits.end());
        f.last_bits[67] = bit;
        if (f.synced) {
            f.sym = (f.sym + 1) % 68;
            if (f.sym == 0 && f.frame >= 0) f.frame = (f.frame + 1) % 4;
        } else if (!first) {
            bool sync = true, inverse = true;
            for (int i = 0; i < 16; ++i) {
                const uint8_t b = f.last_bits[52 + i];
                sync &= b == kTpsSync[i], inverse &= b != kTpsSync[i];
            }
            if (sync || inverse) {
                f.synced = true, f.sym = 16, f.frame = -1, f.bad_words = 0;
                f.est_start = f.tracked;
            }
        }
        if (f.synced) {
            f.word[f.sym] = bit;
            if (f.sym == 16)
                for (int i = 1; i < 16; ++i) f.word[i] = f.last_bits[67 - 16 + i];
            if (f.sym == 67) read_word(f);
        }
    }
    if (f.state != FrontEnd::State::track) return;
    if (!f.synced && f.tracked > kSyncSymbols) {
        lose_lock(f);
        f.search_from = f.win + f.Sl;
        drop_before(f, f.search_from);
        return;
    }
    f.bad_symbols = corr < 0.3 ? f.bad_symbols + 1 : 0;
    f.since_bad = corr < 0.3 ? 0 : f.since_bad + 1;
    if (f.bad_symbols >= kBadSymbols) {
        lose_lock(f);
        return;
    }
    // Channel estimation: this symbol into the ring and the pilots' memory.
    if (f.synced && f.state == FrontEnd::State::track) {
        const int64_t n = f.tracked - f.est_start;  // symbols since estimation began
        const int slot = static_cast<int>(f.tracked & 3);
        f.ring_sym[slot] = f.sym;
        f.ring_frame[slot] = f.frame;
        const int ph = f.sym & 3;
        for (int k = 3 * ph; k < f.K; k += 12) {
            const int j = k / 3;
            f.prev_p[j] = f.last_p[j];
            f.last_p[j] = (*f.cur)[k] / pilot_value(k);
        }
        if (f.cfg.collect_static) {
            for (int k = 3 * ph; k < f.K; k += 12) {
                const cd v = cd((*f.cur)[k] / pilot_value(k));
                f.sum3[k / 3] += v, f.sq3[k / 3] += std::norm(v), ++f.n3[k / 3];
            }
            ++f.static_symbols;
        }
        if (n >= 7) emit(f, static_cast<int>((f.tracked - 3) & 3), sink);
    }
    ++f.tracked;
    // The next window, moved by a sample when the drift has grown by one.
    f.win += f.Sl;
    if (f.tau - f.shift > 0.75) ++f.shift, ++f.win;
    if (f.tau - f.shift < -0.75) --f.shift, --f.win;
}

// Equalises the symbol held in the ring's slot and hands it out.
void emit(FrontEnd& f, int slot, const CellSink& sink) {
    // A symbol whose own pilots, or those of the three after it (which its
    // estimate is made of), did not match (a fade, the signal gone) is not
    // handed out: the decoder starts again at the next superframe.
    if (f.cfg.collect_static || !f.have_tps || f.ring_frame[slot] < 0 || f.since_bad < 4) return;
    const int sym = f.ring_sym[slot];
    const int ph = sym & 3;
    const std::vector<cf>& y = f.ring[slot];
    float noise = static_cast<float>(f.noise);
    if (f.fixed) {
        if (f.fixed->h.size() != f.h.size()) return;
        std::copy(f.fixed->h.begin(), f.fixed->h.end(), f.h.begin());
        noise = f.fixed->noise;
    } else {
        for (int j = 0; j < f.J; ++j) {
            const int a = ((ph - j) % 4 + 4) % 4;
            f.h3[j] = a == 0 ? f.last_p[j] : (f.prev_p[j] * float(4 - a) + f.last_p[j] * float(a)) * 0.25f;
        }
        interpolate(f.ip_track, f.h3, f.h);
    }
    const auto& dc = f.data_carriers[ph];
    const size_t n = dc.size();
    f.cells.resize(n);
    f.csi.resize(n);
    const float inv_noise = noise > 0 ? 1.0f / noise : 0.0f;
    {
        const int* __restrict idx = dc.data();
        const float* __restrict hh = reinterpret_cast<const float*>(f.h.data());
        const float* __restrict yy = reinterpret_cast<const float*>(y.data());
        float* __restrict out = reinterpret_cast<float*>(f.cells.data());
        float* __restrict csi = f.csi.data();
        // The equaliser of every carrier first, conj(H) / |H|^2, in vector lanes.
        f.eq.resize(2 * static_cast<size_t>(f.K)), f.pk.resize(static_cast<size_t>(f.K));
        float* __restrict g = f.eq.data();
        float* __restrict pk = f.pk.data();
        for (int k = 0; k < f.K; ++k) {
            const float hr = hh[2 * k], hi = hh[2 * k + 1];
            const float p = hr * hr + hi * hi;
            const float inv = p > 0 ? 1.0f / p : 0.0f;
            g[2 * k] = hr * inv, g[2 * k + 1] = -hi * inv, pk[k] = p * inv_noise;
        }
        for (size_t i = 0; i < n; ++i) {
            const int k = idx[i];
            const float gr = g[2 * k], gi = g[2 * k + 1], yr = yy[2 * k], yi = yy[2 * k + 1];
            out[2 * i] = yr * gr - yi * gi;
            out[2 * i + 1] = yr * gi + yi * gr;
            csi[i] = pk[k];
        }
    }
    // The MER's decisions: the levels along an axis are (2i + 1 + d) s for
    // i = 0 .. count-1, the lowest (1 + d) s.
    const Constellation con = constellation(f.tps.M, f.tps.alpha);
    const int levels = 1 << (con.bits / 2 - 1);
    const auto count = static_cast<float>(levels);
    const float s_unit = con.unit;
    const float d = *std::min_element(con.level.begin(), con.level.begin() + levels) / s_unit - 1;
    const float inv_s = 1 / s_unit;
    // Sixteen partial sums (2N is a multiple of 16 in every mode), so that the
    // sums run in vector lanes; truncation is the floor of what is not negative.
    float ps[16] = {}, pe[16] = {};
    {
        const float* __restrict c = reinterpret_cast<const float*>(f.cells.data());
        for (size_t i = 0; i < 2 * n; i += 16)
            for (size_t u = 0; u < 16; ++u) {
                const float v = c[i + u];
                const auto at = static_cast<float>(
                    static_cast<int>(std::min(std::max((std::fabs(v) * inv_s - d) * 0.5f, 0.0f), count - 1)));
                const float l = std::copysign((2 * at + 1 + d) * s_unit, v);
                ps[u] += l * l, pe[u] += (v - l) * (v - l);
            }
    }
    double es = 0, ee = 0;
    for (int u = 0; u < 16; ++u) es += ps[u], ee += pe[u];
    f.mer_sig += es, f.mer_err += ee;
    if (f.emitted == 0 && f.losses == 0) f.lock_sample = static_cast<uint64_t>(f.win);
    ++f.emitted;
    SymbolCells s;
    s.frame = static_cast<uint32_t>(f.ring_frame[slot]);
    s.symbol = static_cast<uint32_t>(sym);
    s.cells = f.cells;
    s.csi = f.csi;
    sink(f.tps, s);
}

}  // namespace

FrontEndPtr frontend_create(const FrontEndConfig& c, const StaticChannel* fixed) {
    FrontEndPtr f(new FrontEnd);
    f->cfg = c;
    f->L = 1 << std::min<uint32_t>(c.interp, 2);
    f->fs = elementary_rate(c.band);
    if (fixed != nullptr) f->fixed = *fixed;
    if (c.rate > 0) {
        f->L = 1;
        f->nominal_step = f->step = c.rate / f->fs;
        f->resampling = true;
        resampler_init(f->rs, f->step);
    }
    f->fin = static_cast<float*>(fftwf_malloc(sizeof(float) * 2 * 4 * 8192));
    f->fout = static_cast<float*>(fftwf_malloc(sizeof(float) * 2 * 4 * 8192));
    return f;
}

void frontend_push(FrontEnd& f, std::span<const std::complex<float>> samples, const CellSink& sink) {
    // Values beyond any converter's range (and not numbers at all) are taken as
    // zero, so that no power computed later can overflow.
    std::vector<cf>& dst = f.resampling ? f.incoming : f.buf;
    if (f.resampling) f.incoming.clear();
    const size_t from = dst.size();
    dst.insert(dst.end(), samples.begin(), samples.end());
    float* v = reinterpret_cast<float*>(dst.data() + from);
    const size_t nv = 2 * samples.size();
    // First whether every value is in range (a reduction that runs in vector
    // lanes); only when one is not, the values are counted and replaced.
    int in_range = 1;
    for (size_t i = 0; i < nv; ++i) in_range &= std::fabs(v[i]) < 1e12f ? 1 : 0;
    size_t bad = 0;
    if (!in_range)
        for (size_t i = 0; i < nv; ++i) {
            bad += std::isfinite(v[i]) ? 0u : 1u;
            v[i] = std::fabs(v[i]) < 1e12f ? v[i] : 0.0f;
        }
    if (bad > 0 && f.not_finite == 0)
        for (size_t i = 0; i < samples.size(); ++i)
            if (!std::isfinite(samples[i].real()) || !std::isfinite(samples[i].imag())) {
                f.first_not_finite = f.pushed + i;
                break;
            }
    f.not_finite += bad;
    f.pushed += samples.size();
    if (f.resampling) resample(f.rs, f.incoming, f.buf);
    for (;;) {
        if (f.state == FrontEnd::State::search) {
            drop_before(f, f.search_from);
            if (!search(f)) return;
        } else if (f.state == FrontEnd::State::freq) {
            if (end_of(f) < f.win + f.Sl + f.Fl) return;
            acquire_frequency(f);
        } else {
            if (end_of(f) < f.win + f.Fl + 1) return;
            track_symbol(f, sink);
            if (f.state == FrontEnd::State::track) drop_before(f, f.win - 2);
        }
    }
}

FrontEndStatus frontend_status(const FrontEnd& f) {
    FrontEndStatus s;
    s.locked = f.state == FrontEnd::State::track && f.have_tps && f.synced;
    s.ever_locked = f.ever_locked;
    s.losses = f.losses;
    s.have_tps = f.have_tps;
    s.tps = f.tps;
    s.offset_hz = f.F > 0 ? f.eps * f.fs / f.F : 0.0;
    s.corrected_ppm = (f.step / f.nominal_step - 1) * 1e6;
    s.clock_ppm = s.corrected_ppm + (f.Sl > 0 ? f.tau_rate / f.Sl * 1e6 : 0.0);
    s.mer_db = f.mer_err > 0 ? 10 * std::log10(f.mer_sig / f.mer_err) : 0.0;
    s.snr_db = f.noise > 0 ? 10 * std::log10(f.signal / f.noise) : 0.0;
    s.symbols = f.emitted;
    s.tps_failures = f.tps_failures;
    s.lock_sample = f.lock_sample;
    s.not_finite = f.not_finite;
    s.first_not_finite = f.first_not_finite;
    return s;
}

StaticChannel frontend_static(const FrontEnd& f) {
    StaticChannel c;
    if (f.sum3.empty()) return c;
    std::vector<cf> h3(static_cast<size_t>(f.J));
    double var = 0;
    uint64_t dof = 0;
    for (int j = 0; j < f.J; ++j) {
        if (f.n3[j] == 0) return c;
        const cd m = f.sum3[j] / double(f.n3[j]);
        h3[j] = cf(m);
        if (f.n3[j] > 1) var += f.sq3[j] - f.n3[j] * std::norm(m), dof += f.n3[j] - 1;
    }
    c.h.resize(static_cast<size_t>(f.K));
    interpolate(f.ip_static, h3, c.h);
    c.noise = dof > 0 ? static_cast<float>(var / static_cast<double>(dof) * (16.0 / 9.0)) : 0.0f;
    c.symbols = f.static_symbols;
    return c;
}

}  // namespace rx
