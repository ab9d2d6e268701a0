// Frame adaptation (pilots, TPS cells, data cells) and the TPS word.
#include "ofdm/framing.hpp"

#include <algorithm>
#include <cstring>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "vectors/written.hpp"

namespace {

constexpr uint32_t max_K = dvbt_K.back();
constexpr int32_t frame_symbols = dvbt_frame_symbols;
constexpr int32_t superframe_frames = dvbt_superframe_frames;

// Reference sequence: x^11 + x^2 + 1 with all cells one, first output on carrier 0.
constexpr std::array<uint8_t, max_K> w = [] {
    std::array<uint8_t, max_K> t{};
    for (size_t n = 0; n < 11; n++) t[n] = 1;
    for (size_t n = 11; n < max_K; n++) t[n] = static_cast<uint8_t>(t[n - 9] ^ t[n - 11]);
    return t;
}();

// BCH code generator h(X) = X^14 + X^9 + X^8 + X^6 + X^5 + X^4 + X^2 + X + 1, g[i] of degree i.
constexpr std::array<uint8_t, 15> g{1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 0, 0, 0, 0, 1};

// Synchronisation word of frames 0 and 2; frames 1 and 3 send its inverse.
constexpr std::array<uint8_t, 16> sync_word{0, 0, 1, 1, 0, 1, 0, 1, 1, 1, 1, 0, 1, 1, 1, 0};

// Transmission mode bits by mode index: 2k 00, 4k 10, 8k 01.
constexpr std::array<uint32_t, 3> mode_code{0, 2, 1};

int32_t sym_num = 0;
int32_t frame_num = 0;
std::array<float, 68> tps_ampl{};
std::array<uint8_t, 68> s{};
std::array<uint8_t, 113> x{};
std::array<uint8_t, 14> b{};

// One symbol that crosses the end of the output ring, as it is built.
std::array<dvbComplex, max_K> sym_buf{};
// The data cells of one symbol when they cross the end of the input ring.
std::array<dvbComplex, dvbt_N.back()> cells_buf{};

// Writes the nbits low bits of value into s[pos ..], most significant first.
void put_bits(size_t pos, uint32_t value, size_t nbits) {
    for (size_t i = 0; i < nbits; i++) s[pos + i] = static_cast<uint8_t>((value >> (nbits - 1 - i)) & 1u);
}

// The cells of a symbol that are not data: pilots (with their value) and TPS
// cells (with their index j among the TPS carriers), in ascending carrier order.
// Each also carries the stretch of data cells just before it: carriers from ..
// k - 1 take the data cells from off on, copied as a fixed block of
// stretch_block cells when as_block (see build_symbol).
struct Special {
    uint32_t k;
    int32_t tps_j;  // -1 for a pilot
    float value;    // pilot value
    uint32_t from;
    uint32_t off;
    bool as_block;
};

constexpr uint32_t stretch_block = 12;

// Layout of each scattered-pilot phase l mod 4 for the mode in layout_mode.
constexpr uint32_t max_specials = max_K - 6048;
std::array<std::array<Special, max_specials>, 4> specials{};
std::array<uint32_t, 4> special_count{};
// The value each special cell of a phase takes: the pilots' fixed, the TPS
// cells' set before each symbol; tps_cells lists a phase's TPS cells (j, e) with
// e their place in the phase's list; leading_blocks counts the specials that
// open the list whose stretches all go as fixed blocks.
std::array<std::array<float, max_specials>, 4> special_value{};
std::array<std::array<std::array<uint32_t, 2>, 68>, 4> tps_cells{};
std::array<uint32_t, 4> tps_cell_count{};
std::array<uint32_t, 4> leading_blocks{};
int64_t layout_mode = -1;

// Classifies the carriers of each phase: the first matching rule wins among
// scattered pilot (which also consumes a coinciding continual pilot), continual
// pilot, TPS carrier; every other carrier takes the next data cell.
void build_layout(uint32_t mode) {
    const int32_t K = dvbt_K[mode];
    const int32_t ncp = cpilot_count[mode];
    const int32_t ntps = tps_count[mode];
    for (int32_t phase = 0; phase < 4; phase++) {
        auto& list = specials[static_cast<size_t>(phase)];
        uint32_t n = 0;
        int32_t p = 3 * phase;
        int32_t i = 0;
        int32_t j = 0;
        for (int32_t k = 0; k < K; k++) {
            const float pilot = w[static_cast<size_t>(k)] != 0 ? -pilot_ampl : pilot_ampl;
            if (k == p) {
                list[n++] = {static_cast<uint32_t>(k), -1, pilot, 0, 0, false};
                p = k + 12;
                if (i < ncp && cpilot[static_cast<size_t>(i)] == k) i++;
            } else if (i < ncp && cpilot[static_cast<size_t>(i)] == k) {
                list[n++] = {static_cast<uint32_t>(k), -1, pilot, 0, 0, false};
                i++;
            } else if (j < ntps && tps[static_cast<size_t>(j)] == k) {
                list[n++] = {static_cast<uint32_t>(k), j, 0.0f, 0, 0, false};
                j++;
            }
        }
        special_count[static_cast<size_t>(phase)] = n;
        // The stretches: a fixed block may be copied while it stays inside
        // the symbol's data cells and the symbol.
        const auto N = static_cast<uint32_t>(dvbt_N[mode]);
        auto& values = special_value[static_cast<size_t>(phase)];
        auto& cells = tps_cells[static_cast<size_t>(phase)];
        uint32_t from = 0, off = 0, t = 0, lead = 0;
        for (uint32_t e = 0; e < n; e++) {
            Special& sp = list[e];
            values[e] = sp.value;
            if (sp.tps_j >= 0) cells[t++] = {static_cast<uint32_t>(sp.tps_j), e};
            const uint32_t len = sp.k - from;
            sp.from = from;
            sp.off = off;
            sp.as_block =
                len <= stretch_block && off + stretch_block <= N && from + stretch_block <= static_cast<uint32_t>(K);
            if (sp.as_block && lead == e) lead = e + 1;
            off += len;
            from = sp.k + 1;
        }
        tps_cell_count[static_cast<size_t>(phase)] = t;
        leading_blocks[static_cast<size_t>(phase)] = lead;
    }
    layout_mode = mode;
}

// Builds the symbol numbered l of the frame into sym, taking its N data cells in
// order from cells. The stretches of data cells between pilots are short (at
// most 11 in a row, but at the ends): each is copied as a fixed block of 12
// cells where the layout allows it; its surplus is overwritten by the pilots
// and stretches that follow it.
void build_symbol(int32_t l, const dvbComplex* cells, uint32_t K, dvbComplex* sym) {
    const auto phase = static_cast<size_t>(l % 4);
    const auto& list = specials[phase];
    const uint32_t n = special_count[phase];
    auto& values = special_value[phase];
    // The TPS cells' amplitudes: the reference at the frame's first symbol, then
    // each inverted where the TPS bit is one.
    const bool reference = l == 0;
    const bool invert = s[static_cast<size_t>(l)] != 0;
    for (uint32_t t = 0; t < tps_cell_count[phase]; t++) {
        const auto [j, e] = tps_cells[phase][t];
        float& a = tps_ampl[j];
        if (reference) a = w[list[e].k] != 0 ? -1.0f : 1.0f;
        else if (invert) a = -a;
        values[e] = a;
    }
    uint32_t e = 0;
    for (const uint32_t lead = leading_blocks[phase]; e < lead; e++) {
        const Special& sp = list[e];
        std::memcpy(sym + sp.from, cells + sp.off, sizeof(dvbComplex) * stretch_block);
        sym[sp.k] = {values[e], 0.0f};
    }
    for (; e < n; e++) {
        const Special& sp = list[e];
        if (sp.as_block) std::memcpy(sym + sp.from, cells + sp.off, sizeof(dvbComplex) * stretch_block);
        else std::copy(cells + sp.off, cells + sp.off + (sp.k - sp.from), sym + sp.from);
        sym[sp.k] = {values[e], 0.0f};
    }
    const uint32_t k = n > 0 ? list[n - 1].k + 1 : 0;
    const uint32_t used = n > 0 ? list[n - 1].off + (list[n - 1].k - list[n - 1].from) : 0;
    if (k < K) std::copy(cells + used, cells + used + (K - k), sym + k);
}

}  // namespace

