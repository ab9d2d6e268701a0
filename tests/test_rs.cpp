// Reed-Solomon RS(204,188) outer coder: parity known answers, codewords checked
// by syndromes computed with an independent GF multiply, and the whole-packet
// streaming behaviour across ring ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <vector>

#include "outer/outer_coder.hpp"
#include "outer/rs.hpp"
#include "ring_util.hpp"

namespace {

using testutil::ByteRing;
using Bytes = std::vector<uint8_t>;

// GF(256) multiply by shift and add, reduced by x^8 + x^4 + x^3 + x^2 + 1.
uint8_t gmul(uint8_t a, uint8_t b) {
    unsigned r = 0, x = a;
    for (int i = 0; i < 8; i++) {
        if (b & (1u << i)) r ^= x;
        x <<= 1;
        if (x & 0x100) x ^= 0x11D;
    }
    return static_cast<uint8_t>(r);
}

// Syndromes S_i = c(alpha^i), i = 0..15, of a codeword given highest degree first.
std::array<uint8_t, 16> syndromes(const Bytes& cw) {
    std::array<uint8_t, 16> s{};
    uint8_t a = 1;
    for (int i = 0; i < 16; i++, a = gmul(a, 2))
        for (uint8_t c : cw) s[i] = gmul(s[i], a) ^ c;
    return s;
}

Bytes random_bytes(std::mt19937& g, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g());
    return b;
}

Bytes code_one(const Bytes& pkt) {
    ByteRing in(188), out(204);
    in.push(pkt);
    EXPECT_EQ(rs_short204188(in.v, out.v, 188, nullptr), 188u);
    return out.pop_all();
}

Bytes parity(const Bytes& pkt) {
    const Bytes cw = code_one(pkt);
    return Bytes(cw.begin() + 188, cw.end());
}

class OuterRs : public ::testing::Test {
protected:
    void SetUp() override { init_rs(); }
};

}  // namespace

TEST_F(OuterRs, KnownParityVectors) {
    Bytes pkt(188, 0);
    EXPECT_EQ(parity(pkt), Bytes(16, 0));
    pkt[0] = 0x47;
    EXPECT_EQ(parity(pkt), (Bytes{0x7E, 0x34, 0xA4, 0x93, 0xC6, 0x2C, 0xFB, 0x23,
                                  0x0D, 0xF0, 0x0C, 0x9E, 0x57, 0x96, 0xFD, 0x5B}));
    for (int k = 1; k < 188; k++) pkt[k] = static_cast<uint8_t>(k);
    EXPECT_EQ(parity(pkt), (Bytes{0x4F, 0x29, 0xDC, 0x45, 0x0E, 0x4C, 0x03, 0x5B,
                                  0xBA, 0xE8, 0x93, 0x84, 0x03, 0x00, 0xE0, 0x04}));
}

TEST_F(OuterRs, CodewordsHaveZeroSyndromes) {
    std::mt19937 g(11);
    for (int t = 0; t < 50; t++) {
        SCOPED_TRACE(t);
        // A systematic codeword from the stage; a single corrupted byte is seen.
        const Bytes pkt = random_bytes(g, 188);
        Bytes cw = code_one(pkt);
        EXPECT_TRUE(std::equal(pkt.begin(), pkt.end(), cw.begin()));
        EXPECT_EQ(syndromes(cw), (std::array<uint8_t, 16>{}));
        cw[g() % 204] ^= static_cast<uint8_t>(1 + g() % 255);
        EXPECT_NE(syndromes(cw), (std::array<uint8_t, 16>{}));
        // A full RS(255,239) block: data[i] is the coefficient of x^(i+16).
        const Bytes data = t == 0 ? Bytes(239, 0xFF) : random_bytes(g, 239);
        uint8_t bb[16];
        EXPECT_EQ(encode_rs(data.data(), bb), 0);
        Bytes full(data.rbegin(), data.rend());
        for (int j = 15; j >= 0; j--) full.push_back(bb[j]);
        EXPECT_EQ(syndromes(full), (std::array<uint8_t, 16>{}));
    }
}

TEST_F(OuterRs, WholePacketsRoomAndMaxlen) {
    testutil::Verbose v;
    std::mt19937 g(3);
    const Bytes pkt = random_bytes(g, 188);
    ByteRing in(1000), out(1000);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);  // empty input: silent
    in.push(pkt.data(), 187);
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(in.v->fill, 187u);
    in.push(pkt[187]);
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 188u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_coder : 0 samples\nOuter_coder : 188 samples\n");
    EXPECT_EQ(in.v->fill, 0u);
    EXPECT_EQ(out.pop_all(), code_one(pkt));

    in.push(random_bytes(g, 3 * 188));
    out.v->fill = 797;  // 203 free
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(in.v->fill, 3 * 188u);
    out.v->fill = 1000;  // full: silent
    testing::internal::CaptureStdout();
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    out.v->fill = 0;
    EXPECT_EQ(rs_short204188(in.v, out.v, 375, nullptr), 188u);
    EXPECT_EQ(rs_short204188(in.v, out.v, 376, nullptr), 376u);
    EXPECT_EQ(out.v->fill, 3 * 204u);
}

TEST_F(OuterRs, PacketsStraddleRingEnds) {
    std::mt19937 g(8);
    const Bytes stream = random_bytes(g, 188 * 12);
    Bytes expect;
    for (size_t p = 0; p < 12; p++) {
        const Bytes cw = code_one(Bytes(stream.begin() + 188 * p, stream.begin() + 188 * (p + 1)));
        expect.insert(expect.end(), cw.begin(), cw.end());
    }
    // Ring lengths that are not multiples of the packet sizes, starting near
    // the end of the storage, so packets keep crossing the wrap point.
    ByteRing in(401, 350), out(509, 470);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    Bytes got;
    for (size_t pos = 0; pos < stream.size() || in.v->fill >= 188;) {
        const size_t n = std::min<size_t>({in.v->len - in.v->fill, stream.size() - pos, 1 + g() % 300});
        in.push(stream.data() + pos, n);
        pos += n;
        EXPECT_EQ(rs_short204188(in.v, out.v, 1 + g() % 600, dump) % 188, 0u);
        out.pop_into(got);
    }
    EXPECT_EQ(got, expect);
    std::rewind(dump);
    Bytes dumped(expect.size() + 1);
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
    EXPECT_EQ(dumped, expect);
    std::fclose(dump);
}
