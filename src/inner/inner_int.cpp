// Bit interleaver and symbol interleaver.
#include "inner/inner_int.hpp"

#include <array>
#include <bit>
#include <cstring>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "inner/inner_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/written.hpp"

namespace {

// ---------------------------------------------------------------------------
// Bit interleaver

using namespace inner_detail;

constexpr uint32_t BI_BLOCK = bi_block_words;

// Start of the read index point0 .. point5 of each sub-stream interleaver:
// word w takes bit (w + shift_e) mod 126 of sub-stream e.
constexpr std::array<uint32_t, 6> point_start{0, 63, 105, 42, 21, 84};

// Demultiplexing: the sub-stream that the i-th bit of a group goes to, by
// constellation index (QPSK, 16-QAM, 64-QAM).
constexpr std::array<std::array<uint8_t, 6>, 3> demux_nh{{
    {0, 1, 0, 0, 0, 0},
    {0, 2, 1, 3, 0, 0},
    {0, 2, 4, 1, 3, 5},
}};
// Hierarchical: the two HP bits go to b0 and b1, the LP bits as below.
constexpr std::array<std::array<uint8_t, 4>, 3> demux_lp{{
    {0, 0, 0, 0},
    {2, 3, 0, 0},
    {2, 4, 3, 5},
}};

uint8_t bi_scratch_hp[6 * BI_BLOCK];
uint8_t bi_scratch_lp[4 * BI_BLOCK];
uint8_t bi_words[BI_BLOCK];

// Source of every bit of a block's words: bit y_e of word w is input bit
// src_of[e][w] of the block's bits, counted over the HP bits (sub-streams
// routed from in_hp) or the LP bits. Built per constellation and hierarchy.
std::array<std::array<uint16_t, BI_BLOCK>, 6> src_of{};
std::array<uint8_t, 6> from_lp{};
BiLayout layout{};
int64_t src_key = -1;

// The layout the source table was built for: bits per word and hierarchy.
int64_t source_key(uint32_t V, bool hier) { return static_cast<int64_t>(V * 2 + (hier ? 1 : 0)); }

void build_sources(uint32_t V, bool hier) {
    const std::array<uint8_t, 6>& route = demux_nh[V / 2 - 1];
    const std::array<uint8_t, 4>& route_lp = demux_lp[V / 2 - 1];
    // Position within its group, and the group width, of the bit each sub-stream takes.
    std::array<uint32_t, 6> pos{}, width{};
    if (!hier) {
        for (uint32_t i = 0; i < V; i++) {
            pos[route[i]] = i;
            width[route[i]] = V;
            from_lp[route[i]] = 0;
        }
    } else {
        for (uint32_t i = 0; i < 2; i++) {
            pos[i] = i;
            width[i] = 2;
            from_lp[i] = 0;
        }
        for (uint32_t i = 0; i < V - 2; i++) {
            pos[route_lp[i]] = i;
            width[route_lp[i]] = V - 2;
            from_lp[route_lp[i]] = 1;
        }
    }
    for (uint32_t e = 0; e < V; e++)
        for (uint32_t w = 0; w < BI_BLOCK; w++)
            src_of[e][w] = static_cast<uint16_t>(width[e] * ((w + point_start[e]) % BI_BLOCK) + pos[e]);
    layout = {V, hier ? 2 : V, hier ? V - 2 : 0, pos, point_start, from_lp};
    src_key = source_key(V, hier);
}

// Interleaves one block of V-bit words into words: each word gathers its V
// bits from the block's input bits (lp is null in a non-hierarchical block).
template <uint32_t V>
void bi_block(const uint8_t* hp, const uint8_t* lp, uint8_t* words) {
    std::array<const uint8_t*, V> from{};
    for (uint32_t e = 0; e < V; e++) from[e] = from_lp[e] != 0 ? lp : hp;
    for (uint32_t w = 0; w < BI_BLOCK; w++) {
        uint32_t word = 0;
        for (uint32_t e = 0; e < V; e++) word = (word << 1) + from[e][src_of[e][w]];
        words[w] = static_cast<uint8_t>(word);
    }
}

// One block into words, by the widest form the kernels may use.
void interleave_block(uint32_t V, const uint8_t* hp, const uint8_t* lp, uint8_t* words) {
#if TERVANE_X86
    if (dvbUseAvx512()) return bi_block_avx512(layout, hp, lp, words);
#endif
    switch (V) {
    case 2: bi_block<2>(hp, lp, words); break;
    case 4: bi_block<4>(hp, lp, words); break;
    default: bi_block<6>(hp, lp, words); break;
    }
}

// ---------------------------------------------------------------------------
// Symbol interleaver

constexpr uint32_t SI_MAX = 6048;

// The permutation H (odd blocks read word H[q] into place q) and its inverse
// (even blocks, which write word q to place H[q], read word Hinv[p] into place p).
std::array<uint16_t, SI_MAX> H{};
std::array<uint16_t, SI_MAX> Hinv{};
std::array<uint8_t, SI_MAX> ib{};     // one block of output words being assembled
std::array<uint8_t, SI_MAX> si_in{};  // one block of input words that crosses the ring end
int32_t sym_num = 0;

struct SymIntMode {
    uint32_t Nr;                   // address bits
    uint32_t Mmax;                 // candidate addresses
    uint32_t Nmax;                 // valid addresses
    std::array<uint8_t, 12> perm;  // register bit j -> address bit perm[j]
};

constexpr std::array<SymIntMode, 3> si_modes{{
    {11, 2048, 1512, {4, 3, 9, 6, 2, 8, 1, 5, 7, 0, 0, 0}},
    {12, 4096, 3024, {6, 3, 0, 9, 4, 2, 1, 8, 5, 10, 7, 0}},
    {13, 8192, 6048, {7, 1, 4, 2, 9, 6, 8, 10, 0, 3, 11, 5}},
}};

uint32_t si_mode() { return dvbt_parms.idi != 0 ? 2u : dvbt_parms.mode; }

// dst[p] = src[from[p]] for p < n (n a multiple of 4), four words to a store
// where the byte order allows it: fewer stores than one a word.
void permute_words(const uint8_t* src, const uint16_t* from, uint32_t n, uint8_t* dst) {
    if constexpr (std::endian::native == std::endian::little) {
        for (uint32_t p = 0; p < n; p += 4) {
            const uint32_t four = src[from[p]] | static_cast<uint32_t>(src[from[p + 1]]) << 8 |
                                  static_cast<uint32_t>(src[from[p + 2]]) << 16 |
                                  static_cast<uint32_t>(src[from[p + 3]]) << 24;
            std::memcpy(dst + p, &four, 4);
        }
    } else {
        for (uint32_t p = 0; p < n; p++) dst[p] = src[from[p]];
    }
}

uint32_t si_feedback(uint32_t m, const uint8_t* R) {
    switch (m) {
    case 0: return R[0] ^ R[3];
    case 1: return R[0] ^ R[2];
    default: return R[0] ^ R[1] ^ R[4] ^ R[6];
    }
}

}  // namespace

