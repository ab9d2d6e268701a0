// The whole chain against independent models, stage by stage, on real runs of
// the executable: every dump is recomputed from the previous stage's dump with
// a model written from the standard's definitions (scrambler, code polynomials,
// interleaver formulas, Gray labelling, frame structure, an exact transform),
// and the dumps' sizes must follow from one another record for record. Odd
// batch sizes make every ring wrap at odd places; the outer interleaver starts
// from zeros so that its output is fully determined.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "models.hpp"
#include "util.hpp"

namespace {

using tu::Bytes;
using cd = std::complex<double>;

struct Case {
    const char* name;
    int mode;                 // 0 2k, 1 4k, 2 8k
    int bits;                 // bits per cell requested: 2, 4, 6
    int alpha;                // 0 NH, else 1, 2, 4
    const char* rate_hp;      // NH rate or HP rate
    const char* rate_lp;      // LP rate (hierarchical)
    const char* guard;
    const char* mapping;      // 0, BB, INV
    bool idi;
    const char* batch;
    int cid;                  // cell identifier, -1 for none
};

const int kF[] = {2048, 4096, 8192}, kK[] = {1705, 3409, 6817};
using models::kN;
const char* const kModeName[] = {"2k", "4k", "8k"};

int rate_index(const std::string& r) {
    const char* names[] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
    for (int i = 0; i < 5; ++i)
        if (r == names[i]) return i;
    return -1;
}

// ---- Outer coding ----------------------------------------------------------

int gf_mul(int a, int b) {  // GF(256) with p(x) = x^8 + x^4 + x^3 + x^2 + 1
    int r = 0;
    for (; b != 0; b >>= 1, a = (a << 1) ^ ((a & 0x80) != 0 ? 0x11D : 0))
        if ((b & 1) != 0) r ^= a;
    return r & 0xFF;
}

// A shortened RS(204,188) codeword has the roots alpha^0 .. alpha^15 and keeps
// its 188 message bytes in front.
void check_rs(const Bytes& rs, const Bytes& ed) {
    ASSERT_EQ(rs.size() % 204, 0u);
    for (size_t p = 0; p < rs.size() / 204; ++p) {
        ASSERT_EQ(std::memcmp(&rs[204 * p], &ed[188 * p], 188), 0) << "packet " << p;
        int root = 1;
        for (int j = 0; j < 16; ++j, root = gf_mul(root, 2)) {
            int s = 0;
            for (size_t i = 0; i < 204; ++i) s = gf_mul(s, root) ^ rs[204 * p + i];
            ASSERT_EQ(s, 0) << "packet " << p << " syndrome " << j;
        }
    }
}

std::vector<cd> read_cells(const Bytes& b) {
    std::vector<cd> c(b.size() / 8);
    for (size_t i = 0; i < c.size(); ++i) {
        float f[2];
        std::memcpy(f, &b[8 * i], 8);
        c[i] = cd(f[0], f[1]);
    }
    return c;
}

// ---- Frame and modulation --------------------------------------------------

// Frame structure read back from the pre-IFFT cells: pilots (+-4/3 by the
// reference sequence x^11 + x^2 + 1), TPS cells, data cells in carrier order,
// and the TPS words decoded from the differential modulation.
void check_frame(const std::vector<cd>& fd, const std::vector<cd>& ma, int mode, const std::vector<std::string>& tps) {
    const size_t K = static_cast<size_t>(kK[mode]), N = static_cast<size_t>(kN[mode]), S = fd.size() / K;
    ASSERT_EQ(fd.size(), S * K);
    ASSERT_GE(S, 70u) << "a whole frame is needed";
    std::vector<int> w(K);
    for (size_t k = 0; k < K; ++k) w[k] = k < 11 ? 1 : w[k - 9] ^ w[k - 11];
    const double pilot = 4.0 / 3.0;
    std::vector<int> always_pilot(K, 1), always_tps(K, 1);
    size_t next_data = 0;
    for (size_t l = 0; l < S; ++l) {
        for (size_t k = 0; k < K; ++k) {
            const cd c = fd[l * K + k];
            const bool is_pilot = c.imag() == 0 && std::abs(std::abs(c.real()) - pilot) < 1e-6;
            const bool is_tps = c.imag() == 0 && std::abs(c.real()) == 1.0;
            if (is_pilot) {
                EXPECT_EQ(c.real() < 0, w[k] == 1) << "pilot sign, carrier " << k;
            }
            if (k % 12 == 3 * (l % 4)) {
                EXPECT_TRUE(is_pilot) << "scattered pilot l " << l << " k " << k;
            }
            always_pilot[k] &= is_pilot;
            always_tps[k] &= is_tps;
            if (!is_pilot && !is_tps) {
                ASSERT_LT(next_data, ma.size());
                ASSERT_EQ(c, ma[next_data]) << "data cell " << next_data;
                ++next_data;
            }
        }
        ASSERT_EQ(next_data, (l + 1) * N) << "data cells of symbol " << l;
    }
    std::vector<size_t> cp, tc;
    for (size_t k = 0; k < K; ++k) {
        if (always_pilot[k]) cp.push_back(k);
        if (always_tps[k]) tc.push_back(k);
    }
    const size_t ncp[] = {45, 89, 177}, ntps[] = {17, 34, 68};
    EXPECT_EQ(cp.size(), ncp[mode]);
    EXPECT_EQ(tc.size(), ntps[mode]);
    EXPECT_EQ((std::vector<size_t>(cp.begin(), cp.begin() + 9)), (std::vector<size_t>{0, 48, 54, 87, 141, 156, 192, 201, 255}));
    EXPECT_EQ(cp.back(), K - 1);
    EXPECT_EQ((std::vector<size_t>(tc.begin(), tc.begin() + 8)), (std::vector<size_t>{34, 50, 209, 346, 413, 569, 595, 688}));
    EXPECT_EQ(tc.back(), (std::vector<size_t>{1687, 3391, 6799})[static_cast<size_t>(mode)]);

    // TPS: symbol 0 of a frame refers to w, then s_l = 1 inverts.
    const std::string sync = "0011010111101110";
    for (size_t f = 0; (f + 1) * 68 <= S; ++f) {
        std::string s = "0";
        for (size_t l = 1; l < 68; ++l) {
            const size_t a = (f * 68 + l) * K, b = a - K;
            const bool flip = fd[a + tc[0]] != fd[b + tc[0]];
            for (size_t k : tc) ASSERT_EQ(fd[a + k] != fd[b + k], flip) << "TPS carriers disagree";
            s += flip ? '1' : '0';
        }
        for (size_t k : tc) EXPECT_EQ(fd[f * 68 * K + k].real() < 0, w[k] == 1);
        std::string want_sync = sync;
        if (f % 2 == 1)
            for (char& c : want_sync) c = c == '0' ? '1' : '0';
        EXPECT_EQ(s.substr(1, 16), want_sync) << "frame " << f;
        EXPECT_EQ(s.substr(17, 37), tps[f % 4]) << "frame " << f;
        // s1..s67 is a codeword of h(x) = x^14+x^9+x^8+x^6+x^5+x^4+x^2+x+1.
        std::vector<int> r;
        for (char c : s.substr(1)) r.push_back(c - '0');
        const int h[15] = {1, 0, 0, 0, 0, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1};  // highest degree first
        for (size_t i = 0; i + 15 <= r.size(); ++i)
            if (r[i] != 0)
                for (size_t t = 0; t < 15; ++t) r[i + t] ^= h[t];
        for (int bit : r) ASSERT_EQ(bit, 0) << "BCH remainder, frame " << f;
    }
}

void fft(std::vector<cd>& a, int sign) {  // textbook iterative radix 2, in double
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; (j & bit) != 0; bit >>= 1) j ^= bit;
        j |= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        const cd wl = std::polar(1.0, sign * 2 * M_PI / static_cast<double>(len));
        for (size_t i = 0; i < n; i += len) {
            cd wk = 1;
            for (size_t k = 0; k < len / 2; ++k, wk *= wl) {
                const cd u = a[i + k], t = a[i + k + len / 2] * wk;
                a[i + k] = u + t;
                a[i + k + len / 2] = u - t;
            }
        }
    }
}

