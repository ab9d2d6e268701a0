// Bit and symbol interleavers: known impulse responses, the address table,
// round trips through independent de-interleavers, block bounds and streaming.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <random>
#include <vector>

#include "frame/params.hpp"
#include "inner/inner_int.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::ByteRing;
using testutil::Verbose;

std::vector<uint8_t> random_bytes(size_t n, unsigned seed, unsigned mask) {
    std::mt19937 g(seed);
    std::vector<uint8_t> b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g() & mask);
    return b;
}

std::vector<uint8_t> read_back(FILE* f) {
    std::rewind(f);
    std::vector<uint8_t> r;
    for (int c; (c = std::fgetc(f)) != EOF;) r.push_back(static_cast<uint8_t>(c));
    return r;
}

void set_params(uint32_t mode, uint32_t M, uint32_t alpha, uint32_t idi) {
    dvbt_parms.mode = mode;
    dvbt_parms.M = M;
    dvbt_parms.alpha = alpha;
    dvbt_parms.idi = idi;
}

// ---- bit interleaver references ----

const int kShift[6] = {0, 63, 105, 42, 21, 84};
// Sub-stream of each bit of a group: non-hierarchical by v / 2 - 1, and the LP
// part of a hierarchical group (the two HP bits go to b0 and b1).
const std::vector<std::vector<int>> kDemuxNH{{0, 1}, {0, 2, 1, 3}, {0, 2, 4, 1, 3, 5}};
const std::vector<std::vector<int>> kDemuxLP{{}, {2, 3}, {2, 4, 3, 5}};

// Forward interleaver straight from the definition a_e,w = b_e,(w + shift_e) mod 126.
std::vector<uint8_t> ref_interleave(const std::vector<uint8_t>& hp, const std::vector<uint8_t>& lp,
                                    int M, bool hier) {
    const int v = 2 * (M + 1), lv = hier ? v - 2 : 0, hv = v - lv;
    std::vector<uint8_t> out;
    for (size_t blk = 0; (blk + 1) * 126 * hv <= hp.size(); blk++) {
        int b[6][126] = {};
        for (int k = 0; k < 126; k++) {
            for (int i = 0; i < hv; i++)
                b[hier ? i : kDemuxNH[M][i]][k] = hp[(blk * 126 + k) * hv + i];
            for (int i = 0; i < lv; i++) b[kDemuxLP[M][i]][k] = lp[(blk * 126 + k) * lv + i];
        }
        for (int w = 0; w < 126; w++) {
            int word = 0;
            for (int e = 0; e < v; e++) word |= b[e][(w + kShift[e]) % 126] << (v - 1 - e);
            out.push_back(static_cast<uint8_t>(word));
        }
    }
    return out;
}

// Inverse: words back to the HP (or only) and LP bit streams, undoing the
// cyclic shifts and then the demultiplexing.
void ref_deinterleave(const std::vector<uint8_t>& words, int M, bool hier, std::vector<uint8_t>& hp,
                      std::vector<uint8_t>& lp) {
    const int v = 2 * (M + 1);
    for (size_t blk = 0; blk * 126 < words.size(); blk++) {
        int b[6][126] = {};
        for (int w = 0; w < 126; w++)
            for (int e = 0; e < v; e++) {
                int pos = w + kShift[e];
                if (pos >= 126) pos -= 126;
                b[e][pos] = (words[blk * 126 + w] >> (v - 1 - e)) & 1;
            }
        for (int k = 0; k < 126; k++) {
            if (hier) {
                hp.push_back(static_cast<uint8_t>(b[0][k]));
                hp.push_back(static_cast<uint8_t>(b[1][k]));
                for (int e : kDemuxLP[M]) lp.push_back(static_cast<uint8_t>(b[e][k]));
            } else {
                for (int e : kDemuxNH[M]) hp.push_back(static_cast<uint8_t>(b[e][k]));
            }
        }
    }
}

