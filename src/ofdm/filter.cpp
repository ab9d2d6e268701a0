// Polyphase interpolation filter. All phases see the same input samples, so one
// line of the last inputs serves them all; every output is its own sum in tap
// order, whichever form computes it (filter_x86.cpp holds the vector forms).
#include "ofdm/filter.hpp"

#include <cstring>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "ofdm/filter_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/written.hpp"

namespace {

using namespace filter_detail;

constexpr int32_t max_phases = 4;
constexpr int32_t max_taps = 16;

const float* filter = nullptr;
int32_t Mup = 0;
std::array<int32_t, max_phases> filtlen{};

// Delay lines of the plain form: line p holds the last filtlen[p] inputs, newest first.
std::array<std::array<dvbComplex, 63>, max_phases> filtsr{};

// The last inputs, oldest first: line[0 .. history) are the inputs before the
// current piece, which is copied in after them, so that every output reads its
// 16 inputs from one contiguous run.
constexpr uint32_t piece = 512;
alignas(64) std::array<dvbComplex, history + piece> line{};
// Outputs of a piece that would cross the end of the output ring.
alignas(64) std::array<dvbComplex, 4 * piece> spill{};

// Four float lanes: (re, im) of two outputs.
typedef float v4f __attribute__((vector_size(16)));
typedef int32_t v4i __attribute__((vector_size(16)));

// Coefficients by tap and output lane: lanes 2m (real) and 2m + 1 (imaginary)
// of output m use h[m + j * Mup] for the j-th newest input.
std::array<std::array<v4f, max_phases / 2>, max_taps> coef{};

// The portable form, one input at a time: y[m] = sum over j of h[m + j R] x[t - j],
// accumulated in float in tap order, every output in its own lanes. Output R - 1
// has one tap fewer: its lanes of the last product are masked to +0, which
// leaves its sum unchanged (a sum that starts at +0 never becomes -0).
template <int R>
void outputs(const dvbComplex* x, uint32_t from, uint32_t c, dvbComplex* y) {
    constexpr int B = R / 2;
    for (uint32_t t = from; t < c; ++t) {
        v4f acc[B] = {};
        for (int j = 0; j < max_taps; ++j) {
            const dvbComplex u = x[static_cast<int64_t>(t) - j];
            const v4f xx = {u.re, u.im, u.re, u.im};
            for (int b = 0; b < B; ++b) {
                v4f prod = xx * coef[static_cast<size_t>(j)][static_cast<size_t>(b)];
                if (j == max_taps - 1 && b == B - 1) {
                    const v4i keep = {-1, -1, 0, 0};
                    prod = reinterpret_cast<v4f>(reinterpret_cast<v4i>(prod) & keep);
                }
                acc[b] += prod;
            }
        }
        std::memcpy(y + static_cast<size_t>(t) * R, acc, sizeof acc);
    }
}

// The outputs of the c inputs from x on (x[-15 .. c) readable) into y: the
// widest vector form the kernels may use takes whole blocks, the portable one the rest.
template <int R>
void interpolate(const dvbComplex* x, uint32_t c, dvbComplex* y) {
    uint32_t done = 0;
#if TERVANE_X86
    if (dvbUseAvx512()) done = R == 2 ? interpolate2_avx512(x, c, y) : interpolate4_avx512(x, c, y);
    else if (dvbUseAvx()) done = R == 2 ? interpolate2_avx(x, c, y) : interpolate4_avx(x, c, y);
#endif
    outputs<R>(x, done, c, y);
}

template <int R>
uint32_t run(dvbVect* in, dvbVect* out, uint32_t n, FILE* dump) {
    uint32_t r = in->head;
    const uint32_t q0 = dvbRingWritePos(out);
    uint32_t q = q0;
    for (uint32_t left = n; left > 0;) {
        const uint32_t c = left < piece ? left : piece;
        r = dvbRingGet(in, r, line.data() + history, c);
        // Straight into the output ring when the piece's outputs fit before its end.
        const bool direct = out->len - q >= c * R;
        dvbComplex* y = direct ? dvbCplx(out) + q : spill.data();
        interpolate<R>(line.data() + history, c, y);
        q = direct ? dvbRingAdvance(q, c * R, out->len) : dvbRingPut(out, q, spill.data(), c * R);
        std::memmove(line.data(), line.data() + c, history * sizeof(dvbComplex));
        left -= c;
    }
    checked_ring_write(out, q0, n * R, dump);
    return n;
}

}  // namespace

void init_filt() {
    // The delay lines start empty (zero).
    for (auto& line : filtsr) line.fill(dvbComplex{0.0f, 0.0f});
    line.fill(dvbComplex{0.0f, 0.0f});
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
    default: return;
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
