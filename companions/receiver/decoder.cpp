// The decoder: the cells of each interleaver block taken in the order of the
// symbol interleaver's input, soft demapping into bit planes, one gather per
// stream that undoes the bit interleaver and the demultiplexer and puts
// erasures where the puncturer dropped bits, the Viterbi decoder, the outer
// deinterleaver, the Reed-Solomon decoder and the energy dispersal.
#include "receiver/decoder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <complex>
#include <deque>
#include <vector>

#include "frame/params.hpp"
#include "receiver/kernels.hpp"
#include "receiver/rs.hpp"

namespace rx {

namespace {

// The Viterbi decoder works on windows of the coded stream: each decides
// window_bits steps, after a start of window_lead steps (from all states
// equally likely, which the path forgets long before the window's bits) and
// followed by window_trail steps that its traceback starts from (from the
// best state at the end). Neighbouring windows run at once, their
// add-compare-selects and tracebacks interleaved, several chains of dependent
// operations instead of one. The stream's first window has a lead of
// erasures.
constexpr size_t window_bits = 4096, window_lead = 192, window_trail = 192, windows = viterbi_many;
constexpr size_t window_span = window_lead + window_bits + window_trail;

// The soft values count max-log LLRs in steps of 1/4 (the csi is |H|^2 over
// the noise, so distance times csi is the LLR). Fixed steps resolve the small
// LLRs of faded carriers, which decide a high-rate code on a multipath
// channel; saturation at 127 is an LLR of about 32, a bit as good as certain.
// A scale set by the constellation's distances at the mean csi instead left
// faded carriers a step or two at high C/N and cost several dB in the P1
// channel at code rate 5/6.
constexpr float llr_steps = 4.0f;

// Puncturing: input bits per period, output bits, and which of X1 Y1 X2 Y2 ... are sent.
constexpr std::array<uint32_t, 5> period_in{2, 4, 6, 10, 14};
constexpr std::array<uint32_t, 5> period_out{2, 3, 4, 6, 8};
constexpr std::array<std::array<uint8_t, 14>, 5> kept{{
    {1, 1},
    {1, 1, 0, 1},
    {1, 1, 0, 1, 1, 0},
    {1, 1, 0, 1, 1, 0, 0, 1, 1, 0},
    {1, 1, 0, 1, 0, 1, 0, 1, 1, 0, 0, 1, 1, 0},
}};

// The cyclic shifts of the six bit interleavers of 126 bits.
constexpr std::array<uint32_t, 6> bit_shift{0, 63, 105, 42, 21, 84};
constexpr uint32_t bit_block = 126;

// The symbol interleaver's permutation H(q) of mode m (2k, 4k, 8k).
std::vector<uint16_t> symbol_permutation(uint32_t m) {
    constexpr std::array<std::array<int, 12>, 3> perm{{
        {4, 3, 9, 6, 2, 8, 1, 5, 7, 0},
        {6, 3, 0, 9, 4, 2, 1, 8, 5, 10, 7},
        {7, 1, 4, 2, 9, 6, 8, 10, 0, 3, 11, 5},
    }};
    const uint32_t nr = 11 + m, mmax = 1u << nr, nmax = static_cast<uint32_t>(dvbt_N[m]);
    std::vector<uint16_t> h;
    h.reserve(nmax);
    uint32_t r = 0;  // R', bit j = R'[j]
    for (uint32_t i = 0; i < mmax; i++) {
        if (i == 2) {
            r = 1;
        } else if (i > 2) {
            const uint32_t fb = m == 0   ? (r ^ r >> 3) & 1
                                : m == 1 ? (r ^ r >> 2) & 1
                                         : (r ^ r >> 1 ^ r >> 4 ^ r >> 6) & 1;
            r = r >> 1 | fb << (nr - 2);
        }
        uint32_t a = (i & 1) << (nr - 1);
        for (uint32_t j = 0; j + 1 < nr; j++) a |= (r >> j & 1) << perm[m][j];
        if (a < nmax) h.push_back(static_cast<uint16_t>(a));
    }
    return h;
}

struct OutPacket {
    std::array<uint8_t, 204> coded;
    std::array<uint8_t, 204> data;  // after correction
    RsResult rs;
};

struct Ready {
    std::array<uint8_t, 204> coded;
    std::array<uint8_t, 188> ts;
    bool ok;
    int bytes, bits;
};

// One coded stream (the only one, or HP or LP) from its soft bits to packets.
struct Stream {
    bool lp = false;
    uint32_t rate = 0;
    // The soft value of each X and Y of the mother code in an interleaver
    // block, as an index into the bit planes (the last index holds 0).
    std::vector<uint16_t> gather;

