// Bit and symbol interleavers: known impulse responses, the address table,
// round trips through independent de-interleavers, block bounds and streaming.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <numeric>
#include <random>
#include <vector>

#include "inner/inner_int.hpp"
#include "ring_util.hpp"

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

const int kShift[6] = {0, 63, 105, 42, 21, 84};
// Sub-stream of each bit of a group: non-hierarchical by v / 2 - 1, and the LP
// part of a hierarchical group (the two HP bits go to b0 and b1).
const std::vector<std::vector<int>> kDemuxNH{{0, 1}, {0, 2, 1, 3}, {0, 2, 4, 1, 3, 5}};
const std::vector<std::vector<int>> kDemuxLP{{}, {2, 3}, {2, 4, 3, 5}};

// Words back to the HP (or only) and LP bit streams, undoing the cyclic shifts
// and then the demultiplexing.
void ref_deinterleave(const std::vector<uint8_t>& words, int M, bool hier, std::vector<uint8_t>& hp,
                      std::vector<uint8_t>& lp) {
    const int v = 2 * (M + 1);
    for (size_t blk = 0; blk * 126 < words.size(); blk++) {
        int b[6][126] = {};
        for (int w = 0; w < 126; w++)
            for (int e = 0; e < v; e++) b[e][(w + kShift[e]) % 126] = (words[blk * 126 + w] >> (v - 1 - e)) & 1;
        for (int k = 0; k < 126; k++) {
            if (hier) {
                hp.push_back(static_cast<uint8_t>(b[0][k]));
                hp.push_back(static_cast<uint8_t>(b[1][k]));
            }
            for (int e : hier ? kDemuxLP[M] : kDemuxNH[M]) (hier ? lp : hp).push_back(static_cast<uint8_t>(b[e][k]));
        }
    }
}

// One block whose only 1 is the given bit of the HP or LP stream; both inputs
// must be used up.
std::vector<uint8_t> impulse_block(uint32_t M, bool hier, bool on_lp, size_t bit) {
    set_params(0, M, hier ? 1 : 0, 0);
    const uint32_t v = 2 * (M + 1), hpn = hier ? 252 : 126 * v, lpn = hier ? 126 * (v - 2) : 0;
    std::vector<uint8_t> hp(hpn, 0), lp(lpn, 0);
    (on_lp ? lp : hp).at(bit) = 1;
    ByteRing in_hp(hpn), in_lp(std::max(lpn, 1u)), out(126);
    in_hp.push(hp);
    in_lp.push(lp);
    EXPECT_EQ(bit_interleave(in_hp.v, hier ? in_lp.v : nullptr, out.v, 100000, nullptr), hpn);
    EXPECT_EQ(in_hp.v->fill, 0u);
    EXPECT_EQ(in_lp.v->fill, 0u);
    return out.pop_all();
}

std::vector<uint8_t> one_hot(size_t pos, uint8_t value) {
    std::vector<uint8_t> w(126, 0);
    w[pos] = value;
    return w;
}

// Address generator with the register kept as an integer whose bit j is R'[j].
std::vector<uint32_t> ref_addresses(uint32_t m) {
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

std::vector<uint32_t> table() {
    const std::span<const uint32_t> h = dvbSymIntTable();
    return {h.begin(), h.end()};
}

}  // namespace

// ===================== bit interleaver =====================

TEST(InnerBitInt, Impulses) {
    EXPECT_EQ(impulse_block(0, false, false, 0), one_hot(0, 2));
    EXPECT_EQ(impulse_block(0, false, false, 1), one_hot(63, 1));
    EXPECT_EQ(impulse_block(2, false, false, 3), one_hot(63, 16));
    EXPECT_EQ(impulse_block(1, true, true, 0), one_hot(21, 2));  // 252 HP and 252 LP bits a block
}