uint32_t bit_interleave(dvbVect* in_hp, dvbVect* in_lp, dvbVect* out, uint32_t maxlen, FILE* dump) {
    const bool hier = dvbt_hierarchical();
    if (in_hp->fill == 0 || (hier && (in_lp == nullptr || in_lp->fill == 0)) || out->fill == out->len) return 0;

    const uint32_t mi = dvbt_parms.M;
    const uint32_t v = static_cast<uint32_t>(dvbt_bitpersymb[mi]);
    // Bits per block taken from each ring. A hierarchical QPSK request never
    // reaches this stage (it is raised to 16-QAM); it would take no LP bits.
    const uint32_t lp_share = hier ? v - 2 : 0;
    const uint32_t hp_bits = BI_BLOCK * (v - lp_share);
    const uint32_t lp_bits = BI_BLOCK * lp_share;

    uint32_t B = dvbRingUnits(in_hp, hp_bits, out, BI_BLOCK, maxlen, hp_bits);
    if (lp_bits != 0 && in_lp->fill / lp_bits < B) B = in_lp->fill / lp_bits;

    if (src_key != source_key(v, hier)) build_sources(v, hier);

    uint32_t r_hp = in_hp->head;
    uint32_t r_lp = lp_bits != 0 ? in_lp->head : 0;
    uint32_t w = dvbRingWritePos(out);

    for (uint32_t b = 0; b < B; b++) {
        // Collect: demultiplex the block's bits into the sub-stream stores.
        const auto* hp = static_cast<const uint8_t*>(dvbRingView(in_hp, r_hp, hp_bits, bi_scratch_hp));
        r_hp = dvbRingAdvance(r_hp, hp_bits, in_hp->len);
        const uint8_t* lp = nullptr;
        if (lp_bits != 0) {
            lp = static_cast<const uint8_t*>(dvbRingView(in_lp, r_lp, lp_bits, bi_scratch_lp));
            r_lp = dvbRingAdvance(r_lp, lp_bits, in_lp->len);
        }
        // Straight into the output ring when the block fits before its end.
        const bool direct = out->len - w >= BI_BLOCK;
        uint8_t* dst = direct ? dvbBytes(out) + w : bi_words;
        interleave_block(v, hp, lp, dst);
        w = direct ? dvbRingAdvance(w, BI_BLOCK, out->len) : dvbRingPut(out, w, bi_words, BI_BLOCK);
        checked_write(dst, 1, BI_BLOCK, dump);
    }

    const uint32_t n = hp_bits * B;
    dvbRingConsume(in_hp, n);
    if (lp_bits != 0) dvbRingConsume(in_lp, lp_bits * B);
    out->fill += BI_BLOCK * B;
    dvbMsgPrint(4, "Inner_int_b : %d samples\n", static_cast<int>(n));
    return n;
}

