// Whole runs of the executable over a spread of configurations, every dump
// selected. Each dump is recomputed from the previous stage's dump with a model
// written from the standard's definitions (scrambler, code polynomials,
// interleaver formulas, Gray labelling, frame structure, an exact transform),
// and the dumps' sizes must follow from one another record for record. Odd
// batch sizes make every ring wrap at odd places; -c 0 starts the outer
// interleaver from zeros so that its output is determined. And every file of
// the run is byte for byte what the transmitter wrote before its kernels were
// rewritten: a listing of name, size and 64-bit FNV-1a digest per file is
// digested, and a failure prints the listing.

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <complex>
#include <cstring>
#include <ostream>

#include "models.hpp"
#include "util.hpp"

namespace {

using tu::Bytes;
using cd = std::complex<double>;

struct Case {
    const char* name;
    std::vector<std::string> args;  // the transmission options
    uint64_t digest;                // of the listing of every file of the run
};

// The value of an option as the parser takes it (the first occurrence), or the default.
std::string opt(const Case& c, const std::string& name, const std::string& otherwise) {
    const auto it = std::find(c.args.begin(), c.args.end(), name);
    return it == c.args.end() ? otherwise : name == "-idi" ? "yes" : *(it + 1);
}

uint64_t fnv1a(const Bytes& data) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : data) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

// "name size digest" for every file of the run but its inputs and logs, sorted by name.
std::string listing(const std::filesystem::path& dir) {
    std::vector<std::string> lines;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        if (name == "hp.ts" || name == "lp.ts" || name == "test.log" || name == "err.txt") continue;
        const Bytes data = tu::read_file(e.path());
        char buf[160];
        std::snprintf(buf, sizeof buf, "%s %zu %016" PRIx64 "\n", name.c_str(), data.size(), fnv1a(data));
        lines.emplace_back(buf);
    }
    std::sort(lines.begin(), lines.end());
    std::string all;
    for (const auto& l : lines) all += l;
    return all;
}

const int kF[] = {2048, 4096, 8192}, kK[] = {1705, 3409, 6817};
using models::kN;

// The position of a value among an option's names: its code.
int code(const std::vector<std::string>& names, const std::string& value) {
    return static_cast<int>(std::find(names.begin(), names.end(), value) - names.begin());
}
const std::vector<std::string> kRates{"1/2", "2/3", "3/4", "5/6", "7/8"};

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
    std::vector<std::complex<float>> f(b.size() / 8);
    std::memcpy(f.data(), b.data(), 8 * f.size());
    return {f.begin(), f.end()};
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
    EXPECT_EQ((std::vector<size_t>(cp.begin(), cp.begin() + 9)),
              (std::vector<size_t>{0, 48, 54, 87, 141, 156, 192, 201, 255}));
    EXPECT_EQ(cp.back(), K - 1);
    EXPECT_EQ((std::vector<size_t>(tc.begin(), tc.begin() + 8)),
              (std::vector<size_t>{34, 50, 209, 346, 413, 569, 595, 688}));
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
    const size_t F = static_cast<size_t>(kF[mode]), K = static_cast<size_t>(kK[mode]),
                 G = F / static_cast<size_t>(guard_div);
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
    ASSERT_TRUE(whole ? dump == model
                      : !dump.empty() && dump.size() <= model.size() &&
                            std::equal(dump.begin(), dump.end(), model.begin()))
        << dump.size() << " bytes dumped, " << model.size() << " modelled";
}

class Chain : public ::testing::TestWithParam<Case> {};

