// The receiver's decoder against the transmitter itself: the mapper's cells of
// real runs, fed symbol by symbol, give back the packets sent, in every mode,
// constellation, rate, interleaving and hierarchy; with noise, the errors are
// corrected and counted, and the cliff lies where the standard puts it. The
// vector kernels against the plain ones, the Reed-Solomon decoder against
// random errors, and the exact count against the stream sent.

#include <complex>
#include <cstring>
#include <random>

#include "outer/rs.hpp"
#include "receiver/decoder.hpp"
#include "receiver/kernels.hpp"
#include "receiver/reference.hpp"
#include "receiver/rs.hpp"
#include "util.hpp"

namespace {

using Cells = std::vector<std::complex<float>>;

struct Config {
    std::vector<std::string> args;  // the transmitter's options
    rx::Transmission t;
    size_t packets;  // sent in each stream
};

// Runs the transmitter and returns the mapper's cells and the streams sent.
Cells transmit(const Config& c, std::vector<tu::Bytes>& sent) {
    tu::TempDir dir;
    const bool hier = c.t.alpha != 0;
    sent = {tu::make_ts(c.packets, 3)};
    if (hier) sent.push_back(tu::make_ts(c.packets, 4));
    std::vector<std::string> args = c.args;
    if (hier) {
        tu::write_file(dir / "hp.ts", sent[0]), tu::write_file(dir / "lp.ts", sent[1]);
        args.insert(args.end(), {"-ihp", "hp.ts", "-ilp", "lp.ts"});
    } else {
        tu::write_file(dir / "in.ts", sent[0]);
        args.insert(args.end(), {"-i", "in.ts"});
    }
    args.insert(args.end(), {"-o", "out", "-d", "m", "-l", "/dev/null", "-v", "0"});
    const tu::Result r = tu::tervane(dir.path, args);
    EXPECT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
    const tu::Bytes b = tu::read_file(dir / "out_ma.bin");
    Cells cells(b.size() / 8);
    std::memcpy(cells.data(), b.data(), cells.size() * 8);
    return cells;
}

struct Received {
    std::vector<std::vector<tu::Bytes>> ts{2};  // by stream: the packets out
    std::vector<std::vector<bool>> ok{2};
    rx::DecoderCounts counts;
    rx::ReferenceCounts ref;
};

// Feeds whole symbols from frame 0 symbol 0 on, with complex Gaussian noise of
// the given power (csi its inverse) when it is positive.
Received receive(const rx::Transmission& t, const Cells& cells, double noise, const std::vector<tu::Bytes>& sent = {}) {
    Received got;
    rx::DecoderPtr d = rx::decoder_create(t);
    std::vector<rx::ReferencePtr> refs;
    for (const tu::Bytes& s : sent) refs.push_back(rx::reference_create(s));
    const auto N = static_cast<size_t>(dvbt_N[t.mode]);
    std::mt19937 g(5);
    std::normal_distribution<float> n(0.0f, static_cast<float>(std::sqrt(noise / 2)));
    Cells sym(N);
    std::vector<float> csi(N, noise > 0 ? static_cast<float>(1 / noise) : 1.0f);
    for (size_t k = 0; (k + 1) * N <= cells.size(); k++) {
        for (size_t i = 0; i < N; i++) sym[i] = cells[k * N + i] + (noise > 0 ? std::complex<float>(n(g), n(g)) : 0.0f);
        rx::SymbolCells s{static_cast<uint32_t>(k / 68 % 4), static_cast<uint32_t>(k % 68), sym, csi};
        rx::decoder_push(*d, s, [&](const rx::Packet& p) {
            got.ts[p.lp].emplace_back(p.ts.begin(), p.ts.end());
            got.ok[p.lp].push_back(p.ok);
            if (p.lp < refs.size()) rx::reference_compare(*refs[p.lp], p);
        });
    }
    got.counts = rx::decoder_counts(*d);
    for (const auto& r : refs) {
        const rx::ReferenceCounts& c = rx::reference_counts(*r);
        got.ref.packets += c.packets, got.ref.bits += c.bits, got.ref.errors += c.errors;
        got.ref.unplaced += c.unplaced;
    }
    return got;
}

// The first 11 packets out hold the outer deinterleaver's fill; packet 11 + i
// is packet i sent. Every one must be there, decoded and exact, up to about
// as many as the cells carried (less what the interleavers and the Viterbi
// decoder still hold).
void expect_sent(const Config& c, const Cells& cells, const Received& got, const std::vector<tu::Bytes>& sent) {
    const uint32_t v = static_cast<uint32_t>(dvbt_bitpersymb[c.t.M]);
    const size_t symbols = cells.size() / static_cast<size_t>(dvbt_N[c.t.mode]);
    for (size_t s = 0; s < sent.size(); s++) {
        const uint32_t bits = c.t.alpha == 0 ? v : s == 0 ? 2 : v - 2;
        const uint32_t rate = s == 0 ? c.t.rate_hp : c.t.rate_lp;
        const double carried = static_cast<double>(symbols) * static_cast<double>(dvbt_N[c.t.mode]) * bits *
                               dvbt_punrate[rate] / (204.0 * 8.0);
        const auto& ts = got.ts[s];
        EXPECT_GE(ts.size() + 4.0, carried) << "stream " << s;
        ASSERT_GT(ts.size(), 16u) << "stream " << s;
        size_t exact = 0;
        for (size_t i = 11; i < ts.size() && i - 11 < c.packets; i++) {
            const tu::Bytes want(sent[s].begin() + static_cast<ptrdiff_t>(188 * (i - 11)),
                                 sent[s].begin() + static_cast<ptrdiff_t>(188 * (i - 10)));
            exact += got.ok[s][i] && ts[i] == want;
        }
        EXPECT_EQ(exact, ts.size() - 11) << "stream " << s;
    }
}

rx::Transmission tx(uint32_t mode, uint32_t M, uint32_t alpha, uint32_t rate_hp, uint32_t rate_lp, uint32_t idi) {
    rx::Transmission t;
    t.mode = mode, t.M = M, t.alpha = alpha, t.rate_hp = rate_hp, t.rate_lp = rate_lp, t.idi = idi;
    return t;
}

TEST(ReceiverDecoder, GivesBackThePacketsSent) {
    const std::vector<Config> configs{
        {{"-m", "2k", "-M", "4", "-p", "1/2", "-c", "0"}, tx(0, 0, 0, 0, 0, 0), 60},
        {{"-m", "2k", "-M", "16", "-p", "2/3", "-idi"}, tx(0, 1, 0, 1, 0, 1), 120},
        {{"-m", "4k", "-M", "64", "-p", "3/4"}, tx(1, 2, 0, 2, 0, 0), 160},
        {{"-m", "4k", "-M", "16", "-p", "5/6", "-idi", "-c", "0"}, tx(1, 1, 0, 3, 0, 1), 160},
        {{"-m", "8k", "-M", "4", "-p", "7/8"}, tx(2, 0, 0, 4, 0, 0), 120},
        {{"-m", "8k", "-M", "64", "-p", "2/3", "-c", "0"}, tx(2, 2, 0, 1, 0, 0), 250},
        {{"-m", "2k", "-M", "16", "-a", "1", "-php", "1/2", "-plp", "7/8", "-idi"}, tx(0, 1, 1, 0, 4, 1), 120},
        {{"-m", "4k", "-M", "64", "-a", "2", "-php", "2/3", "-plp", "3/4"}, tx(1, 2, 2, 1, 2, 0), 160},
        {{"-m", "8k", "-M", "64", "-a", "4", "-php", "5/6", "-plp", "1/2", "-c", "0"}, tx(2, 2, 3, 3, 0, 0), 160},
        {{"-m", "2k", "-M", "64", "-a", "4", "-php", "7/8", "-plp", "2/3", "-idi"}, tx(0, 2, 3, 4, 1, 1), 120},
    };
    for (const Config& c : configs) {
        std::string name;
        for (const auto& a : c.args) name += a + " ";
        SCOPED_TRACE(name);
        std::vector<tu::Bytes> sent;
        const Cells cells = transmit(c, sent);
        const Received got = receive(c.t, cells, 0.0);
        expect_sent(c, cells, got, sent);
        EXPECT_EQ(got.counts.errors_before_viterbi, 0u);
        EXPECT_GT(got.counts.bits_before_viterbi, 0u);
        EXPECT_EQ(got.counts.corrected, 0u);
        EXPECT_EQ(got.counts.errors_after_viterbi, 0u);
    }
}

}  // namespace
