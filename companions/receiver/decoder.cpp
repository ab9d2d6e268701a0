// The decoder: soft demapping of each symbol's cells into bit planes, one
// gather per stream that undoes the symbol interleaver, the bit interleaver and
// the demultiplexer and puts erasures where the puncturer dropped bits, the
// Viterbi decoder, the outer deinterleaver, the Reed-Solomon decoder and the
// energy dispersal.
#include "receiver/decoder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <deque>
#include <vector>

#include "frame/params.hpp"
#include "receiver/kernels.hpp"
#include "receiver/rs.hpp"

namespace rx {

namespace {

// Steps of the Viterbi decoder's traceback before a bit is decided, and the
// steps decided at a time.
constexpr size_t traceback_depth = 192;
constexpr size_t traceback_chunk = 4096;
constexpr size_t viterbi_span = traceback_depth + traceback_chunk;

// The soft values of a uniform constellation's nearest neighbours, at the mean
// csi, before saturation: the Viterbi decoder's metrics are invariant to a
// common scale, so the scale only sets the quantiser's resolution.
constexpr float soft_unit = 16.0f;

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
    // For even and odd interleaver blocks: the soft value of each X and Y of
    // the mother code, as an index into the bit planes (the last index holds 0).
    std::array<std::vector<uint16_t>, 2> gather;