TEST_P(Chain, EveryDumpFollowsFromThePreviousOneAndNoByteChanged) {
    const Case& c = GetParam();
    const int mode = code({"2k", "4k", "8k"}, opt(c, "-m", "2k")),
              hierarchy = code({"NH", "1", "2", "4"}, opt(c, "-a", "NH"));
    const int alpha = hierarchy == 3 ? 4 : hierarchy,
              guard = code({"1/32", "1/16", "1/8", "1/4"}, opt(c, "-D", "1/32"));
    const bool hier = alpha != 0, idi = opt(c, "-idi", "no") == "yes" && mode != 2;
    const int rate_hp = code(kRates, opt(c, hier ? "-php" : "-p", "1/2")),
              rate_lp = code(kRates, opt(c, "-plp", "1/2"));
    const int cid = std::stoi(opt(c, "-cid", "-1"));
    tu::TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "hp.ts", "-n", "1200"}).status, 0);
    tu::write_file(dir / "lp.ts", tu::make_ts(1200, 9));
    std::vector<std::string> args = c.args;
    if (hier) args.insert(args.end(), {"-ihp", "hp.ts", "-ilp", "lp.ts"});
    else args.insert(args.end(), {"-i", "hp.ts"});
    args.insert(args.end(), {"-o", "x", "-d", "ercvpbsmft", "-v", "0"});
    ASSERT_EQ(tu::tervane(dir.path, args).status, 0);
    const std::string files = listing(dir.path);
    EXPECT_EQ(fnv1a(Bytes(files.begin(), files.end())), c.digest) << files;
    auto dump = [&](const std::string& suffix) { return tu::read_file(dir / ("x_" + suffix + ".bin")); };

    const int requested = 2 + 2 * code({"4", "16", "64"}, opt(c, "-M", "4"));
    const int v = hier && requested == 2 ? 4 : requested;  // hierarchical QPSK runs as 16-QAM
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
        if (opt(c, "-c", "rand") == "0") expect_model(ci, models::outer_interleave(rs), !hier);
        expect_model(ve, models::encode(ci), !hier);
        pu[static_cast<size_t>(branch)] = dump("pu" + b);
        expect_model(pu[static_cast<size_t>(branch)], models::puncture(ve, branch == 0 ? rate_hp : rate_lp), !hier);
    }
    const Bytes bi = dump("bi"), si = dump("si");
    ASSERT_EQ(bi, models::bit_interleave(pu[0], pu[1], v, hier));
    ASSERT_EQ(si, models::symbol_interleave(bi, idi ? 2 : mode));
    const Bytes ma_bytes = dump("ma");
    ASSERT_EQ(ma_bytes.size(), 8 * si.size());
    const std::vector<cd> ma = read_cells(ma_bytes), points = models::constellation(v, alpha);
    for (size_t i = 0; i < ma.size(); ++i) ASSERT_LT(std::abs(ma[i] - points[si[i]]), 1e-6) << "cell " << i;

    // TPS s17..s53 by frame number: length, frame, constellation, interleaving,
    // hierarchy, HP and LP rates, guard, mode, cell identifier byte, reserved.
    auto bits = [](int x, int n) {
        std::string b;
        for (int i = n - 1; i >= 0; --i) b += static_cast<char>('0' + (x >> i & 1));
        return b;
    };
    std::vector<std::string> tps;
    for (int f = 0; f < 4; ++f)
        tps.push_back(bits(cid < 0 ? 23 : 31, 6) + bits(f, 2) + bits(v / 2 - 1, 2) + bits(idi, 1) + bits(hierarchy, 2) +
                      bits(rate_hp, 3) + bits(hier ? rate_lp : 0, 3) + bits(guard, 2) +
                      bits(mode == 0 ? 0 : 3 - mode, 2) + bits(cid < 0 ? 0 : (f % 2 == 0 ? cid >> 8 : cid) & 0xFF, 8) +
                      "000000");
    const std::vector<cd> fd = read_cells(dump("fd"));
    ASSERT_EQ(fd.size(), ma.size() / static_cast<size_t>(kN[mode]) * static_cast<size_t>(kK[mode]));
    check_frame(fd, ma, mode, tps);
    if (opt(c, "-F", "std") == "std" && opt(c, "-I", "1x") == "1x")
        check_modulation(fd, read_cells(tu::read_file(dir / "x.bin")), mode, opt(c, "-f", "0"), 32 >> guard);
}

INSTANTIATE_TEST_SUITE_P(
    Runs, Chain,
    ::testing::Values(
        Case{"Default2kQpsk", {}, 0x92d61e2ff6a83214ull},
        Case{"Nh2k64Qam7_8Band5Agi",
             {"-M", "64", "-p", "7/8", "-D", "1/16", "-b", "5", "-F", "agi", "-g", "2.5", "-s", "5", "-c", "0"},
             0x5355221b7b12127full},
        Case{"Nh4k16Qam3_4IdiInv",
             {"-m", "4k", "-M", "16", "-p", "3/4", "-D", "1/8", "-idi", "-f", "INV", "-s", "13", "-cid", "43981", "-c",
              "0"},
             0xe201f4c5e16090c0ull},
        Case{"Nh8k64QamBB2x",
             {"-m", "8k", "-M", "64", "-p", "2/3", "-D", "1/4", "-f", "BB", "-I", "2x", "-s", "37", "-c", "0"},
             0x5341cfc6b20c9619ull},
        Case{"Nh8kQpsk1_2BB",
             {"-m", "8k", "-p", "1/2", "-D", "1/16", "-f", "BB", "-s", "7", "-cid", "4660", "-c", "0"},
             0x8daf60013ba578b7ull},
        Case{"Nh2kQpsk5_6Idi4xBand6",
             {"-p", "5/6", "-D", "1/4", "-idi", "-I", "4x", "-b", "6", "-cid", "0", "-c", "0", "-s", "1000"},
             0xe1564b88cd90a227ull},
        Case{"Hier2k64QamAlpha2",
             {"-a", "2", "-M", "64", "-php", "2/3", "-plp", "5/6", "-s", "11", "-c", "0"},
             0xd4682ed1e67bae56ull},
        Case{"Hier8k64QamAlpha2_4xAgiold",
             {"-a",   "2",  "-m", "8k", "-M",     "64",   "-php", "1/2", "-plp", "3/4", "-D",
              "1/16", "-I", "4x", "-F", "agiold", "-cid", "4660", "-s",  "19",   "-c",  "0"},
             0xb2911a3d73617abdull},
        Case{"Hier2kQpskRaisedAlpha1Band7",
             {"-a", "1", "-php", "2/3", "-plp", "5/6", "-b", "7", "-s", "7", "-c", "0"},
             0x30f32c7aca2157b7ull},
        Case{"Hier4kQpskRaisedAlpha4BB",
             {"-a", "4", "-m", "4k", "-php", "1/2", "-plp", "3/4", "-D", "1/16", "-f", "BB", "-s", "9", "-cid", "255",
              "-c", "0"},
             0x726364dfe479e0e5ull},
        Case{"Hier4k16QamAlpha4Inv",
             {"-a", "4", "-m", "4k", "-M", "16", "-php", "7/8", "-plp", "1/2", "-f", "INV", "-s", "11"},
             0xe5a20cb505a3e7c9ull}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