TEST(InnerBitInt, BlockBoundsAndHierarchicalShares) {
    Verbose vb;
    set_params(0, 0, 0, 0);
    ByteRing in(600), out(300);
    in.push(random_bytes(251, 5, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);
    in.push(uint8_t{1});
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 251, nullptr), 0u);  // maxlen below a block
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 252u);
    EXPECT_EQ(out.v->fill, 126u);
    in.push(random_bytes(504, 7, 1));
    out.v->fill = 300 - 125;  // 125 free
    EXPECT_EQ(bit_interleave(in.v, nullptr, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(in.v->fill, 504u);
    // Hierarchical 64-QAM: 252 HP and 504 LP bits a block.
    set_params(0, 2, 3, 0);
    ByteRing hp(600), lp(1200), words(400);
    hp.push(random_bytes(600, 1, 1));
    lp.push(random_bytes(1100, 2, 1));
    EXPECT_EQ(bit_interleave(hp.v, lp.v, words.v, 100000, nullptr), 504u);
    EXPECT_EQ(hp.v->fill, 600u - 504u);
    EXPECT_EQ(lp.v->fill, 1100u - 1008u);
    EXPECT_EQ(words.v->fill, 252u);
    hp.push(random_bytes(400, 3, 1));
    EXPECT_EQ(bit_interleave(hp.v, lp.v, words.v, 100000, nullptr), 0u);  // 92 LP bits are no block
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Inner_int_b : 0 samples\nInner_int_b : 0 samples\nInner_int_b : 252 samples\n"
              "Inner_int_b : 0 samples\nInner_int_b : 504 samples\nInner_int_b : 0 samples\n");
    // Early returns print nothing.
    testing::internal::CaptureStdout();
    lp.pop_all();
    EXPECT_EQ(bit_interleave(hp.v, lp.v, words.v, 1000, nullptr), 0u);  // no LP input
    lp.push(random_bytes(600, 4, 1));
    words.v->fill = 400;
    EXPECT_EQ(bit_interleave(hp.v, lp.v, words.v, 1000, nullptr), 0u);  // output full
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(InnerBitInt, RoundTripEveryConstellationAcrossWraps) {
    const std::pair<int, bool> cases[] = {{0, false}, {1, false}, {2, false}, {1, true}, {2, true}};
    for (const auto& [M, hier] : cases) {
        SCOPED_TRACE(testing::Message() << "M " << M << (hier ? " hierarchical" : " NH"));
        set_params(0, static_cast<uint32_t>(M), hier ? 3 : 0, 0);
        const size_t v = 2 * static_cast<size_t>(M + 1), blocks = 23;
        const size_t hpn = blocks * 126 * (hier ? 2 : v), lpn = hier ? blocks * 126 * (v - 2) : 0;
        const std::vector<uint8_t> hp = random_bytes(hpn, 100 + M, 1), lp = random_bytes(lpn, 200 + M, 1);
        // Ring sizes that are no multiple of any block, started near their ends.
        ByteRing in_hp(1777, 1700), in_lp(2003, 1990), out(401, 399);
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        std::mt19937 g(M + 10);
        std::vector<uint8_t> words;
        size_t php = 0, plp = 0, consumed = 0;
        for (int guard = 0; words.size() < blocks * 126 && guard < 100000; guard++) {
            const size_t a = std::min<size_t>({in_hp.v->len - in_hp.v->fill, hpn - php, g() % 700});
            in_hp.push(hp.data() + php, a);
            php += a;
            const size_t b = std::min<size_t>({in_lp.v->len - in_lp.v->fill, lpn - plp, g() % 1300});
            in_lp.push(lp.data() + plp, b);
            plp += b;
            consumed += bit_interleave(in_hp.v, hier ? in_lp.v : nullptr, out.v, 1 + g() % 2000, dump);
            if (g() % 3 != 0) out.pop_into(words);
        }
        out.pop_into(words);
        ASSERT_EQ(words.size(), blocks * 126);
        EXPECT_EQ(consumed, hpn);
        EXPECT_EQ(read_back(dump), words);
        std::fclose(dump);
        std::vector<uint8_t> hp_back, lp_back;
        ref_deinterleave(words, M, hier, hp_back, lp_back);
        EXPECT_EQ(hp_back, hp);
        EXPECT_EQ(lp_back, lp);
    }
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
        const std::vector<uint32_t> h = table();
        std::vector<uint32_t> sorted(h), all(static_cast<size_t>(dvbt_N[m]));
        std::sort(sorted.begin(), sorted.end());
        std::iota(all.begin(), all.end(), 0u);
        EXPECT_EQ(sorted, all);
        ASSERT_GE(h.size(), 12u);
        EXPECT_EQ(std::vector<uint32_t>(h.begin(), h.begin() + 12), start[m]);
        EXPECT_EQ(h, ref_addresses(m));
        // In-depth interleaving uses the 8k table in every mode.
        set_params(m, 0, 0, 1);
        dvbSymIntAddrGenerate();
        EXPECT_EQ(table(), ref_addresses(2));
    }
}