    std::vector<int8_t> pairs;  // the soft X and Y of the steps from step `first` on
    uint64_t first = 0;
    uint64_t decided = 0;  // steps decided since the restart, and the lead of erasures before them
    alignas(64) std::array<std::array<int16_t, 64>, windows> metrics{};
    std::array<std::vector<uint64_t>, windows> decisions;

    std::array<std::vector<uint8_t>, 12> fifo;  // the outer deinterleaver: branch j delays 17 (11 - j) bytes
    std::array<uint32_t, 12> fifo_pos{};
    uint32_t branch = 0;
    std::array<uint8_t, 204> packet{};
    uint32_t packet_fill = 0;

    bool phased = false;  // the position of the next packet in its 8-packet group is known
    uint32_t group = 0;
    std::deque<OutPacket> held;  // decoded packets waiting for that position
    std::vector<Ready> ready;    // packets for the sink
};

}  // namespace

struct Decoder {
    Transmission t;
    uint32_t N = 0, v = 0, block = 0, per_block = 1;  // cells a symbol, bits a cell, cells a block, symbols a block
    Constellation con;
    // The cell of each word of the symbol interleaver, in even and odd blocks.
    std::array<std::vector<uint16_t>, 2> cell_of;
    // A block of several symbols (in-depth interleaving): its cells and their
    // csi; then the block's cells in word order.
    std::vector<std::complex<float>> block_cells, word_cells;
    std::vector<float> block_csi, word_csi;
    std::vector<int8_t> planes;  // v planes of soft values in word order, then the 0 of the erasures
    bool running = false;
    uint32_t next_frame = 0, next_symbol = 0;
    uint64_t symbols = 0, blocks = 0;
    Stream hp, lp;
    DecoderCounts counts;
};

void DecoderDeleter::operator()(Decoder* d) const { delete d; }

namespace {

void reset(Stream& s) {
    s.pairs.assign(2 * window_lead, 0);
    s.first = 0;
    s.decided = window_lead;
    for (auto& d : s.decisions) d.resize(window_span);
    for (uint32_t j = 0; j < 12; j++) s.fifo[j].assign(17 * (11 - j), 0);
    s.fifo_pos.fill(0);
    s.branch = 0;
    s.packet_fill = 0;
    s.phased = false;
    s.group = 0;
}

// Builds the stream's gather: its bits of each word as the demultiplexer
// routed them (route[i] is the sub-stream of the i-th bit the stream gives to
// a word), then the puncturing pattern with erasures.
void build_gather(const Decoder& d, Stream& s, std::span<const uint32_t> route) {
    const auto erased = static_cast<uint16_t>(d.v * d.block);
    std::vector<uint16_t> sent;
    for (uint32_t b = 0; b < d.block / bit_block; b++)
        for (uint32_t k = 0; k < bit_block; k++)
            for (uint32_t e : route) {
                const uint32_t w = b * bit_block + (k + bit_block - bit_shift[e]) % bit_block;
                sent.push_back(static_cast<uint16_t>(e * d.block + w));
            }
    s.gather.clear();
    size_t next = 0;
    for (size_t p = 0; p < sent.size() / period_out[s.rate]; p++)
        for (uint32_t k = 0; k < period_in[s.rate]; k++)
            s.gather.push_back(kept[s.rate][k] != 0 ? sent[next++] : erased);
}

void emit(Decoder& d, Stream& s, const OutPacket& o, bool phased, uint32_t group) {
    Ready r;
    r.coded = o.coded;
    r.ok = o.rs.ok && phased;
    r.bytes = r.ok ? o.rs.bytes : 0;
    r.bits = r.ok ? o.rs.bits : 0;
    std::copy_n(o.data.begin(), 188, r.ts.begin());
    if (phased) disperse(std::span<uint8_t, 188>(r.ts), group);
    r.ts[0] = 0x47;
    if (!r.ok) r.ts[1] |= 0x80;  // transport error indicator
    d.counts.packets++;
    if (r.ok) {
        d.counts.corrected += r.bytes > 0;
        d.counts.bits_after_viterbi += 8 * rs_n;
        d.counts.errors_after_viterbi += static_cast<uint64_t>(r.bits);
    } else {
        d.counts.uncorrectable++;
    }
    s.ready.push_back(r);
}

// A packet out of the outer deinterleaver: decoded, then given out as soon as
// its place in the 8-packet group is known (from the inverted sync byte of the
// group's first packet).
void packet_out(Decoder& d, Stream& s) {
    OutPacket o;
    o.coded = s.packet;
    o.data = s.packet;
    o.rs = rs_decode(std::span<uint8_t, 204>(o.data));
    const bool first = o.rs.ok && o.data[0] == 0xB8;
    if (!s.phased && first) {
        s.phased = true;
        const auto n = static_cast<uint32_t>(s.held.size());
        for (uint32_t i = 0; i < n; i++) emit(d, s, s.held[i], true, (8 - (n - i) % 8) % 8);
        s.held.clear();
    }
    if (!s.phased) {
        s.held.push_back(o);
        // No group start found in a long run of packets: they go out undispersed, as failed.
        if (s.held.size() > 64) {
            emit(d, s, s.held.front(), false, 0);
            s.held.pop_front();
        }
        return;
    }
    if (first) s.group = 0;
    emit(d, s, o, true, s.group);
    s.group = (s.group + 1) % 8;
}

void byte_out(Decoder& d, Stream& s, uint8_t b) {
    uint8_t out = b;
    const uint32_t j = s.branch;
    if (j < 11) {
        uint8_t& cell = s.fifo[j][s.fifo_pos[j]];
        out = cell;
        cell = b;
        if (++s.fifo_pos[j] == s.fifo[j].size()) s.fifo_pos[j] = 0;
    }
    s.branch = j == 11 ? 0 : j + 1;
    s.packet[s.packet_fill++] = out;
    if (s.packet_fill == rs_n) {
        packet_out(d, s);
        s.packet_fill = 0;
    }
}

// The bits of a window before the Viterbi decoder: its decided bits (words of
// 64, the first bit highest; prev holds the 6 bits before them, the latest
// lowest) re-encoded, 64 steps at a time, and compared with the hard
// decisions of what was received, where anything was.
void count_before(Decoder& d, const uint64_t* words, uint64_t prev, const int8_t* pairs, bool restart) {
    constexpr size_t n = window_bits / 64;
    std::array<uint64_t, n> neg_x, any_x, neg_y, any_y;
    hard_decisions(pairs, window_bits, neg_x.data(), any_x.data(), neg_y.data(), any_y.data());
    uint64_t bits = 0, errors = 0;
    for (size_t k = 0; k < n; k++) {
        const uint64_t w = words[k];
        auto older = [&](unsigned j) { return w >> j | prev << (64 - j); };
        const uint64_t x = w ^ older(1) ^ older(2) ^ older(3) ^ older(6);
        const uint64_t y = w ^ older(2) ^ older(3) ^ older(5) ^ older(6);
        // The first 6 steps after a restart have no known register.
        const uint64_t known = restart && k == 0 ? ~uint64_t{0} >> 6 : ~uint64_t{0};
        bits += static_cast<uint64_t>(std::popcount(any_x[k] & known) + std::popcount(any_y[k] & known));
        errors += static_cast<uint64_t>(std::popcount((neg_x[k] ^ x) & any_x[k] & known) +
                                        std::popcount((neg_y[k] ^ y) & any_y[k] & known));
        prev = w;
    }
    d.counts.bits_before_viterbi += bits;
    d.counts.errors_before_viterbi += errors;
}

// The traceback of the windows, in step: from the best state at each
// window's end back through its trail, then through its bits, which go out
// packed into bytes, the first window's first. Window w's decisions and soft
// values start at its lead.
void traceback(Decoder& d, Stream& s, const std::array<const int8_t*, windows>& pairs) {
    static_assert(window_bits % 64 == 0);
    // r is decision_bit(state), the bit of the state's decision; the state is
    // r rotated left, and the previous step's r comes from r and the decision.
    std::array<uint32_t, windows> r{};
    std::array<const uint64_t*, windows> dec{};
    for (size_t w = 0; w < windows; w++) {
        uint32_t best = 0;
        for (uint32_t k = 1; k < 64; k++)
            if (s.metrics[w][k] > s.metrics[w][best]) best = k;
        r[w] = decision_bit(best);
        dec[w] = s.decisions[w].data() + window_lead;
    }
    for (size_t t = window_bits + window_trail; t-- > window_bits;) {
#pragma GCC unroll 4
        for (size_t w = 0; w < windows; w++)
            r[w] = (r[w] & 31) >> 1 | (r[w] & 1) << 5 | static_cast<uint32_t>(dec[w][t] >> r[w] & 1) << 4;
    }
    std::array<std::array<uint64_t, window_bits / 64>, windows> words;
    std::array<uint64_t, windows> word{};
    for (size_t t = window_bits; t-- > 0;) {
#pragma GCC unroll 4
        for (size_t w = 0; w < windows; w++) {
            word[w] = word[w] >> 1 | static_cast<uint64_t>(r[w] >> 5) << 63;
            r[w] = (r[w] & 31) >> 1 | (r[w] & 1) << 5 | static_cast<uint32_t>(dec[w][t] >> r[w] & 1) << 4;
        }
        if ((t & 63) == 0)
            for (size_t w = 0; w < windows; w++) words[w][t / 64] = word[w];
    }
    // Now r is the state before each window: its last 6 bits.
    for (size_t w = 0; w < windows; w++)
        count_before(d, words[w].data(), (r[w] << 1 | r[w] >> 5) & 63, pairs[w] + 2 * window_lead,
                     w == 0 && s.decided == window_lead);
    for (const auto& ws : words)
        for (uint64_t w : ws)
            for (uint32_t k = 0; k < 8; k++) byte_out(d, s, static_cast<uint8_t>(w >> (56 - 8 * k)));
}

// Decides the next windows' bits.
void decide(Decoder& d, Stream& s) {
    ViterbiSet v;
    std::array<const int8_t*, windows> p{};
    for (size_t w = 0; w < windows; w++) {
        p[w] = s.pairs.data() + 2 * (s.decided + w * window_bits - window_lead - s.first);
        s.metrics[w].fill(0);
        v.metrics[w] = s.metrics[w].data(), v.pairs[w] = p[w], v.decisions[w] = s.decisions[w].data();
    }
    v.count = windows;
    viterbi_acs_set(v, window_span);
    traceback(d, s, p);
    s.decided += windows * window_bits;
    // Keep what the next windows need: from the next lead on.
    const uint64_t keep = s.decided - window_lead;
    s.pairs.erase(s.pairs.begin(), s.pairs.begin() + static_cast<ptrdiff_t>(2 * (keep - s.first)));
    s.first = keep;
}

void decode_block(Decoder& d, Stream& s) {
    const std::vector<uint16_t>& g = s.gather;
    const size_t at = s.pairs.size();
    s.pairs.resize(at + g.size());
    int8_t* p = s.pairs.data() + at;
    const int8_t* planes = d.planes.data();
    const uint16_t* src = g.data();
    const size_t n = g.size();
    for (size_t i = 0; i < n; i++) p[i] = planes[src[i]];
    while (s.first + s.pairs.size() / 2 >= s.decided + windows * window_bits + window_trail) decide(d, s);
}

void restart(Decoder& d) {
    for (Stream* s : {&d.hp, &d.lp}) {
        // Packets still waiting for their group position go out as failed.
        for (const OutPacket& o : s->held) emit(d, *s, o, false, 0);
        s->held.clear();
        reset(*s);
    }
    d.symbols = d.blocks = 0;
}

}  // namespace

DecoderPtr decoder_create(const Transmission& t) {
    if (t.mode > 2 || t.M > 2 || t.alpha > 3 || t.delta > 3 || t.rate_hp > 4 || t.rate_lp > 4) return nullptr;
    DecoderPtr d(new Decoder);
    d->t = t;
    if (d->t.alpha != 0 && d->t.M == 0) d->t.M = 1;  // hierarchical QPSK runs as 16-QAM
    if (d->t.mode == 2) d->t.idi = 0;
    d->N = static_cast<uint32_t>(dvbt_N[d->t.mode]);
    d->v = static_cast<uint32_t>(dvbt_bitpersymb[d->t.M]);
    d->block = d->t.idi != 0 ? 6048 : d->N;
    d->per_block = d->block / d->N;
    d->con = constellation(d->t.M, d->t.alpha);
    d->planes.assign(d->v * d->block + 1, 0);
    // Even blocks carry word q in cell H(q), odd blocks in cell H^-1(q).
    d->cell_of[0] = symbol_permutation(d->block == 6048 ? 2 : d->t.mode);
    d->cell_of[1].resize(d->block);
    for (uint32_t q = 0; q < d->block; q++) d->cell_of[1][d->cell_of[0][q]] = static_cast<uint16_t>(q);
    d->word_cells.resize(d->block);
    d->word_csi.resize(d->block);
    if (d->per_block > 1) {
        d->block_cells.resize(d->block);
        d->block_csi.resize(d->block);
    }
    // The demultiplexer's routes: the sub-stream of each bit a stream gives a word.
    static constexpr std::array<std::array<uint32_t, 6>, 3> nh{{{0, 1}, {0, 2, 1, 3}, {0, 2, 4, 1, 3, 5}}};
    static constexpr std::array<uint32_t, 2> hp{0, 1};
    static constexpr std::array<std::array<uint32_t, 4>, 2> lp{{{2, 3}, {2, 4, 3, 5}}};
    d->hp.rate = d->t.rate_hp;
    if (d->t.alpha == 0) {
        build_gather(*d, d->hp, std::span<const uint32_t>(nh[d->t.M].data(), d->v));
    } else {
        build_gather(*d, d->hp, hp);
        d->lp.lp = true;
        d->lp.rate = d->t.rate_lp;
        build_gather(*d, d->lp, std::span<const uint32_t>(lp[d->t.M - 1].data(), d->v - 2));
    }
    restart(*d);
    return d;
}

void decoder_push(Decoder& d, const SymbolCells& c, const std::function<void(const Packet&)>& sink) {
    const bool valid = c.frame < 4 && c.symbol < 68 && c.cells.size() == d.N && c.csi.size() == d.N;
    if (d.running && (!valid || c.frame != d.next_frame || c.symbol != d.next_symbol)) d.running = false;
    if (!d.running) {
        if (!valid || c.frame != 0 || c.symbol != 0) return;
        restart(d);
        d.running = true;
    }
    d.next_symbol = c.symbol == 67 ? 0 : c.symbol + 1;
    d.next_frame = c.symbol == 67 ? (c.frame + 1) % 4 : c.frame;

    const auto at = static_cast<uint32_t>(d.symbols++ % d.per_block);
    const std::complex<float>* cells = c.cells.data();
    const float* csi = c.csi.data();
    if (d.per_block > 1) {
        std::copy(c.cells.begin(), c.cells.end(), d.block_cells.begin() + at * d.N);
        std::copy(c.csi.begin(), c.csi.end(), d.block_csi.begin() + at * d.N);
        cells = d.block_cells.data(), csi = d.block_csi.data();
    }
    if (at + 1 == d.per_block) {
        // The cells in the order of the words: each stream's gather then
        // reads its bits from within blocks of 126 words.
        const uint16_t* cell = d.cell_of[d.blocks++ & 1].data();
        std::complex<float>* wc = d.word_cells.data();
        float* ws = d.word_csi.data();
        for (uint32_t q = 0; q < d.block; q++) wc[q] = cells[cell[q]], ws[q] = csi[cell[q]];
        demap(d.con, reinterpret_cast<const float*>(wc), ws, d.block, llr_steps, d.planes.data(), d.block);
        decode_block(d, d.hp);
        if (d.t.alpha != 0) decode_block(d, d.lp);
    }
    for (Stream* s : {&d.hp, &d.lp}) {
        for (const Ready& r : s->ready) {
            Packet p;
            p.lp = s->lp;
            p.coded = r.coded;
            p.ts = r.ts;
            p.ok = r.ok;
            p.corrected_bytes = r.bytes;
            p.corrected_bits = r.bits;
            sink(p);
        }
        s->ready.clear();
    }
}

const DecoderCounts& decoder_counts(const Decoder& d) { return d.counts; }

}  // namespace rx