// One block with a single 1 at the given bit of the HP or LP stream.
std::vector<uint8_t> impulse_block(int M, bool hier, bool on_lp, size_t bit) {
    set_params(0, static_cast<uint32_t>(M), hier ? 1 : 0, 0);
    const int v = 2 * (M + 1);
    const size_t hpn = hier ? 252 : 126 * static_cast<size_t>(v);
    const size_t lpn = hier ? 126 * static_cast<size_t>(v - 2) : 0;
    std::vector<uint8_t> hp(hpn, 0), lp(lpn, 0);
    (on_lp ? lp : hp).at(bit) = 1;
    ByteRing in_hp(static_cast<uint32_t>(hpn)), in_lp(std::max<uint32_t>(1, static_cast<uint32_t>(lpn))),
        out(126);
    in_hp.push(hp);
    in_lp.push(lp);
    EXPECT_EQ(bit_interleave(in_hp.v, hier ? in_lp.v : nullptr, out.v, 100000, nullptr), hpn);
    EXPECT_EQ(in_hp.v->fill, 0u);
    EXPECT_EQ(in_lp.v->fill, 0u);
    return out.pop_all();
}

void expect_only(const std::vector<uint8_t>& words, size_t pos, uint8_t value) {
    ASSERT_EQ(words.size(), 126u);
    for (size_t w = 0; w < words.size(); w++) EXPECT_EQ(words[w], w == pos ? value : 0) << "word " << w;
}

// ---- symbol interleaver references ----

// Address generator with the register kept as an integer whose bit j is R'[j].
std::vector<uint32_t> ref_addresses(int m) {
    static const int Nr[3] = {11, 12, 13};
    static const uint32_t Nmax[3] = {1512, 3024, 6048};
    static const int perm[3][12] = {{4, 3, 9, 6, 2, 8, 1, 5, 7, 0},
                                    {6, 3, 0, 9, 4, 2, 1, 8, 5, 10, 7},
                                    {7, 1, 4, 2, 9, 6, 8, 10, 0, 3, 11, 5}};
    static const uint32_t taps[3] = {0x9, 0x5, 0x53};  // R'[0]^R'[3]; R'[0]^R'[2]; R'[0,1,4,6]
    const int rb = Nr[m] - 1;
    std::vector<uint32_t> h;
    uint32_t reg = 0;
    for (uint32_t i = 0; i < (1u << Nr[m]); i++) {
        if (i == 2) reg = 1;
        if (i > 2) reg = (reg >> 1) | (static_cast<uint32_t>(std::popcount(reg & taps[m]) & 1) << (rb - 1));
        uint32_t a = (i & 1u) << rb;
        for (int j = 0; j < rb; j++) a |= ((reg >> j) & 1u) << perm[m][j];
        if (a < Nmax[m]) h.push_back(a);
    }
    return h;
}

// Expected output of consecutive blocks, the first with the given parity.
std::vector<uint8_t> ref_symint(const std::vector<uint8_t>& in, const std::vector<uint32_t>& h, int parity) {
    const size_t N = h.size();
    std::vector<uint8_t> out(in.size() / N * N);
    for (size_t b = 0; b < in.size() / N; b++, parity ^= 1)
        for (size_t q = 0; q < N; q++) {
            if (parity == 0)
                out[b * N + h[q]] = in[b * N + q];
            else
                out[b * N + q] = in[b * N + h[q]];
        }
    return out;
}

}  // namespace

// ===================== bit interleaver =====================

TEST(InnerBitInt, QpskImpulses) {
    expect_only(impulse_block(0, false, false, 0), 0, 2);
    expect_only(impulse_block(0, false, false, 1), 63, 1);
}

TEST(InnerBitInt, Qam64Impulse) { expect_only(impulse_block(2, false, false, 3), 63, 16); }

TEST(InnerBitInt, Hierarchical16FirstLpBit) {
    // Also checks 252 HP and 252 LP bits are taken (impulse_block asserts both empty).
    expect_only(impulse_block(1, true, true, 0), 21, 2);
}