TEST(InnerSymInt, ParityRunsOnAcrossCallsAndWraps) {
    ASSERT_EQ(dvbSymIntBlockNum(), 0) << "module state must be fresh (ctest runs each test alone)";
    set_params(0, 0, 0, 0);
    dvbSymIntAddrGenerate();
    const std::vector<uint32_t> h = table();
    const uint32_t N = 1512, blocks = 70;  // the counter wraps past 67 and the alternation goes on
    ASSERT_EQ(h.size(), N);
    const std::vector<uint8_t> data = random_bytes(blocks * N + 100, 30, 0x3F);
    ByteRing in(N + N / 2 + 7, N), out(2 * N + 3, 2 * N);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    std::mt19937 g(40);
    std::vector<uint8_t> got;
    size_t pos = 0;
    for (int guard = 0; got.size() + out.v->fill < blocks * N && guard < 100000; guard++) {
        const size_t a = std::min<size_t>({in.v->len - in.v->fill, data.size() - pos, g() % N});
        in.push(data.data() + pos, a);
        pos += a;
        EXPECT_EQ(symbol_interleave(in.v, out.v, N - 1 + g() % (2 * N), dump) % N, 0u);
        if (g() % 2 != 0) out.pop_into(got);
    }
    out.pop_into(got);
    ASSERT_EQ(got.size(), blocks * N);
    EXPECT_EQ(read_back(dump), got);
    std::fclose(dump);
    // Even blocks: output word H(q) is input word q; odd: output word q is input word H(q).
    std::vector<uint8_t> want(got.size());
    for (size_t i = 0; i < want.size(); i++) {
        const size_t base = i / N * N, q = i % N;
        if (i / N % 2 == 0)
            want[base + h[q]] = data[i];
        else
            want[i] = data[base + h[q]];
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ(dvbSymIntBlockNum(), static_cast<int32_t>(blocks % 68));
}

TEST(InnerSymInt, InDepth2kAndBlockBounds) {
    ASSERT_EQ(dvbSymIntBlockNum(), 0) << "module state must be fresh (ctest runs each test alone)";
    Verbose vb;
    set_params(0, 0, 0, 1);
    dvbSymIntAddrGenerate();
    ByteRing in(14000), out(7000);
    std::vector<uint8_t> blk(6048, 0);
    blk[1] = 5;
    in.push(blk.data(), 1512);
    testing::internal::CaptureStdout();
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);
    in.push(blk.data() + 1512, 6048 - 1512);
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 6048);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_int_s : 0 samples\nInner_int_s : 6048 samples\n");
    const std::vector<uint8_t> got = out.pop_all();
    ASSERT_EQ(got.size(), 6048u);
    EXPECT_EQ(got[4096], 5);
    EXPECT_EQ(std::count(got.begin(), got.end(), 5), 1);

    in.push(random_bytes(12200, 50, 0x3F));
    out.v->fill = 7000 - 6047;  // N - 1 free
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);
    out.v->fill = 0;
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 6048);  // room for one block only
    testing::internal::CaptureStdout();
    out.v->fill = 7000;
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);  // output full
    out.v->fill = 0;
    in.pop_all();
    EXPECT_EQ(symbol_interleave(in.v, out.v, 100000, nullptr), 0);  // input empty
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
