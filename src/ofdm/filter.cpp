// Polyphase interpolation filter. All phases see the same input samples, so one
// shared history of the last 16 inputs serves them all; the outputs of one
// input are computed together, each with its own sum in tap order.
#include "ofdm/filter.hpp"

#include <cstring>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "vectors/written.hpp"

namespace {

constexpr int32_t max_phases = 4;
constexpr int32_t max_taps = 16;

const float* filter = nullptr;
int32_t Mup = 0;
std::array<int32_t, max_phases> filtlen{};

// Delay lines of the plain form: line p holds the last filtlen[p] inputs, newest first.
std::array<std::array<dvbComplex, 63>, max_phases> filtsr{};

// Shared history for the fast form: the newest input at hist[pos], the one
// before at hist[pos + 1], ...; the window is moved back to the end of the
// store when it reaches the start, so that no shifting is needed per sample.
constexpr size_t hist_size = 1024;
std::array<dvbComplex, hist_size + max_taps> hist{};
size_t pos = hist_size;

// Four float lanes: (re, im) of two outputs.
typedef float v4f __attribute__((vector_size(16)));
typedef int32_t v4i __attribute__((vector_size(16)));

// Coefficients by tap and output lane: lanes 2m (real) and 2m + 1 (imaginary)
// of output m use h[m + j * Mup] for the j-th newest input.
std::array<std::array<v4f, max_phases / 2>, max_taps> coef{};

// One output group from the shared history: y[m] = sum over j of h[m + j R] x[j],
// accumulated in float in tap order, every output in its own lanes. Output R - 1
// has one tap fewer: its lanes of the last product are masked to +0, which
// leaves its sum unchanged (a sum that starts at +0 never becomes -0).
template <int R>
inline void outputs(const dvbComplex* x, v4f* y) {
    constexpr int B = R / 2;
    v4f acc[B] = {};
    for (int j = 0; j < max_taps; ++j) {
        const v4f xx = {x[j].re, x[j].im, x[j].re, x[j].im};
        for (int b = 0; b < B; ++b) {
            v4f prod = xx * coef[static_cast<size_t>(j)][static_cast<size_t>(b)];
            if (j == max_taps - 1 && b == B - 1) {
                const v4i keep = {-1, -1, 0, 0};
                prod = reinterpret_cast<v4f>(reinterpret_cast<v4i>(prod) & keep);
            }
            acc[b] += prod;
        }
    }
    for (int b = 0; b < B; ++b) y[b] = acc[b];
}

template <int R>
uint32_t run(dvbVect* in, dvbVect* out, uint32_t n, FILE* dump) {
    const dvbComplex* src = dvbCplx(in);
    dvbComplex* dst = dvbCplx(out);
    uint32_t r = in->head;
    uint32_t q = dvbRingWritePos(out);
    const uint32_t q0 = q;
    for (uint32_t i = 0; i < n; ++i) {
        if (pos == 0) {
            std::memmove(hist.data() + hist_size, hist.data(), (max_taps - 1) * sizeof(dvbComplex));
            pos = hist_size;
        }
        hist[--pos] = src[r];
        if (++r == in->len) r = 0;
        v4f yv[R / 2];
        outputs<R>(hist.data() + pos, yv);
        float y[2 * R];
        std::memcpy(y, yv, sizeof y);
        if (out->len - q >= static_cast<uint32_t>(R)) {
            std::memcpy(dst + q, y, sizeof y);
            q += R;
            if (q == out->len) q = 0;
        } else {
            for (int m = 0; m < R; ++m) {
                dst[q] = {y[2 * m], y[2 * m + 1]};
                if (++q == out->len) q = 0;
            }
        }
    }
    checked_ring_write(out, q0, n * R, dump);
    return n;
}

}  // namespace

void init_filt() {
    // The delay lines start empty (zero).
    for (auto& line : filtsr) line.fill(dvbComplex{0.0f, 0.0f});
    hist.fill(dvbComplex{0.0f, 0.0f});
    pos = hist_size;
    switch (dvbt_parms.interp) {
    case 1:
        filter = filter2x.data();
        Mup = 2;
        filtlen = {filt2xlen[0], filt2xlen[1], 0, 0};
        break;
    case 2:
        filter = filter4x.data();
        Mup = 4;
        filtlen = {filt4xlen[0], filt4xlen[1], filt4xlen[2], filt4xlen[3]};
        break;
    default:
        return;
    }
    const int32_t L = Mup == 2 ? 31 : 63;
    for (int32_t j = 0; j < max_taps; ++j) {
        for (int32_t m = 0; m < Mup; ++m) {
            const int32_t k = m + j * Mup;
            const float h = k < L ? filter[k] : 0.0f;
            v4f& c = coef[static_cast<size_t>(j)][static_cast<size_t>(m / 2)];
            c[2 * (m % 2)] = h;
            c[2 * (m % 2) + 1] = h;
        }
    }
}

void transmit_reference_step(dvbComplex u, dvbComplex* y) {
    for (int32_t p = Mup - 1; p >= 0; --p) {
        auto& line = filtsr[static_cast<size_t>(p)];
        const int32_t L = filtlen[static_cast<size_t>(p)];
        for (int32_t j = L - 1; j >= 1; --j) line[static_cast<size_t>(j)] = line[static_cast<size_t>(j - 1)];
        line[0] = u;
        dvbComplex acc{0.0f, 0.0f};
        for (int32_t j = 0; j < L; ++j) {
            const float h = filter[(Mup - 1 - p) + j * Mup];
            acc.re += line[static_cast<size_t>(j)].re * h;
            acc.im += line[static_cast<size_t>(j)].im * h;
        }
        *y++ = acc;
    }
}

uint32_t transmit(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    const auto R = static_cast<uint32_t>(dvbt_interprate[dvbt_parms.interp]);
    uint32_t n = dvbRingUnits(in, 1, out, R, maxlen, R);
    if (R == 2 && Mup == 2) run<2>(in, out, n, dump);
    else if (R == 4 && Mup == 4) run<4>(in, out, n, dump);
    else n = 0;  // the filter was not set up for this factor
    dvbRingConsume(in, n);
    out->fill += n * R;
    dvbMsgPrint(4, "Transmission: %d samples\n", static_cast<int>(n));
    return n;
}