    alignas(64) std::array<int16_t, 64> metrics{};
    std::vector<int8_t> pairs = std::vector<int8_t>(2 * viterbi_span);
    std::vector<uint64_t> decisions = std::vector<uint64_t>(viterbi_span);
    std::vector<uint8_t> bytes = std::vector<uint8_t>(traceback_chunk / 8);
    size_t pending = 0;
    uint64_t decided = 0;  // steps decided since the restart

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
    std::vector<int8_t> planes;  // v planes of block soft values, then the 0 of the erasures
    bool running = false;
    uint32_t next_frame = 0, next_symbol = 0;
    uint64_t symbols = 0, blocks = 0;
    float mean_csi = 0.0f;  // running mean of the csi of the cells (0 before the first)
    Stream hp, lp;
    DecoderCounts counts;
};

void DecoderDeleter::operator()(Decoder* d) const { delete d; }

namespace {

void reset(Stream& s) {
    s.metrics.fill(0);
    s.pending = 0;
    s.decided = 0;
    for (uint32_t j = 0; j < 12; j++) s.fifo[j].assign(17 * (11 - j), 0);
    s.fifo_pos.fill(0);
    s.branch = 0;
    s.packet_fill = 0;
    s.phased = false;
    s.group = 0;
}

// Builds the stream's gathers: its bits of each word as the demultiplexer
// routed them (route[i] is the sub-stream of the i-th bit the stream gives to
// a word), then the puncturing pattern with erasures.
void build_gather(const Decoder& d, Stream& s, std::span<const uint32_t> route) {
    const uint32_t m = d.block == 6048 ? 2 : d.t.mode;
    const std::vector<uint16_t> h = symbol_permutation(m);
    std::vector<uint16_t> hinv(h.size());
    for (uint32_t q = 0; q < h.size(); q++) hinv[h[q]] = static_cast<uint16_t>(q);
    const auto erased = static_cast<uint16_t>(d.v * d.block);
    for (uint32_t parity = 0; parity < 2; parity++) {
        // Even blocks carry word q in cell H(q), odd blocks in cell H^-1(q).
        const std::vector<uint16_t>& cell = parity == 0 ? h : hinv;
        std::vector<uint16_t> sent;
        for (uint32_t b = 0; b < d.block / bit_block; b++)
            for (uint32_t k = 0; k < bit_block; k++)
                for (uint32_t e : route) {
                    const uint32_t w = b * bit_block + (k + bit_block - bit_shift[e]) % bit_block;
                    sent.push_back(static_cast<uint16_t>(e * d.block + cell[w]));
                }
        std::vector<uint16_t>& g = s.gather[parity];
        g.clear();
        size_t next = 0;
        for (size_t p = 0; p < sent.size() / period_out[s.rate]; p++)
            for (uint32_t k = 0; k < period_in[s.rate]; k++) g.push_back(kept[s.rate][k] != 0 ? sent[next++] : erased);
    }
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

// The code bits X (bit 1) and Y (bit 0) of the encoder's 7-bit register.
constexpr auto code_bits = [] {
    std::array<uint8_t, 128> t{};
    for (unsigned r = 0; r < 128; r++) {
        const unsigned x = std::popcount(r & 0x4Fu) & 1u, y = std::popcount(r & 0x6Du) & 1u;
        t[r] = static_cast<uint8_t>(x << 1 | y);
    }
    return t;
}();

// Decides the oldest n pending steps (a multiple of 64): traceback from the
// best state through all pending decisions. On the way through those n
// steps, each state and its decision give the encoder's register, so the
// decoded bits are re-encoded there and compared with the hard decisions of
// what was received; the bits go out packed into bytes.
void decide(Decoder& d, Stream& s, size_t n) {
    static_assert(traceback_chunk % 64 == 0);
    uint32_t state = 0;
    for (uint32_t k = 1; k < 64; k++)
        if (s.metrics[k] > s.metrics[state]) state = k;
    const uint64_t* dec = s.decisions.data();
    size_t t = s.pending;
    while (t > n) {
        --t;
        state = state >> 1 | static_cast<uint32_t>(dec[t] >> state & 1) << 5;
    }
    const int8_t* pr = s.pairs.data();
    uint8_t* out = s.bytes.data();
    const uint64_t decided = s.decided;
    uint64_t word = 0, bits = 0, errors = 0;
    while (t > 0) {
        --t;
        const auto back = static_cast<uint32_t>(dec[t] >> state & 1);
        const uint32_t cb = code_bits[state | back << 6];
        word = word >> 1 | static_cast<uint64_t>(state & 1) << 63;
        state = state >> 1 | back << 5;
        if ((t & 63) == 0)
            for (uint32_t k = 0; k < 8; k++) out[t / 8 + k] = static_cast<uint8_t>(word >> (56 - 8 * k));
        // The first 6 steps after a restart have no known register.
        const uint32_t known = decided + t >= 6;
        const int x = pr[2 * t], y = pr[2 * t + 1];
        bits += known * ((x != 0) + (y != 0));
        errors += known * ((x != 0 && (x < 0) != ((cb >> 1) != 0)) + (y != 0 && (y < 0) != ((cb & 1) != 0)));
    }
    s.decided += n;
    d.counts.bits_before_viterbi += bits;
    d.counts.errors_before_viterbi += errors;
    for (size_t k = 0; k < n / 8; k++) byte_out(d, s, s.bytes[k]);
    std::copy(s.decisions.begin() + static_cast<ptrdiff_t>(n), s.decisions.begin() + static_cast<ptrdiff_t>(s.pending),
              s.decisions.begin());
    std::copy(s.pairs.begin() + static_cast<ptrdiff_t>(2 * n), s.pairs.begin() + static_cast<ptrdiff_t>(2 * s.pending),
              s.pairs.begin());
    s.pending -= n;
}

void decode_block(Decoder& d, Stream& s, uint32_t parity) {
    const std::vector<uint16_t>& g = s.gather[parity];
    const size_t steps = g.size() / 2;
    for (size_t done = 0; done < steps;) {
        const size_t k = std::min(steps - done, viterbi_span - s.pending);
        int8_t* p = s.pairs.data() + 2 * s.pending;
        const uint16_t* src = g.data() + 2 * done;
        const int8_t* planes = d.planes.data();
        for (size_t i = 0; i < 2 * k; i++) p[i] = planes[src[i]];
        viterbi_acs(s.metrics.data(), p, k, s.decisions.data() + s.pending);
        s.pending += k;
        done += k;
        if (s.pending == viterbi_span) decide(d, s, traceback_chunk);
    }
}

void restart(Decoder& d) {
    for (Stream* s : {&d.hp, &d.lp}) {
        // Packets still waiting for their group position go out as failed.
        for (const OutPacket& o : s->held) emit(d, *s, o, false, 0);
        s->held.clear();
        reset(*s);
    }
    d.symbols = d.blocks = 0;
    d.mean_csi = 0.0f;
}

// The demapper's scale: soft_unit for the squared distance of neighbouring
// levels (4 unit^2) at the csi's running mean. The mean follows slow changes
// of the noise level and leaves the weights of the cells of a symbol, and of
// neighbouring symbols, as the csi gives them.
float soft_scale(Decoder& d, std::span<const float> csi) {
    double sum = 0.0;
    size_t n = 0;
    for (float c : csi)
        if (c > 0.0f && c <= 3.0e38f) sum += c, n++;
    if (n > 0) {
        const auto mean = static_cast<float>(sum / static_cast<double>(csi.size()));
        d.mean_csi = d.mean_csi > 0.0f ? 0.875f * d.mean_csi + 0.125f * mean : mean;
    }
    if (!(d.mean_csi > 0.0f)) return 0.0f;
    const float s = soft_unit / (4.0f * d.con.unit * d.con.unit * d.mean_csi);
    return s <= 3.0e38f ? s : 0.0f;
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
    const float scale = soft_scale(d, c.csi);
    demap(d.con, reinterpret_cast<const float*>(c.cells.data()), c.csi.data(), d.N, scale, d.planes.data() + at * d.N,
          d.block);
    if (at + 1 == d.per_block) {
        const auto parity = static_cast<uint32_t>(d.blocks++ & 1);
        decode_block(d, d.hp, parity);
        if (d.t.alpha != 0) decode_block(d, d.lp, parity);
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