// Each symbol: guard (the last samples of the useful part, bit for bit) then
// sum_m X[m] e^(+i 2 pi m n / F), the carriers placed by the mapping.
void check_modulation(const std::vector<cd>& fd, const std::vector<cd>& td, int mode, const std::string& mapping,
                      int guard_div) {
    const size_t F = static_cast<size_t>(kF[mode]), K = static_cast<size_t>(kK[mode]), G = F / static_cast<size_t>(guard_div);
    const size_t S = fd.size() / K, half = (K - 1) / 2;
    ASSERT_EQ(td.size(), S * (F + G));
    double err = 0, pow = 0;
    for (size_t l = 0; l < S; ++l) {
        std::vector<cd> X(F, 0);
        for (size_t k = 0; k < K; ++k) {
            size_t bin = (k + F - half) % F;
            if (mapping == "BB") bin = k + (F - K + 1) / 2;
            if (mapping == "INV") bin = (half + F - k) % F;
            X[bin] = fd[l * K + k];
        }
        fft(X, +1);
        const cd* sym = &td[l * (F + G)];
        for (size_t n = 0; n < G; ++n) ASSERT_EQ(sym[n], sym[F + n]) << "guard of symbol " << l;
        for (size_t n = 0; n < F; ++n) err += std::norm(sym[G + n] - X[n]), pow += std::norm(X[n]);
    }
    const double limit_db[] = {-55, -35, -30};  // the recurrence's accuracy: about -64, -50, -36 dB
    EXPECT_LT(10 * std::log10(err / pow), limit_db[mode]);
}