int32_t dvbSymIntAddrGenerate() {
    const uint32_t m = si_mode();
    const SymIntMode& p = si_modes[m];
    const uint32_t rbits = p.Nr - 1;
    uint8_t R[12] = {};
    uint32_t q = 0;

    H.fill(0);
    Hinv.fill(0);
    for (uint32_t i = 0; i < p.Mmax; i++) {
        if (i == 2) {
            R[0] = 1;
        } else if (i > 2) {
            const uint8_t fb = static_cast<uint8_t>(si_feedback(m, R));
            for (uint32_t k = 0; k + 1 < rbits; k++) R[k] = R[k + 1];
            R[rbits - 1] = fb;
        }
        uint32_t addr = (i % 2) << (p.Nr - 1);
        for (uint32_t j = 0; j < rbits; j++) addr += static_cast<uint32_t>(R[j]) << p.perm[j];
        if (addr < p.Nmax) H[q++] = static_cast<uint16_t>(addr);
    }
    for (uint32_t i = 0; i < p.Nmax; i++) Hinv[H[i]] = static_cast<uint16_t>(i);
    return 0;
}

int32_t symbol_interleave(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t N = static_cast<uint32_t>(dvbt_N[si_mode()]);
    const uint32_t B = dvbRingUnits(in, N, out, N, maxlen, N);

    uint32_t r = in->head;
    uint32_t w = dvbRingWritePos(out);
    for (uint32_t b = 0; b < B; b++) {
        const auto* src = static_cast<const uint8_t*>(dvbRingView(in, r, N, si_in.data()));
        r = dvbRingAdvance(r, N, in->len);
        // Assemble straight into the output ring when the block fits before its end.
        const bool direct = out->len - w >= N;
        uint8_t* dst = direct ? dvbBytes(out) + w : ib.data();
        permute_words(src, sym_num % 2 == 0 ? Hinv.data() : H.data(), N, dst);
        if (direct) w = dvbRingAdvance(w, N, out->len);
        else w = dvbRingPut(out, w, ib.data(), N);
        checked_write(dst, 1, N, dump);
        sym_num = (sym_num + 1) % dvbt_frame_symbols;
    }

    const uint32_t n = N * B;
    dvbRingConsume(in, n);
    out->fill += n;
    dvbMsgPrint(4, "Inner_int_s : %d samples\n", static_cast<int>(n));
    return static_cast<int32_t>(n);
}

int32_t dvbSymIntBlockNum() { return sym_num; }