TEST(InnerBitInt, Hierarchical64Shares) {
    Verbose vb;
    set_params(0, 2, 3, 0);
    ByteRing hp(600), lp(1200), out(400);
    hp.push(random_bytes(600, 1, 1));
    lp.push(random_bytes(1100, 2, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(bit_interleave(hp.v, lp.v, out.v, 100000, nullptr), 504u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_b : 504 samples\n");
    EXPECT_EQ(hp.v->fill, 600u - 504u);
    EXPECT_EQ(lp.v->fill, 1100u - 1008u);
    EXPECT_EQ(out.v->fill, 252u);
    // The LP ring bounds the next call: 92 LP bits are not a block.
    hp.push(random_bytes(400, 3, 1));
    EXPECT_EQ(bit_interleave(hp.v, lp.v, out.v, 100000, nullptr), 0u);
    lp.push(random_bytes(412, 4, 1));
    EXPECT_EQ(bit_interleave(hp.v, lp.v, out.v, 100000, nullptr), 252u);
    EXPECT_EQ(lp.v->fill, 0u);
}

TEST(InnerBitInt, WholeBlocksOnly) {
    Verbose vb;
    set_params(0, 0, 0, 0);
    ByteRing in(600), out(300);
    in.push(random_bytes(251, 5, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_b : 0 samples\n");
    EXPECT_EQ(in.v->fill, 251u);
    EXPECT_EQ(out.v->fill, 0u);
    in.push(random_bytes(1, 6, 1));
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 251, nullptr), 0u);  // maxlen below a block
    testing::internal::CaptureStdout();
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 252u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_b : 252 samples\n");
    EXPECT_EQ(out.v->fill, 126u);
    EXPECT_EQ(in.v->fill, 0u);

    in.push(random_bytes(504, 7, 1));
    out.v->fill = 300 - 125;  // 125 free
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(in.v->fill, 504u);
    out.v->fill = 300 - 126;
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 252u);

    // Early returns print nothing.
    testing::internal::CaptureStdout();
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);  // output full
    in.pop_all();
    out.v->fill = 0;
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);  // no input
    set_params(0, 1, 2, 0);
    ByteRing lp(10);
    in.push(random_bytes(300, 8, 1));
    EXPECT_EQ(bit_interleave(in.v, lp.v, out.v, 1000, nullptr), 0u);  // no LP input
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(InnerBitInt, RoundTripEveryConstellation) {
    struct Case {
        int M;
        bool hier;
    };
    const Case cases[] = {{0, false}, {1, false}, {2, false}, {1, true}, {2, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "M " << c.M << (c.hier ? " hierarchical" : " NH"));
        set_params(0, static_cast<uint32_t>(c.M), c.hier ? 3 : 0, 0);
        const int v = 2 * (c.M + 1);
        const size_t blocks = 23;
        const size_t hpn = blocks * 126 * (c.hier ? 2 : v), lpn = c.hier ? blocks * 126 * (v - 2) : 0;
        const std::vector<uint8_t> hp = random_bytes(hpn, 100 + c.M, 1), lp = random_bytes(lpn, 200 + c.M, 1);

        // Ring sizes that are no multiple of any block, started near their ends.
        ByteRing in_hp(1777, 1700), in_lp(2003, 1990), out(401, 399);
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        std::mt19937 g(c.M + 10);
        std::vector<uint8_t> words;
        size_t php = 0, plp = 0, consumed = 0;
        for (int guard = 0; words.size() < blocks * 126 && guard < 100000; guard++) {
            const size_t a = std::min<size_t>({in_hp.v->len - in_hp.v->fill, hpn - php, g() % 700});
            in_hp.push(hp.data() + php, a);
            php += a;
            if (c.hier) {
                const size_t b = std::min<size_t>({in_lp.v->len - in_lp.v->fill, lpn - plp, g() % 1300});
                in_lp.push(lp.data() + plp, b);
                plp += b;
            }
            const uint32_t fill_before = out.v->fill;
            const uint32_t n = bit_interleave(in_hp.v, c.hier ? in_lp.v : nullptr, out.v, 1 + g() % 2000, dump);
            consumed += n;
            EXPECT_EQ((out.v->fill - fill_before) * (c.hier ? 2u : static_cast<uint32_t>(v)), n);
            if (g() % 3 != 0) out.pop_into(words);
        }
        out.pop_into(words);
        ASSERT_EQ(words.size(), blocks * 126);
        EXPECT_EQ(consumed, hpn);
        EXPECT_EQ(read_back(dump), words);
        std::fclose(dump);

        EXPECT_EQ(words, ref_interleave(hp, lp, c.M, c.hier));
        std::vector<uint8_t> hp_back, lp_back;
        ref_deinterleave(words, c.M, c.hier, hp_back, lp_back);
        EXPECT_EQ(hp_back, hp);
        EXPECT_EQ(lp_back, lp);
    }
}

TEST(InnerBitInt, FollowsParametersAtEveryCall) {
    ByteRing in(2000), out(400);
    in.push(random_bytes(2000, 9, 1));
    set_params(0, 0, 0, 0);
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 100000, nullptr), 252u * 3);  // output bounds at 3
    out.pop_all();
    set_params(0, 2, 0, 0);
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 100000, nullptr), 756u);  // 1244 held: one 64-QAM block
}

