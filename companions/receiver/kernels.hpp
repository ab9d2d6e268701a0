// The decoder's inner loops: the soft demapper and the add-compare-select of
// the Viterbi decoder, each in a plain form and in x86 vector forms that give
// the same bytes, chosen at run time by the dispatch rule the transmitter's kernels follow
// (vectors/cpu.hpp).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vectors/cpu.hpp"
#include "vectors/simd.hpp"

namespace rx {

// ---- Demapper ----

// The constellation of one transmission, for the demapper: bits per cell (2, 4
// or 6) and the magnitudes of the levels on each axis, unit mean power, in the
// order of their labels: level[k] has the magnitude bits k (for 16-QAM the one
// bit y2 or y3; for 64-QAM the bits (y2, y4) or (y3, y5), first bit high).
struct Constellation {
    uint32_t bits = 2;
    std::array<float, 4> level{};
    float unit = 1.0f;  // half the distance of neighbouring uniform levels
};

// The constellation of M (0 QPSK, 1 16-QAM, 2 64-QAM) and alpha (0 NH, 1, 2, 3
// for alpha 1, 2, 4), as the transmitter maps it.
Constellation constellation(uint32_t M, uint32_t alpha);

// Soft values of n cells: the max-log bit metrics (differences of squared
// distances) times csi times scale, rounded, saturated at +-127; bit y_e of
// cell i goes to planes[e * stride + i], positive for a 0, 0 for no
// information (csi 0, or any value that is not a number).
void demap(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
           size_t stride);
void demap_plain(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
                 size_t stride);

// ---- Viterbi decoder for the K = 7 code, generators 171 and 133 octal ----

inline constexpr uint32_t viterbi_states = 64;

// The code bits X (bit 1) and Y (bit 0) of the branch into state n from its
// predecessor n >> 1; the branch from (n >> 1) | 32 carries both inverted.
inline constexpr std::array<uint8_t, 64> branch_bits = [] {
    std::array<uint8_t, 64> t{};
    auto parity = [](unsigned v) {
        unsigned p = 0;
        for (; v != 0; v >>= 1) p ^= v & 1u;
        return p;
    };
    for (unsigned n = 0; n < 64; n++) t[n] = static_cast<uint8_t>(parity(n & 0x0Fu) << 1 | parity(n & 0x2Du));
    return t;
}();

// The bit of a step's decision word that holds state s's decision: the even
// states in the low half, the odd ones in the high half.
constexpr uint32_t decision_bit(uint32_t s) { return (s & 1) << 5 | s >> 1; }

// Add-compare-select over n steps: pairs[2t] and pairs[2t + 1] are the soft
// values of X and Y of step t (positive: 0 likelier; 0: nothing known).
// metrics holds the 64 path metrics (larger is better), state s at index s;
// decisions[t] gets bit decision_bit(s) set when the survivor into state s
// comes from its predecessor with the high bit set (ties go to the other).
// Every 32nd step of a call the metrics are lowered by state 0's, which
// changes no decision.
void viterbi_acs(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions);
void viterbi_acs_plain(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions);

// The same for up to four independent decoders at once (viterbi_many), n
// steps each: metrics[k], pairs[k] and decisions[k] are decoder k's (a count
// of 0 or more than four does nothing).
inline constexpr size_t viterbi_many = 4;
struct ViterbiSet {
    std::array<int16_t*, viterbi_many> metrics{};
    std::array<const int8_t*, viterbi_many> pairs{};
    std::array<uint64_t*, viterbi_many> decisions{};
    size_t count = 0;
};
void viterbi_acs_set(const ViterbiSet& v, size_t n);

// The hard decisions of n steps (a multiple of 64) of soft X and Y values, 64
// steps a word, the first step in the word's highest bit: neg_x[k] has the bit
// of a step set when its X is negative, any_x[k] when X is not 0; the same for
// Y.
void hard_decisions(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x, uint64_t* neg_y, uint64_t* any_y);
void hard_decisions_plain(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x, uint64_t* neg_y,
                          uint64_t* any_y);

namespace detail {
void hard_decisions_avx512(const int8_t* pairs, size_t n, uint64_t* neg_x, uint64_t* any_x, uint64_t* neg_y,
                           uint64_t* any_y);
void demap_avx512(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
                  size_t stride);
void demap_avx(const Constellation& c, const float* cells, const float* csi, size_t n, float scale, int8_t* planes,
               size_t stride);
void viterbi_acs_avx512(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions);
void viterbi_acs_set_avx512(const ViterbiSet& v, size_t n);
void viterbi_acs_avx(int16_t* metrics, const int8_t* pairs, size_t n, uint64_t* decisions);
}  // namespace detail

}  // namespace rx
