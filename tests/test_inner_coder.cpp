// Convolutional encoder and puncturer: impulse responses, an independent
// bit-by-bit encoder, puncturing patterns and the streaming rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

#include "frame/params.hpp"
#include "inner/inner_coder.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::ByteRing;
using testutil::Verbose;

// K = 7 encoder kept as a delay line d[1..6] of past input bits.
// G1 = 171 octal: X = u + d1 + d2 + d3 + d6; G2 = 133 octal: Y = u + d2 + d3 + d5 + d6.
struct RefEncoder {
    int d[7] = {};
    void bit(int u, std::vector<uint8_t>& out) {
        out.push_back(static_cast<uint8_t>(u ^ d[1] ^ d[2] ^ d[3] ^ d[6]));
        out.push_back(static_cast<uint8_t>(u ^ d[2] ^ d[3] ^ d[5] ^ d[6]));
        for (int k = 6; k > 1; k--) d[k] = d[k - 1];
        d[1] = u;
    }
    std::vector<uint8_t> bytes(const std::vector<uint8_t>& in) {
        std::vector<uint8_t> out;
        for (uint8_t b : in)
            for (int k = 7; k >= 0; k--) bit((b >> k) & 1, out);
        return out;
    }
};

std::vector<uint8_t> encode_once(const std::vector<uint8_t>& in, uint32_t* st) {
    ByteRing i(static_cast<uint32_t>(in.size())), o(static_cast<uint32_t>(16 * in.size()));
    i.push(in);
    EXPECT_EQ(encode27(i.v, o.v, st, 1000000, nullptr), static_cast<int32_t>(in.size()));
    return o.pop_all();
}

// Kept input positions per period, in transmitted order X1 Y1 X2 Y2 ...
const std::vector<std::vector<int>> kKept{
    {0, 1},                       // 1/2: X1 Y1
    {0, 1, 3},                    // 2/3: X1 Y1 Y2
    {0, 1, 3, 4},                 // 3/4: X1 Y1 Y2 X3
    {0, 1, 3, 4, 7, 8},           // 5/6: X1 Y1 Y2 X3 Y4 X5
    {0, 1, 3, 5, 7, 8, 11, 12},   // 7/8: X1 Y1 Y2 Y3 Y4 X5 Y6 X7
};
const int kPeriod[5] = {2, 4, 6, 10, 14};

std::vector<uint8_t> random_bits(size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<uint8_t> b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g() & 1);
    return b;
}

}  // namespace

TEST(OuterConvEnc, ParityTable) {
    for (unsigned v = 0; v < 256; v++) {
        unsigned ones = 0;
        for (unsigned b = 0; b < 8; b++) ones += (v >> b) & 1;
        EXPECT_EQ(Partab[v], ones % 2) << v;
    }
}

TEST(OuterConvEnc, ImpulseResponse) {
    uint32_t st = 0;
    init_convenc(&st, 0);
    const std::vector<uint8_t> want{1, 1, 1, 0, 1, 1, 1, 1, 0, 0, 0, 1, 1, 1, 0, 0};
    EXPECT_EQ(encode_once({0x80}, &st), want);
    EXPECT_EQ(st, 0x80u);
}

TEST(OuterConvEnc, StateCarriesOverBytes) {
    uint32_t st = 0;
    EXPECT_EQ(encode_once({0x00, 0x00}, &st), std::vector<uint8_t>(32, 0));
    std::vector<uint8_t> want(14, 0);
    const std::vector<uint8_t> tail{1, 1, 1, 0, 1, 1, 1, 1, 0, 0, 0, 1, 1, 1, 0, 0, 0, 0};
    want.insert(want.end(), tail.begin(), tail.end());
    EXPECT_EQ(encode_once({0x01, 0x00}, &st), want);
    // The register word is never masked: it keeps every byte shifted in.
    init_convenc(&st, 0x12345678u);
    encode_once({0x9A}, &st);
    EXPECT_EQ(st, 0x3456789Au);
}