// ===================== symbol interleaver =====================

TEST(InnerSymInt, TablePerMode) {
    const std::vector<std::vector<uint32_t>> start{
        {0, 1024, 16, 1025, 128, 1056, 2, 1280, 4, 1088, 513, 1160},
        {0, 2048, 64, 2176, 1024, 2080, 256, 2050, 4, 2064, 512, 2049},
        {0, 4096, 128, 4128, 2048, 4104, 1, 5120, 256, 4192, 2560, 4140},
    };
    for (uint32_t m = 0; m < 3; m++) {
        SCOPED_TRACE(m);
        set_params(m, 0, 0, 0);
        EXPECT_EQ(dvbSymIntAddrGenerate(), 0);
        const std::span<const uint32_t> h = dvbSymIntTable();
        const size_t N = static_cast<size_t>(dvbt_N[m]);
        ASSERT_EQ(h.size(), N);
        std::vector<int> seen(N, 0);
        for (uint32_t a : h) {
            ASSERT_LT(a, N);
            seen[a]++;
        }
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(N));
        EXPECT_EQ(std::vector<uint32_t>(h.begin(), h.begin() + 12), start[m]);
        EXPECT_EQ(std::vector<uint32_t>(h.begin(), h.end()), ref_addresses(static_cast<int>(m)));
    }
    // In-depth interleaving uses the 8k table in 2k and 4k; 8k ignores the flag.
    for (uint32_t m = 0; m < 3; m++) {
        set_params(m, 0, 0, 1);
        dvbSymIntAddrGenerate();
        const std::span<const uint32_t> h = dvbSymIntTable();
        EXPECT_EQ(std::vector<uint32_t>(h.begin(), h.end()), ref_addresses(2)) << m;
    }
}

TEST(InnerSymInt, EvenThenOddBlock2k) {
    ASSERT_EQ(dvbSymIntBlockNum(), 0) << "module state must be fresh (ctest runs each test alone)";
    set_params(0, 0, 0, 0);
    dvbSymIntAddrGenerate();
    ByteRing in(3024), out(3024);
    std::vector<uint8_t> blk(1512, 0);
    blk[1] = 1;
    blk[2] = 2;
    in.push(blk);
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 1512);
    EXPECT_EQ(dvbSymIntBlockNum(), 1);
    std::vector<uint8_t> got = out.pop_all();
    std::vector<uint8_t> want(1512, 0);
    want[1024] = 1;
    want[16] = 2;
    EXPECT_EQ(got, want);

    blk.assign(1512, 0);
    blk[1024] = 1;
    blk[16] = 2;
    in.push(blk);
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 1512);
    got = out.pop_all();
    want.assign(1512, 0);
    want[1] = 1;
    want[2] = 2;
    EXPECT_EQ(got, want);
}