// ---- The runs --------------------------------------------------------------

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// A stage's dump is its model's output; in hierarchical runs, where the
// shorter stream stops the chain and the other branch stalls with data in its
// rings, a non-empty prefix of it.
void expect_model(const Bytes& dump, const Bytes& model, bool whole) {
    if (whole) {
        ASSERT_EQ(dump, model);
    } else {
        ASSERT_GT(dump.size(), 0u);
        ASSERT_LE(dump.size(), model.size());
        ASSERT_TRUE(std::equal(dump.begin(), dump.end(), model.begin()));
    }
}

class Chain : public ::testing::TestWithParam<Case> {};

TEST_P(Chain, EveryDumpFollowsFromThePreviousOne) {
    const Case& c = GetParam();
    const bool hier = c.alpha != 0;
    tu::TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "hp.ts", "-n", "600"}).status, 0);
    tu::write_file(dir / "lp.ts", tu::make_ts(600, 9));
    std::vector<std::string> args{"-m", kModeName[c.mode], "-M", std::to_string(1 << c.bits), "-D", c.guard,
                                  "-f", c.mapping, "-s", c.batch, "-c", "0", "-o", "x", "-d", "ercvpbsmft", "-v", "0"};
    if (hier)
        args.insert(args.end(), {"-a", std::to_string(c.alpha), "-ihp", "hp.ts", "-ilp", "lp.ts", "-php", c.rate_hp,
                                 "-plp", c.rate_lp});
    else
        args.insert(args.end(), {"-i", "hp.ts", "-p", c.rate_hp});
    if (c.idi) args.emplace_back("-idi");
    if (c.cid >= 0) args.insert(args.end(), {"-cid", std::to_string(c.cid)});
    ASSERT_EQ(tu::tervane(dir.path, args).status, 0);
    auto dump = [&](const std::string& suffix) { return tu::read_file(dir / ("x_" + suffix + ".bin")); };

    const int v = hier && c.bits == 2 ? 4 : c.bits;  // hierarchical QPSK runs as 16-QAM
    std::vector<Bytes> pu(2);
    for (int branch = 0; branch < (hier ? 2 : 1); ++branch) {
        SCOPED_TRACE(branch == 0 ? "HP" : "LP");
        const std::string b = hier ? (branch == 0 ? "hp" : "lp") : "";
        const Bytes ts = tu::read_file(dir / (branch == 0 ? "hp.ts" : "lp.ts"));
        const Bytes ed = dump("ed" + b), rs = dump("rs" + b), ci = dump("ci" + b), ve = dump("ve" + b);
        expect_model(ed, models::dispersal(ts), !hier);
        if (!hier) {
            ASSERT_EQ(rs.size(), ed.size() / 188 * 204);
        }
        check_rs(rs, ed);
        expect_model(ci, models::outer_interleave(rs), !hier);
        expect_model(ve, models::encode(ci), !hier);
        pu[static_cast<size_t>(branch)] = dump("pu" + b);
        expect_model(pu[static_cast<size_t>(branch)], models::puncture(ve, rate_index(branch == 0 ? c.rate_hp : c.rate_lp)), !hier);
    }
    const Bytes bi = dump("bi"), si = dump("si");
    ASSERT_EQ(bi, models::bit_interleave(pu[0], pu[1], v, hier));
    ASSERT_EQ(si, models::symbol_interleave(bi, c.idi ? 2 : c.mode));
    const Bytes ma_bytes = dump("ma");
    ASSERT_EQ(ma_bytes.size(), 8 * si.size());
    const std::vector<cd> ma = read_cells(ma_bytes), points = models::constellation(v, c.alpha);
    for (size_t i = 0; i < ma.size(); ++i) ASSERT_LT(std::abs(ma[i] - points[si[i]]), 1e-6) << "cell " << i;

    // TPS s17..s53 by frame number: length, frame, constellation, interleaving,
    // hierarchy, HP and LP rates, guard, mode, cell identifier byte, reserved.
    auto bits = [](int x, int n) {
        std::string b;
        for (int i = n - 1; i >= 0; --i) b += static_cast<char>('0' + (x >> i & 1));
        return b;
    };
    const std::vector<std::string> guards{"1/32", "1/16", "1/8", "1/4"};
    const int guard = static_cast<int>(std::find(guards.begin(), guards.end(), c.guard) - guards.begin());
    std::vector<std::string> tps;
    for (int f = 0; f < 4; ++f)
        tps.push_back(bits(c.cid < 0 ? 23 : 31, 6) + bits(f, 2) + bits(v / 2 - 1, 2) + bits(c.idi, 1) +
                      bits(c.alpha == 4 ? 3 : c.alpha, 2) + bits(rate_index(c.rate_hp), 3) +
                      bits(hier ? rate_index(c.rate_lp) : 0, 3) + bits(guard, 2) + bits(c.mode == 0 ? 0 : 3 - c.mode, 2) +
                      bits(c.cid < 0 ? 0 : (f % 2 == 0 ? c.cid >> 8 : c.cid) & 0xFF, 8) + "000000");
    const std::vector<cd> fd = read_cells(dump("fd"));
    ASSERT_EQ(fd.size(), ma.size() / static_cast<size_t>(kN[c.mode]) * static_cast<size_t>(kK[c.mode]));
    check_frame(fd, ma, c.mode, tps);
    const int guard_div = std::stoi(std::string(c.guard).substr(2));
    check_modulation(fd, read_cells(tu::read_file(dir / "x.bin")), c.mode, c.mapping, guard_div);
}

INSTANTIATE_TEST_SUITE_P(
    Runs, Chain,
    ::testing::Values(Case{"Nh2k64Qam7_8", 0, 6, 0, "7/8", "", "1/32", "0", false, "5", -1},
                      Case{"Nh4k16Qam3_4IdiInv", 1, 4, 0, "3/4", "", "1/8", "INV", true, "13", 0xABCD},
                      Case{"Nh8kQpsk1_2BB", 2, 2, 0, "1/2", "", "1/16", "BB", false, "7", 0x1234},
                      Case{"Nh2kQpsk5_6Idi", 0, 2, 0, "5/6", "", "1/4", "0", true, "19", 0},
                      Case{"Hier2k64QamAlpha2", 0, 6, 2, "2/3", "5/6", "1/32", "0", false, "11", -1},
                      Case{"Hier4kQpskRaisedAlpha4", 1, 2, 4, "1/2", "3/4", "1/16", "BB", false, "9", 255}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