TEST(OuterConvEnc, RoomForOneByteAndLimits) {
    Verbose v;
    uint32_t st = 0;
    ByteRing in(10), out(40);
    in.push({0xAB, 0xCD, 0xEF});
    out.v->fill = 25;  // 15 free
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_coder1: 0 samples\n");
    EXPECT_EQ(in.v->fill, 3u);
    out.v->fill = 24;  // 16 free
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_coder1: 1 samples\n");
    out.v->fill = 0;
    EXPECT_EQ(encode27(in.v, out.v, &st, 1, nullptr), 1);
    EXPECT_EQ(encode27(in.v, out.v, &st, 0, nullptr), 0);
    out.v->fill = 40;
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);
    in.pop_all();
    out.v->fill = 0;
    EXPECT_EQ(encode27(in.v, out.v, &st, 10, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(OuterConvEnc, MatchesBitwiseReferenceAcrossCallsAndWraps) {
    std::mt19937 g(21);
    std::vector<uint8_t> data(5000);
    for (auto& x : data) x = static_cast<uint8_t>(g());
    RefEncoder ref;
    const std::vector<uint8_t> want = ref.bytes(data);

    uint32_t st = 0;
    ByteRing in(37, 30), out(16 * 5 + 7, 80);  // 16-bit blocks straddle the output end
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    std::vector<uint8_t> got;
    size_t pos = 0;
    while (pos < data.size() || in.v->fill > 0) {
        const size_t n = std::min<size_t>(
            {in.v->len - in.v->fill, data.size() - pos, static_cast<size_t>(g() % 20)});
        in.push(data.data() + pos, n);
        pos += n;
        const int32_t c = encode27(in.v, out.v, &st, g() % 8, dump);
        EXPECT_GE(c, 0);
        out.pop_into(got);
    }
    EXPECT_EQ(got, want);
    std::rewind(dump);
    std::vector<uint8_t> dumped(want.size() + 1);
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
    EXPECT_EQ(dumped, want);
    std::fclose(dump);
}

TEST(OuterConvEnc, PuncturePatterns) {
    for (int r = 0; r < 5; r++) {
        EXPECT_EQ(in_plen[r], kPeriod[r]);
        EXPECT_EQ(out_plen[r], static_cast<int32_t>(kKept[r].size()));
        int flags = 0;
        for (int k = 0; k < 14; k++) flags += p_mat[r][k];
        EXPECT_EQ(flags, out_plen[r]);

        const std::vector<uint8_t> bits = random_bits(static_cast<size_t>(kPeriod[r]) * 50, r + 1);
        std::vector<uint8_t> want;
        for (size_t p = 0; p < 50; p++)
            for (int k : kKept[r]) want.push_back(bits[p * kPeriod[r] + k]);
        ByteRing in(static_cast<uint32_t>(bits.size())), out(static_cast<uint32_t>(bits.size()));
        in.push(bits);
        EXPECT_EQ(puncture(in.v, out.v, static_cast<uint16_t>(r), 100000, nullptr),
                  static_cast<int32_t>(bits.size()));
        EXPECT_EQ(out.pop_all(), want) << "rate index " << r;
        if (r == 0) {
            EXPECT_EQ(want, bits);
        }
    }
}

TEST(OuterConvEnc, PunctureWholePeriods) {
    Verbose v;
    const std::vector<uint8_t> bits = random_bits(28, 3);
    ByteRing in(40), out(40);
    in.push(bits.data(), 13);
    testing::internal::CaptureStdout();
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_coder2: 0 samples\n");
    in.push(bits.data() + 13, 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 14);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Inner_coder2: 14 samples\n");
    const std::vector<uint8_t> want{bits[0], bits[1], bits[3], bits[5],
                                    bits[7], bits[8], bits[11], bits[12]};
    EXPECT_EQ(out.pop_all(), want);

    in.push(bits.data() + 14, 14);
    EXPECT_EQ(puncture(in.v, out.v, 4, 13, nullptr), 0);  // maxlen below a period
    out.v->fill = 33;  // 7 free, a period needs 8
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);
    out.v->fill = 32;
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 14);
    EXPECT_EQ(in.v->fill, 0u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(puncture(in.v, out.v, 4, 100, nullptr), 0);  // empty input: silent
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(OuterConvEnc, PunctureAcrossCallsAndWraps) {
    std::mt19937 g(17);
    for (int r = 0; r < 5; r++) {
        const std::vector<uint8_t> bits = random_bits(static_cast<size_t>(kPeriod[r]) * 300, 40 + r);
        std::vector<uint8_t> want;
        for (size_t p = 0; p < 300; p++)
            for (int k : kKept[r]) want.push_back(bits[p * kPeriod[r] + k]);
        ByteRing in(53, 50), out(29, 27);
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        std::vector<uint8_t> got;
        size_t pos = 0;
        while (pos < bits.size() || in.v->fill > 0) {
            const size_t n = std::min<size_t>(
                {in.v->len - in.v->fill, bits.size() - pos, static_cast<size_t>(g() % 30)});
            in.push(bits.data() + pos, n);
            pos += n;
            const int32_t c = puncture(in.v, out.v, static_cast<uint16_t>(r), g() % 40, dump);
            EXPECT_EQ(c % kPeriod[r], 0);
            out.pop_into(got);
        }
        EXPECT_EQ(got, want) << "rate index " << r;
        std::rewind(dump);
        std::vector<uint8_t> dumped(want.size() + 1);
        dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
        EXPECT_EQ(dumped, want);
        std::fclose(dump);
    }
}
