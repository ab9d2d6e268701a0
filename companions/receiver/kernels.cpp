// The plain forms of the demapper and the add-compare-select, the constellation
// levels and the dispatch to the vector forms.
#include "receiver/kernels.hpp"

#include <cmath>

namespace rx {

Constellation constellation(uint32_t M, uint32_t alpha) {
    Constellation c;
    // The transmitter's offset of the levels from the odd integers: 0, 1 or 3.
    const double d = alpha == 0 ? 0.0 : alpha == 1 ? 0.0 : alpha == 2 ? 1.0 : 3.0;
    std::array<double, 4> m{};
    uint32_t L = 1;
    if (M == 0) {
        c.bits = 2, m[0] = 1.0;
    } else if (M == 1) {
        c.bits = 4, L = 2, m = {3 + d, 1 + d, 0, 0};
    } else {
        c.bits = 6, L = 4, m = {7 + d, 5 + d, 1 + d, 3 + d};
    }
    double e = 0.0;
    for (uint32_t k = 0; k < L; k++) e += m[k] * m[k];
    const double u = 1.0 / std::sqrt(2.0 * e / L);
    for (uint32_t k = 0; k < L; k++) c.level[k] = static_cast<float>(m[k] * u);
    c.unit = static_cast<float>(u);
    return c;
}

namespace {

// The minimum and maximum with the operand order of the x86 instructions, so
// that the vector forms give the same results for every input.
inline float minf(float a, float b) { return a < b ? a : b; }
inline float maxf(float a, float b) { return a > b ? a : b; }

// Rounds to the nearest integer within +-127; a value that is not 0 stays
// so (its sign is the hard decision), and what is not a number becomes 0.
inline int8_t quantise(float v) {
    v = v == v ? v : 0.0f;
    v = maxf(minf(v, 127.0f), -127.0f);
    // Adding and taking away 1.5 x 2^23 rounds to the nearest integer, ties
    // to even, as the processor's conversion does.
    int r = static_cast<int>((v + 12582912.0f) - 12582912.0f);
    if (r == 0) r = v > 0.0f ? 1 : v < 0.0f ? -1 : 0;
    return static_cast<int8_t>(r);
}

inline float sq(float v) { return v * v; }

// The bits of one axis: the sign bit to s[0], the magnitude bits to s[2] and
// s[4] (the planes of y0, y2, y4 for the real part, y1, y3, y5 for the imaginary).
template <uint32_t L>
inline void axis(const float* m, float x, float w, int8_t* s, size_t stride) {
    const float ax = std::fabs(x);
    if constexpr (L == 1) {
        const float d0 = sq(ax - m[0]);
        const float ds = sq(ax + m[0]) - d0;
        s[0] = quantise((x < 0.0f ? 0.0f - ds : ds) * w);
    } else if constexpr (L == 2) {
        const float d0 = sq(ax - m[0]), d1 = sq(ax - m[1]);
        const float ds = sq(ax + m[1]) - minf(d0, d1);
        s[0] = quantise((x < 0.0f ? 0.0f - ds : ds) * w);
        s[2 * stride] = quantise((d1 - d0) * w);
    } else {
        const float d0 = sq(ax - m[0]), d1 = sq(ax - m[1]), d2 = sq(ax - m[2]), d3 = sq(ax - m[3]);
        const float ds = sq(ax + m[2]) - minf(minf(d0, d1), minf(d2, d3));
        s[0] = quantise((x < 0.0f ? 0.0f - ds : ds) * w);
        s[2 * stride] = quantise((minf(d2, d3) - minf(d0, d1)) * w);
        s[4 * stride] = quantise((minf(d1, d3) - minf(d0, d2)) * w);
    }
}

template <uint32_t L>
void demap_cells(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
                 size_t stride) {
    for (size_t i = 0; i < n; i++) {
        const float w = csi[i] > 0.0f ? csi[i] * scale : 0.0f;
        axis<L>(c.level.data(), cells[2 * i], w, planes + i, stride);
        axis<L>(c.level.data(), cells[2 * i + 1], w, planes + stride + i, stride);
    }
}

}  // namespace

void demap_plain(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
                 size_t stride) {
    if (c.bits == 2) demap_cells<1>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 4) demap_cells<2>(c, cells, csi, n, scale, planes, stride);
    if (c.bits == 6) demap_cells<4>(c, cells, csi, n, scale, planes, stride);
}

void demap(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
           size_t stride) {
#if TERVANE_X86
    if (dvbUseAvx512()) return detail::demap_avx512(c, cells, csi, n, scale, planes, stride);
    if (dvbUseAvx()) return detail::demap_avx(c, cells, csi, n, scale, planes, stride);
#endif
    demap_plain(c, cells, csi, n, scale, planes, stride);
}

void viterbi_acs_plain(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions) {
    std::array<int16_t, 64> next{};
    for (size_t t = 0; t < n; t++) {
        const int sx = pairs[2 * t], sy = pairs[2 * t + 1];
        // Branch metric of the code bits xy: the correlation with the soft values.
        const std::array<int, 4> bm{sx + sy, sx - sy, -sx + sy, -sx - sy};
        uint64_t dec = 0;
        for (uint32_t s = 0; s < 64; s++) {
            const int b = bm[branch_bits[s]];
            const int a = metrics[s >> 1] + b, c = metrics[(s >> 1) | 32] - b;
            next[s] = static_cast<int16_t>(c > a ? c : a);
            dec |= static_cast<uint64_t>(c > a) << decision_bit(s);
        }
        decisions[t] = dec;
        if ((t & 31) == 31) {
            const int16_t base = next[0];
            for (uint32_t s = 0; s < 64; s++) next[s] = static_cast<int16_t>(next[s] - base);
        }
        for (uint32_t s = 0; s < 64; s++) metrics[s] = next[s];
    }
}

void viterbi_acs(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions) {
#if TERVANE_X86
    if (dvbUseAvx512()) return detail::viterbi_acs_avx512(metrics, pairs, n, decisions);
    if (dvbUseAvx()) return detail::viterbi_acs_avx(metrics, pairs, n, decisions);
#endif
    viterbi_acs_plain(metrics, pairs, n, decisions);
}

void viterbi_acs_set(const ViterbiSet& v, size_t n) {
    if (v.count == 0 || v.count > viterbi_many) return;
#if TERVANE_X86
    if (dvbUseAvx512()) return detail::viterbi_acs_set_avx512(v, n);
#endif
    for (size_t k = 0; k < v.count; k++) viterbi_acs(v.metrics[k], v.pairs[k], n, v.decisions[k]);
}

void hard_decisions_plain(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x, uint64_t* neg_y,
                          uint64_t* any_y) {
    for (size_t k = 0; k < n / 64; k++) {
        uint64_t nx = 0, ax = 0, ny = 0, ay = 0;
        for (size_t i = 0; i < 64; i++) {
            const int8_t x = pairs[128 * k + 2 * i], y = pairs[128 * k + 2 * i + 1];
            nx = nx << 1 | (x < 0), ax = ax << 1 | (x != 0);
            ny = ny << 1 | (y < 0), ay = ay << 1 | (y != 0);
        }
        neg_x[k] = nx, any_x[k] = ax, neg_y[k] = ny, any_y[k] = ay;
    }
}

void hard_decisions(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x, uint64_t* neg_y, uint64_t* any_y) {
#if TERVANE_X86
    if (dvbUseAvx512()) return detail::hard_decisions_avx512(pairs, n, neg_x, any_x, neg_y, any_y);
#endif
    hard_decisions_plain(pairs, n, neg_x, any_x, neg_y, any_y);
}

}  // namespace rx