void init_tps() {
    const dvbt_parms_t& p = dvbt_parms;
    const bool hier = p.alpha != 0;
    const bool odd_frame = (frame_num & 1) != 0;

    s[0] = 0;
    for (size_t i = 0; i < sync_word.size(); i++)
        s[1 + i] = static_cast<uint8_t>(odd_frame ? sync_word[i] ^ 1u : sync_word[i]);
    put_bits(17, p.cid >= 0 ? 31u : 23u, 6);
    put_bits(23, static_cast<uint32_t>(frame_num), 2);
    put_bits(25, p.M, 2);
    put_bits(27, p.idi != 0 ? 1u : 0u, 1);
    put_bits(28, p.alpha, 2);
    put_bits(30, hier ? p.rate_hp : p.rate, 3);
    put_bits(33, hier ? p.rate_lp : 0u, 3);
    put_bits(36, 3u - p.delta, 2);
    put_bits(38, mode_code[p.mode], 2);
    uint32_t cell = 0;
    if (p.cid >= 0) {
        const uint32_t id = static_cast<uint32_t>(p.cid) & 0xFFFFu;
        cell = odd_frame ? (id & 0xFFu) : (id >> 8);
    }
    put_bits(40, cell, 8);
    put_bits(48, 0, 6);

    // BCH parity: remainder of X^14 * m(X) divided by h(X), m(X) the information bits
    // s1 .. s53 with s1 of the highest degree.
    b.fill(0);
    for (size_t i = 0; i <= 52; i++) x[i] = s[53 - i];
    for (size_t i = x.size(); i-- > 0;) {
        const uint8_t f = static_cast<uint8_t>(b[13] ^ x[i]);
        for (size_t m = 13; m >= 1; m--) b[m] = static_cast<uint8_t>(f != 0 ? b[m - 1] ^ g[m] : b[m - 1]);
        b[0] = f;
    }
    for (size_t m = 0; m < 14; m++) s[54 + m] = b[13 - m];
}