TEST(InnerSymInt, ParityRunsOnAcrossCallsAndWraps) {
    for (uint32_t m = 0; m < 2; m++) {
        SCOPED_TRACE(m);
        set_params(m, 0, 0, 0);
        dvbSymIntAddrGenerate();
        const std::span<const uint32_t> table = dvbSymIntTable();
        const std::vector<uint32_t> h(table.begin(), table.end());
        const size_t N = h.size();
        // 2k: 70 blocks, so the counter wraps past 67 and the alternation goes on.
        const size_t blocks = m == 0 ? 70 : 5;
        const std::vector<uint8_t> data = random_bytes(blocks * N + 100, 30 + m, 0x3F);
        const int parity = dvbSymIntBlockNum() % 2;
        const int32_t start_num = dvbSymIntBlockNum();

        ByteRing in(static_cast<uint32_t>(N + N / 2 + 7), static_cast<uint32_t>(N)),
            out(static_cast<uint32_t>(2 * N + 3), static_cast<uint32_t>(2 * N));
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        std::mt19937 g(m + 40);
        std::vector<uint8_t> got;
        size_t pos = 0;
        for (int guard = 0; got.size() + out.v->fill < blocks * N && guard < 100000; guard++) {
            const size_t a = std::min<size_t>({in.v->len - in.v->fill, data.size() - pos, g() % N});
            in.push(data.data() + pos, a);
            pos += a;
            const int32_t n = symbol_interleave(in.v, out.v, static_cast<uint32_t>(N - 1 + g() % (2 * N)), dump);
            EXPECT_EQ(n % static_cast<int32_t>(N), 0);
            if (g() % 2 != 0) out.pop_into(got);
        }
        out.pop_into(got);
        ASSERT_EQ(got.size(), blocks * N);
        EXPECT_EQ(got, ref_symint(std::vector<uint8_t>(data.begin(), data.begin() + static_cast<long>(got.size())),
                                  h, parity));
        EXPECT_EQ(read_back(dump), got);
        std::fclose(dump);
        EXPECT_EQ(dvbSymIntBlockNum(), static_cast<int32_t>((start_num + blocks) % 68));
    }
}

TEST(InnerSymInt, InDepth2k) {
    Verbose vb;
    set_params(0, 0, 0, 1);
    dvbSymIntAddrGenerate();
    // Where input word 1 lands: H(1) in an even block, q with H(q) = 1 in an odd one.
    const std::span<const uint32_t> h = dvbSymIntTable();
    const bool even = dvbSymIntBlockNum() % 2 == 0;
    const size_t to = even ? h[1] : static_cast<size_t>(std::find(h.begin(), h.end(), 1u) - h.begin());
    if (even) {
        EXPECT_EQ(to, 4096u);
    }
    ByteRing in(8000), out(7000);
    std::vector<uint8_t> blk(6048, 0);
    blk[1] = 5;
    in.push(blk.data(), 1512);
    testing::internal::CaptureStdout();
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_s : 0 samples\n");
    in.push(blk.data() + 1512, 6048 - 1512);
    testing::internal::CaptureStdout();
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 6048);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_s : 6048 samples\n");
    const std::vector<uint8_t> got = out.pop_all();
    ASSERT_EQ(got.size(), 6048u);
    EXPECT_EQ(got[to], 5);
    EXPECT_EQ(std::count(got.begin(), got.end(), 5), 1);
}

TEST(InnerSymInt, BlockBounds) {
    Verbose vb;
    set_params(0, 0, 0, 0);
    dvbSymIntAddrGenerate();
    ByteRing in(4000), out(2000);
    in.push(random_bytes(3100, 50, 0x3F));
    out.v->fill = 2000 - 1511;  // N - 1 free
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);
    EXPECT_EQ(in.v->fill, 3100u);
    out.v->fill = 0;
    EXPECT_EQ(symbol_interleave(in.v, out.v, 1511, nullptr), 0);  // maxlen below a block
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 1512);  // room for one block only
    EXPECT_EQ(in.v->fill, 3100u - 1512u);
    testing::internal::CaptureStdout();
    out.v->fill = 2000;
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);  // output full
    out.v->fill = 0;
    in.pop_all();
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);  // input empty
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
