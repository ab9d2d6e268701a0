// Convolutional encoder and puncturer: impulse responses, an independent
// bit-by-bit encoder, puncturing patterns and the streaming rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

#include "inner/inner_coder.hpp"
#include "ring_util.hpp"

namespace {

using testutil::ByteRing;
using testutil::Verbose;

// K = 7 encoder kept as a delay line d[1..6] of past input bits.
// G1 = 171 octal: X = u + d1 + d2 + d3 + d6; G2 = 133 octal: Y = u + d2 + d3 + d5 + d6.
std::vector<uint8_t> ref_encode(const std::vector<uint8_t>& in) {
    int d[7] = {};
    std::vector<uint8_t> out;
    for (uint8_t b : in)
        for (int k = 7; k >= 0; k--) {
            const int u = (b >> k) & 1;
            out.push_back(static_cast<uint8_t>(u ^ d[1] ^ d[2] ^ d[3] ^ d[6]));
            out.push_back(static_cast<uint8_t>(u ^ d[2] ^ d[3] ^ d[5] ^ d[6]));
            for (int j = 6; j > 1; j--) d[j] = d[j - 1];
            d[1] = u;
        }
    return out;
}

std::vector<uint8_t> encode_once(const std::vector<uint8_t>& in, uint32_t* st) {
    ByteRing i(static_cast<uint32_t>(in.size())), o(static_cast<uint32_t>(16 * in.size()));
    i.push(in);
    EXPECT_EQ(encode27(i.v, o.v, st, 1000000, nullptr), static_cast<int32_t>(in.size()));
    return o.pop_all();
}

// Kept input positions per period, in transmitted order X1 Y1 X2 Y2 ...
const std::vector<std::vector<int>> kKept{
    {0, 1}, {0, 1, 3}, {0, 1, 3, 4}, {0, 1, 3, 4, 7, 8}, {0, 1, 3, 5, 7, 8, 11, 12}};
const int kPeriod[5] = {2, 4, 6, 10, 14};

std::vector<uint8_t> random_bytes(size_t n, unsigned seed, unsigned mask) {
    std::mt19937 g(seed);
    std::vector<uint8_t> b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g() & mask);
    return b;
}

// Feeds data in random chunks through rings started near their ends, calling
// stage with a random maxlen; returns the output and checks the dump equals it.
template <typename Stage>
std::vector<uint8_t> stream(const std::vector<uint8_t>& data, uint32_t in_len, uint32_t out_len, Stage stage) {
    std::mt19937 g(in_len + out_len);
    ByteRing in(in_len, in_len - 7), out(out_len, out_len - 7);
    FILE* dump = std::tmpfile();
    if (dump == nullptr) return {};
    std::vector<uint8_t> got;
    for (size_t pos = 0; pos < data.size() || in.v->fill > 0;) {
        const size_t n = std::min<size_t>({in.v->len - in.v->fill, data.size() - pos, g() % 30});
        in.push(data.data() + pos, n);
        pos += n;
        EXPECT_GE(stage(in.v, out.v, static_cast<uint32_t>(g() % 40), dump), 0);
        out.pop_into(got);
    }
    std::rewind(dump);
    std::vector<uint8_t> dumped(got.size() + 1);
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
    std::fclose(dump);
    EXPECT_EQ(dumped, got);
    return got;
}

}  // namespace

TEST(OuterConvEnc, ImpulseAndStateCarryOver) {
    const std::vector<uint8_t> resp{1, 1, 1, 0, 1, 1, 1, 1, 0, 0, 0, 1, 1, 1, 0, 0};
    uint32_t st = 0;
    EXPECT_EQ(encode_once({0x80}, &st), resp);
    EXPECT_EQ(st, 0x80u);
    init_convenc(&st, 0);
    EXPECT_EQ(encode_once({0x00, 0x00}, &st), std::vector<uint8_t>(32, 0));
    std::vector<uint8_t> want(14, 0);
    want.insert(want.end(), resp.begin(), resp.end());
    want.resize(32, 0);
    EXPECT_EQ(encode_once({0x01, 0x00}, &st), want);
}

TEST(OuterConvEnc, MatchesBitwiseReferenceAcrossCallsAndWraps) {
    const std::vector<uint8_t> data = random_bytes(5000, 21, 0xFF);
    uint32_t st = 0;
    // 16-bit blocks straddle the end of an 87-element output ring.
    EXPECT_EQ(stream(data, 37, 16 * 5 + 7,
                     [&](dvbVect* i, dvbVect* o, uint32_t m, FILE* d) { return encode27(i, o, &st, m % 8, d); }),
              ref_encode(data));
}

TEST(OuterConvEnc, PuncturePatternsAcrossCallsAndWraps) {
    for (uint16_t r = 0; r < 5; r++) {
        const std::vector<uint8_t> bits = random_bytes(static_cast<size_t>(kPeriod[r]) * 300, 40 + r, 1);
        std::vector<uint8_t> want;
        for (size_t p = 0; p < 300; p++)
            for (int k : kKept[r]) want.push_back(bits[p * kPeriod[r] + k]);
        EXPECT_EQ(stream(bits, 53, 29,
                         [&](dvbVect* i, dvbVect* o, uint32_t m, FILE* d) {
                             const int32_t c = puncture(i, o, r, m, d);
                             EXPECT_EQ(c % kPeriod[r], 0);
                             return c;
                         }),
                  want)
            << "rate index " << r;
    }
}

TEST(OuterConvEnc, WholeUnitsBoundsAndMessages) {
    Verbose v;
    uint32_t st = 0;
    ByteRing in(40), out(40);
    in.push({0xAB, 0xCD, 0xEF});
    out.v->fill = 25;  // 15 free
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);
    EXPECT_EQ(in.v->fill, 3u);
    out.v->fill = 24;  // 16 free
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 1);
    out.v->fill = 0;
    EXPECT_EQ(encode27(in.v, out.v, &st, 1, nullptr), 1);
    in.pop_all();
    out.pop_all();
    // Puncturer at 7/8: 13 bits wait, the 14th lets one period through.
    const std::vector<uint8_t> bits = random_bytes(28, 3, 1);
    in.push(bits.data(), 13);
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);
    in.push(bits.data() + 13, 1);
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 14);
    in.push(bits.data() + 14, 14);
    EXPECT_EQ(puncture(in.v, out.v, 4, 13, nullptr), 0);  // maxlen below a period
    out.v->fill = 33;  // 7 free, a period needs 8
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);
    out.v->fill = 32;
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 14);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Inner_coder1: 0 samples\nInner_coder1: 1 samples\nInner_coder1: 1 samples\n"
              "Inner_coder2: 0 samples\nInner_coder2: 14 samples\nInner_coder2: 0 samples\n"
              "Inner_coder2: 0 samples\nInner_coder2: 14 samples\n");
    // Early returns print nothing.
    testing::internal::CaptureStdout();
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);   // input empty
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);  // input empty
    in.push(uint8_t{0xAB});
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);  // output full
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
