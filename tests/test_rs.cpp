// Reed-Solomon RS(204,188) outer coder: field tables, generator, parity
// known answers, syndromes with an independent GF multiply, reference encoder
// identity and the whole-packet streaming behaviour.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "outer/outer_coder.hpp"
#include "outer/rs.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::ByteRing;
using testutil::Verbose;

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
std::array<uint8_t, 16> syndromes(const std::vector<uint8_t>& cw) {
    std::array<uint8_t, 16> s{};
    uint8_t a = 1;
    for (int i = 0; i < 16; i++) {
        uint8_t acc = 0;
        for (uint8_t c : cw) acc = gmul(acc, a) ^ c;
        s[i] = acc;
        a = gmul(a, 2);
    }
    return s;
}

// Generator coefficients, x^0 first.
constexpr std::array<int, 17> kGpoly{59, 36, 50, 98, 229, 41, 65, 163, 8,
                                     30, 209, 68, 189, 104, 13, 59, 1};
constexpr std::array<int, 17> kGlog{120, 225, 194, 182, 169, 147, 191, 91, 3,
                                    76, 161, 102, 109, 107, 104, 120, 0};

// Stage-by-stage division register, one GF product per stage.
void reference_encode(const uint8_t* data, uint8_t* bb) {
    for (int j = 0; j < 16; j++) bb[j] = 0;
    for (int i = 238; i >= 0; i--) {
        const uint8_t fb = data[i] ^ bb[15];
        for (int j = 15; j > 0; j--) bb[j] = bb[j - 1] ^ gmul(fb, static_cast<uint8_t>(kGpoly[j]));
        bb[0] = gmul(fb, static_cast<uint8_t>(kGpoly[0]));
    }
}

std::vector<uint8_t> code_one(const std::vector<uint8_t>& pkt) {
    ByteRing in(188), out(204);
    in.push(pkt);
    EXPECT_EQ(rs_short204188(in.v, out.v, 188, nullptr), 188u);
    return out.pop_all();
}

std::vector<uint8_t> parity_of(const std::vector<uint8_t>& pkt) {
    const std::vector<uint8_t> cw = code_one(pkt);
    return std::vector<uint8_t>(cw.begin() + 188, cw.end());
}

std::vector<uint8_t> random_bytes(std::mt19937& g, size_t n) {
    std::vector<uint8_t> b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g());
    return b;
}

class OuterRs : public ::testing::Test {
protected:
    void SetUp() override { init_rs(); }
};

}  // namespace

TEST_F(OuterRs, FieldTables) {
    const int first[16] = {1, 2, 4, 8, 16, 32, 64, 128, 29, 58, 116, 232, 205, 135, 19, 38};
    for (int i = 0; i < 16; i++) EXPECT_EQ(Alpha_to[i], first[i]) << i;
    EXPECT_EQ(Alpha_to[255], 0);
    EXPECT_EQ(Index_of[0], 255);
    uint8_t a = 1;
    std::vector<bool> seen(256, false);
    for (int i = 0; i < 255; i++) {
        EXPECT_EQ(Alpha_to[i], a) << i;
        EXPECT_EQ(Index_of[Alpha_to[i]], i);
        EXPECT_FALSE(seen[Alpha_to[i]]);
        seen[Alpha_to[i]] = true;
        a = gmul(a, 2);
    }
}

TEST_F(OuterRs, GeneratorPolynomial) {
    for (int j = 0; j < 17; j++) {
        EXPECT_EQ(Gg[j], kGlog[j]) << j;
        EXPECT_EQ(Alpha_to[Gg[j]], kGpoly[j]) << j;
    }
    // The 16 roots are alpha^0 .. alpha^15.
    uint8_t a = 1;
    for (int i = 0; i < 16; i++) {
        uint8_t v = 0;
        for (int j = 16; j >= 0; j--) v = gmul(v, a) ^ static_cast<uint8_t>(kGpoly[j]);
        EXPECT_EQ(v, 0) << "root " << i;
        a = gmul(a, 2);
    }
}

TEST_F(OuterRs, KnownParityVectors) {
    std::vector<uint8_t> pkt(188, 0);
    EXPECT_EQ(parity_of(pkt), std::vector<uint8_t>(16, 0));

    pkt[0] = 0x47;
    const std::vector<uint8_t> p1{0x7E, 0x34, 0xA4, 0x93, 0xC6, 0x2C, 0xFB, 0x23,
                                  0x0D, 0xF0, 0x0C, 0x9E, 0x57, 0x96, 0xFD, 0x5B};
    EXPECT_EQ(parity_of(pkt), p1);

    for (int k = 1; k < 188; k++) pkt[k] = static_cast<uint8_t>(k);
    const std::vector<uint8_t> p2{0x4F, 0x29, 0xDC, 0x45, 0x0E, 0x4C, 0x03, 0x5B,
                                  0xBA, 0xE8, 0x93, 0x84, 0x03, 0x00, 0xE0, 0x04};
    const std::vector<uint8_t> cw = code_one(pkt);
    EXPECT_EQ(std::vector<uint8_t>(cw.begin(), cw.begin() + 188), pkt);
    EXPECT_EQ(std::vector<uint8_t>(cw.begin() + 188, cw.end()), p2);
}

