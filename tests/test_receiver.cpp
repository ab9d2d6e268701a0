// The receiver's front end against the transmitter: the cells it hands out
// equal the mapper's, symbol for symbol, whatever it had to find by itself.
#include <complex>
#include <cstring>
#include <map>

#include "util.hpp"

#ifdef TERVANE_RX_EXE
#include "receiver/carriers.hpp"
#include "receiver/frontend.hpp"
#include "receiver/input.hpp"

namespace {

using cf = std::complex<float>;

struct Received {
    std::vector<std::pair<uint32_t, std::vector<cf>>> symbols;  // frame * 68 + symbol, cells
    rx::FrontEndStatus status;
    rx::Transmission t;
};

Received receive(const std::string& file, rx::Format format, const rx::FrontEndConfig& cfg, size_t skip = 0) {
    Received r;
    rx::SampleReader in;
    EXPECT_TRUE(rx::reader_open(in, file, format));
    auto fe = rx::frontend_create(cfg);
    std::vector<cf> block(40000);
    size_t n;
    auto sink = [&](const rx::Transmission& t, const rx::SymbolCells& s) {
        r.t = t;
        r.symbols.emplace_back(s.frame * 68 + s.symbol, std::vector<cf>(s.cells.begin(), s.cells.end()));
    };
    while ((n = rx::reader_read(in, block)) > 0) {
        const size_t drop = std::min(skip, n);
        skip -= drop;
        rx::frontend_push(*fe, std::span<const cf>(block.data() + drop, n - drop), sink);
    }
    r.status = rx::frontend_status(*fe);
    return r;
}

// The mapper's cells, N per symbol from the first.
std::vector<cf> mapper_cells(const tu::fs::path& p) {
    const tu::Bytes b = tu::read_file(p);
    std::vector<cf> c(b.size() / 8);
    std::memcpy(c.data(), b.data(), c.size() * 8);
    return c;
}

// Error power of the received cells against the mapper's over all symbols
// after the first, the first placed where it fits best; also how many symbols.
std::pair<double, size_t> compare(const Received& r, const std::vector<cf>& ma, size_t N) {
    if (r.symbols.empty()) return {1e9, 0};
    const size_t total = ma.size() / N;
    auto err_at = [&](size_t a, const std::vector<cf>& c) {
        double e = 0;
        for (size_t i = 0; i < N; ++i) e += std::norm(c[i] - ma[a * N + i]);
        return e / N;
    };
    size_t best_a = 0;
    double best = 1e9;
    for (size_t a = r.symbols[0].first; a < total; a += 272) {
        const double e = err_at(a, r.symbols[0].second);
        if (e < best) best = e, best_a = a;
    }
    double worst = 0;
    size_t n = 0;
    for (size_t i = 0; i < r.symbols.size() && best_a + i < total; ++i) {
        EXPECT_EQ(r.symbols[i].first, (best_a + i) % 272);
        EXPECT_EQ(r.symbols[i].second.size(), N);
        worst = std::max(worst, err_at(best_a + i, r.symbols[i].second));
        ++n;
    }
    return {worst, n};
}

TEST(ReceiverFrontEnd, CellsEqualTheMappersWithNothingGiven) {
    struct Case {
        std::vector<std::string> tx;
        rx::FrontEndConfig cfg;
        rx::Format format;
        rx::Transmission want;
    };
    auto cfg = [](uint32_t mapping, uint32_t interp) {
        rx::FrontEndConfig c;
        c.mapping = mapping, c.interp = interp;
        return c;
    };
    using T = rx::Transmission;
    const std::vector<Case> cases{
        {{"-m", "2k", "-M", "16", "-D", "1/4", "-p", "3/4"}, {}, rx::Format::cf32, T{0, 1, 0, 0, 2, 0, 0, -1}},
        {{"-m", "8k", "-M", "64", "-D", "1/32", "-p", "7/8", "-f", "INV", "-cid", "4660"},
         cfg(2, 0),
         rx::Format::cf32,
         T{2, 2, 0, 3, 4, 0, 0, 4660}},
        {{"-m", "4k", "-M", "4", "-D", "1/8", "-p", "1/2", "-idi", "-I", "2x", "-F", "agi"},
         cfg(0, 1),
         rx::Format::ci16_be,
         T{1, 0, 0, 1, 0, 0, 1, -1}},
        {{"-m", "2k", "-M", "64", "-a", "2", "-D", "1/16", "-php", "2/3", "-plp", "5/6", "-f", "BB"},
         cfg(1, 0),
         rx::Format::cf32,
         T{0, 2, 2, 2, 1, 3, 0, -1}},
        {{"-m", "2k", "-M", "16", "-a", "4", "-D", "1/32", "-php", "1/2", "-plp", "2/3", "-I", "4x", "-b", "6"},
         cfg(0, 2),
         rx::Format::cf32,
         T{0, 1, 3, 3, 0, 1, 0, -1}},
    };
    for (const Case& c : cases) {
        tu::TempDir dir;
        std::string desc;
        for (const auto& a : c.tx) desc += a + " ";
        SCOPED_TRACE(desc);
        ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "in.ts", "-n", "6000"}).status, 0);
        const bool hier = std::find(c.tx.begin(), c.tx.end(), "-a") != c.tx.end();
        std::vector<std::string> args{"-o", "out", "-d", "tm", "-v", "0"};
        for (const char* a : hier ? std::vector<const char*>{"-ihp", "in.ts", "-ilp", "in.ts"}
                                  : std::vector<const char*>{"-i", "in.ts"})
            args.emplace_back(a);
        args.insert(args.end(), c.tx.begin(), c.tx.end());
        ASSERT_EQ(tu::tervane(dir.path, args).status, 0);
        const auto r =
            receive((dir / (c.format == rx::Format::cf32 ? "out.bin" : "out_agi.bin")).string(), c.format, c.cfg);
        const auto ma = mapper_cells(dir / "out_ma.bin");
        const auto [worst, n] = compare(r, ma, static_cast<size_t>(rx::kDataCells[c.want.mode]));
        EXPECT_GT(n, 100u);
        EXPECT_EQ(r.t.mode, c.want.mode);
        EXPECT_EQ(r.t.M, c.want.M);
        EXPECT_EQ(r.t.alpha, c.want.alpha);
        EXPECT_EQ(r.t.delta, c.want.delta);
        EXPECT_EQ(r.t.rate_hp, c.want.rate_hp);
        EXPECT_EQ(r.t.rate_lp, c.want.rate_lp);
        EXPECT_EQ(r.t.idi, c.want.idi);
        EXPECT_EQ(r.t.cid, c.want.cid);
        EXPECT_LT(worst, 1e-3) << "symbols " << n << " mer " << r.status.mer_db << " cfo " << r.status.offset_hz;
    }
}

}  // namespace
#else
TEST(ReceiverFrontEnd, CellsEqualTheMappersWithNothingGiven) { GTEST_SKIP() << "built without FFTW or nlohmann-json"; }
#endif