uint32_t piltps_add(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    const uint32_t mode = dvbt_parms.mode;
    const auto N = static_cast<uint32_t>(dvbt_N[mode]);
    const auto uK = static_cast<uint32_t>(dvbt_K[mode]);
    if (layout_mode != static_cast<int64_t>(mode)) build_layout(mode);

    const uint32_t n = dvbRingUnits(in, N, out, uK, maxlen, N);

    uint32_t r = in->head;
    uint32_t q = dvbRingWritePos(out);
    for (uint32_t u = 0; u < n; u++) {
        // Built in the output ring itself when the symbol fits before its end.
        const bool direct = out->len - q >= uK;
        dvbComplex* sym = direct ? dvbCplx(out) + q : sym_buf.data();
        // The symbol's data cells as one run: the input ring itself unless they cross its end.
        build_symbol(sym_num, static_cast<const dvbComplex*>(dvbRingView(in, r, N, cells_buf.data())), uK, sym);
        r = dvbRingAdvance(r, N, in->len);
        q = direct ? dvbRingAdvance(q, uK, out->len) : dvbRingPut(out, q, sym, uK);
        checked_write(sym, sizeof(dvbComplex), uK, dump);

        if (++sym_num == frame_symbols) {
            sym_num = 0;
            if (++frame_num == superframe_frames) frame_num = 0;
            init_tps();
        }
    }

    dvbRingConsume(in, n * N);
    out->fill += n * uK;
    dvbMsgPrint(4, "Framing     : %d samples\n", static_cast<int>(n * N));
    return n * N;
}

std::span<const uint8_t, max_K> framing_w() { return std::span<const uint8_t, max_K>(w); }
std::span<const uint8_t, 68> framing_s() { return std::span<const uint8_t, 68>(s); }
std::span<const float, 68> framing_tps_ampl() { return std::span<const float, 68>(tps_ampl); }
int32_t framing_sym_num() { return sym_num; }
int32_t framing_frame_num() { return frame_num; }
