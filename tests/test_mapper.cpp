// QAM constellation and mapper: known points, unit power, Gray labelling,
// streaming and the dump format.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "inner/mapper.hpp"
#include "ring_util.hpp"

namespace {

using testutil::ByteRing;
using testutil::CplxRing;

void build(uint32_t M, uint32_t alpha) {
    dvbt_parms.M = M;
    dvbt_parms.alpha = alpha;
    EXPECT_EQ(dvbQAMConstGenerate(), 0u);
}

// Exact: the quotients are taken in double precision and then rounded once.
void expect_point(uint32_t word, double re, double im) {
    const dvbComplex c = dvbQAMTable()[word];
    EXPECT_EQ(c.re, static_cast<float>(re)) << "word " << word;
    EXPECT_EQ(c.im, static_cast<float>(im)) << "word " << word;
}

}  // namespace

TEST(InnerMapper, KnownPointsAndLabelling) {
    // Word 0 (QPSK: word 3) by constellation and alpha index.
    const struct { uint32_t M, a, w; float v; } known[] = {
        {0, 3, 3, -0.70710677f}, {1, 1, 0, 0.9486833f}, {1, 2, 0, 0.8944272f},
        {1, 3, 0, 0.8320503f},   {2, 1, 0, 1.0801234f}, {2, 3, 0, 0.9622505f}};
    for (const auto& k : known) {
        build(k.M, k.a);
        expect_point(k.w, k.v, k.v);
    }
    // Sign and magnitude bits at alpha 2 (points moved out by d = 1).
    build(1, 2);
    for (uint32_t w = 0; w < 16; w++)
        expect_point(w, (w & 8 ? -1 : 1) * (w & 2 ? 2 : 4) / std::sqrt(20.0),
                     (w & 4 ? -1 : 1) * (w & 1 ? 2 : 4) / std::sqrt(20.0));
    build(2, 2);
    const int pts[][3] = {{0, 8, 8}, {2, 6, 8}, {8, 2, 8}, {1, 8, 6}, {10, 4, 8}, {63, -4, -4}, {48, -8, -8}};
    for (const auto& p : pts) expect_point(static_cast<uint32_t>(p[0]), p[1] / std::sqrt(60.0), p[2] / std::sqrt(60.0));
}

TEST(InnerMapper, UnitMeanPowerAndGrayNeighbours) {
    for (uint32_t M = 0; M < 3; M++) {
        for (uint32_t a = 0; a < 4; a++) {
            SCOPED_TRACE(testing::Message() << "M " << M << " alpha " << a);
            build(M, a);
            const uint32_t Mc = 1u << dvbt_bitpersymb[M];
            const std::span<const dvbComplex, 64> t = dvbQAMTable();
            double p = 0;
            for (uint32_t w = 0; w < Mc; w++) p += double{t[w].re} * t[w].re + double{t[w].im} * t[w].im;
            EXPECT_NEAR(p / Mc, 1.0, 1e-6);
            // Along each axis the points of a row (column), in order, differ
            // from their neighbours in exactly one bit; every point is distinct.
            const size_t side = size_t{1} << (dvbt_bitpersymb[M] / 2);
            for (int axis = 0; axis < 2; axis++) {
                std::map<float, std::vector<std::pair<float, uint32_t>>> lines;
                for (uint32_t w = 0; w < Mc; w++)
                    lines[axis == 0 ? t[w].im : t[w].re].push_back({axis == 0 ? t[w].re : t[w].im, w});
                EXPECT_EQ(lines.size(), side);
                for (auto& [key, pts] : lines) {
                    ASSERT_EQ(pts.size(), side);
                    std::sort(pts.begin(), pts.end());
                    for (size_t i = 1; i < pts.size(); i++) {
                        EXPECT_LT(pts[i - 1].first, pts[i].first);
                        EXPECT_EQ(std::popcount(pts[i - 1].second ^ pts[i].second), 1);
                    }
                }
            }
        }
    }
}

TEST(InnerMapper, StreamingAcrossWrapsAndBounds) {
    build(2, 2);
    std::mt19937 g(5);
    std::vector<uint8_t> words(5000);
    for (auto& w : words) w = static_cast<uint8_t>(g() & 63);
    ByteRing in(97, 90);
    CplxRing out(61, 55);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    std::vector<dvbComplex> got;
    size_t pos = 0;
    for (int guard = 0; got.size() + out.v->fill < words.size() && guard < 100000; guard++) {
        const size_t a = std::min<size_t>({in.v->len - in.v->fill, words.size() - pos, g() % 80});
        in.push(words.data() + pos, a);
        pos += a;
        const uint32_t in_before = in.v->fill, out_before = out.v->fill, maxlen = g() % 70;
        const int32_t n = qam_map(in.v, out.v, maxlen, dump);
        if (in_before > 0 && out_before < out.v->len) {
            EXPECT_EQ(n, static_cast<int32_t>(std::min({in_before, out.v->len - out_before, maxlen})));
        }
        EXPECT_EQ(in_before - in.v->fill, static_cast<uint32_t>(n));
        EXPECT_EQ(out.v->fill - out_before, static_cast<uint32_t>(n));
        if (g() % 2 != 0) out.pop_into(got);
    }
    out.pop_into(got);
    ASSERT_EQ(got.size(), words.size());
    for (size_t i = 0; i < words.size(); i++) ASSERT_EQ(std::memcmp(&got[i], &dvbQAMTable()[words[i]], 8), 0) << i;
    // The dump holds the same cells as little-endian IEEE float pairs.
    std::rewind(dump);
    std::vector<uint8_t> bytes;
    for (int c; (c = std::fgetc(dump)) != EOF;) bytes.push_back(static_cast<uint8_t>(c));
    std::fclose(dump);
    ASSERT_EQ(bytes.size(), 8 * words.size());
    for (size_t i = 0; i < bytes.size(); i++) {
        const float f = i % 8 < 4 ? got[i / 8].re : got[i / 8].im;
        ASSERT_EQ(bytes[i], (std::bit_cast<uint32_t>(f) >> (8 * (i % 4))) & 0xFFu) << i;
    }

    // Count line and silent early returns.
    testutil::Verbose vb;
    in.push(words.data(), 3);
    out.v->fill = out.v->len - 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 1);       // one free element takes one cell
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 0);       // output full
    out.v->fill = 0;
    EXPECT_EQ(qam_map(in.v, out.v, 0, nullptr), 0);         // maxlen 0: counted
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 2);
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 0);       // input empty
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Mapping     : 1 samples\nMapping     : 0 samples\nMapping     : 2 samples\n");
}