TEST_F(OuterRs, CodewordsHaveZeroSyndromes) {
    std::mt19937 g(11);
    for (int t = 0; t < 50; t++) {
        std::vector<uint8_t> pkt = random_bytes(g, 188);
        pkt[0] = 0x47;
        std::vector<uint8_t> cw = code_one(pkt);
        ASSERT_EQ(cw.size(), 204u);
        EXPECT_EQ(syndromes(cw), (std::array<uint8_t, 16>{})) << "packet " << t;
        // Any single corrupted byte is seen.
        cw[g() % 204] ^= static_cast<uint8_t>(1 + g() % 255);
        EXPECT_NE(syndromes(cw), (std::array<uint8_t, 16>{}));
    }
}

TEST_F(OuterRs, EncoderMatchesReference) {
    std::mt19937 g(5);
    std::vector<std::vector<uint8_t>> blocks;
    blocks.emplace_back(239, 0);
    blocks.emplace_back(239, 0xFF);
    std::vector<uint8_t> top(239, 0);
    top[238] = 1;
    blocks.push_back(top);
    std::vector<uint8_t> bottom(239, 0);
    bottom[0] = 0x80;
    blocks.push_back(bottom);
    for (int t = 0; t < 200; t++) {
        std::vector<uint8_t> b = random_bytes(g, 239);
        // Some blocks with long zero runs at either end.
        if (t % 3 == 1)
            for (int i = 238; i >= static_cast<int>(g() % 239); i--) b[i] = 0;
        if (t % 3 == 2)
            for (unsigned i = 0; i < g() % 239; i++) b[i] = 0;
        blocks.push_back(b);
    }
    for (const auto& b : blocks) {
        uint8_t fast[16], ref[16];
        EXPECT_EQ(encode_rs(b.data(), fast), 0);
        reference_encode(b.data(), ref);
        EXPECT_EQ(std::vector<uint8_t>(fast, fast + 16), std::vector<uint8_t>(ref, ref + 16));
    }
}

TEST_F(OuterRs, WholePacketsOnly) {
    Verbose v;
    std::mt19937 g(3);
    const std::vector<uint8_t> pkt = random_bytes(g, 188);
    ByteRing in(1000), out(1000);

    testing::internal::CaptureStdout();
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);  // empty input: silent
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    in.push(std::vector<uint8_t>(pkt.begin(), pkt.begin() + 187));
    testing::internal::CaptureStdout();
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_coder : 0 samples\n");
    EXPECT_EQ(in.v->fill, 187u);
    EXPECT_EQ(out.v->fill, 0u);

    in.push({pkt[187]});
    testing::internal::CaptureStdout();
    EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 188u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_coder : 188 samples\n");
    EXPECT_EQ(in.v->fill, 0u);
    EXPECT_EQ(out.v->fill, 204u);
    EXPECT_EQ(out.pop_all(), code_one(pkt));
}

TEST_F(OuterRs, OutputRoomAndMaxlen) {
    std::mt19937 g(4);
    {
        ByteRing in(1000), out(407);  // 203 free after 204 held
        out.v->fill = 204;
        in.push(random_bytes(g, 3 * 188));
        EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
        EXPECT_EQ(in.v->fill, 3 * 188u);
        Verbose v;  // full output: silent early return
        out.v->fill = 407;
        testing::internal::CaptureStdout();
        EXPECT_EQ(rs_short204188(in.v, out.v, 1000, nullptr), 0u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    }
    {
        ByteRing in(1000), out(1000);
        in.push(random_bytes(g, 3 * 188));
        EXPECT_EQ(rs_short204188(in.v, out.v, 375, nullptr), 188u);
        EXPECT_EQ(rs_short204188(in.v, out.v, 376, nullptr), 376u);
        EXPECT_EQ(out.v->fill, 3 * 204u);
        EXPECT_EQ(rs_short204188(in.v, out.v, 187, nullptr), 0u);
    }
}

TEST_F(OuterRs, PacketsStraddleRingEnds) {
    std::mt19937 g(8);
    std::vector<uint8_t> stream = random_bytes(g, 188 * 12);
    std::vector<uint8_t> expect;
    for (size_t p = 0; p < 12; p++) {
        std::vector<uint8_t> pk(stream.begin() + 188 * p, stream.begin() + 188 * (p + 1));
        std::vector<uint8_t> cw = code_one(pk);
        expect.insert(expect.end(), cw.begin(), cw.end());
    }
    // Ring lengths that are not multiples of the packet sizes, starting near
    // the end of the storage, so packets keep crossing the wrap point.
    ByteRing in(401, 350), out(509, 470);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    std::vector<uint8_t> got;
    size_t pos = 0;
    while (pos < stream.size() || in.v->fill >= 188) {
        const size_t n = std::min<size_t>({in.v->len - in.v->fill, stream.size() - pos,
                                           static_cast<size_t>(1 + g() % 300)});
        in.push(std::vector<uint8_t>(stream.begin() + pos, stream.begin() + pos + n));
        pos += n;
        const uint32_t c = rs_short204188(in.v, out.v, 1 + g() % 600, dump);
        EXPECT_EQ(c % 188, 0u);
        std::vector<uint8_t> o = out.pop_all();
        got.insert(got.end(), o.begin(), o.end());
    }
    EXPECT_EQ(got, expect);
    std::rewind(dump);
    std::vector<uint8_t> dumped(expect.size() + 1);
    EXPECT_EQ(std::fread(dumped.data(), 1, dumped.size(), dump), expect.size());
    dumped.resize(expect.size());
    EXPECT_EQ(dumped, expect);
    std::fclose(dump);
}
