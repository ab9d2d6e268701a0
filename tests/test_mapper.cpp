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

#include "frame/params.hpp"
#include "inner/mapper.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::ByteRing;
using testutil::CplxRing;
using testutil::Verbose;

void build(uint32_t M, uint32_t alpha) {
    dvbt_parms.M = M;
    dvbt_parms.alpha = alpha;
    EXPECT_EQ(dvbQAMConstGenerate(), 0u);
}

void expect_point(uint32_t word, float re, float im) {
    // Exact: the quotients are taken in double precision and then rounded once.
    const dvbComplex c = dvbQAMTable()[word];
    EXPECT_EQ(c.re, re) << "word " << word;
    EXPECT_EQ(c.im, im) << "word " << word;
}

}  // namespace

TEST(InnerMapper, KnownPoints) {
    for (uint32_t a = 0; a < 4; a++) {
        build(0, a);
        expect_point(3, -0.70710677f, -0.70710677f);
        expect_point(1, 0.70710677f, -0.70710677f);
        expect_point(2, -0.70710677f, 0.70710677f);
    }
    build(1, 0);
    expect_point(0, 0.9486833f, 0.9486833f);
    build(1, 1);
    expect_point(0, 0.9486833f, 0.9486833f);
    build(1, 2);
    expect_point(0, 0.8944272f, 0.8944272f);
    build(1, 3);
    expect_point(0, 0.8320503f, 0.8320503f);
    build(2, 1);
    expect_point(0, 1.0801234f, 1.0801234f);
    build(2, 3);
    expect_point(0, 0.9622505f, 0.9622505f);
}

TEST(InnerMapper, LabellingOfEveryWord) {
    // d by alpha, and E for each constellation.
    const float d[4] = {0, 0, 1, 3};
    const double E16[4] = {10, 10, 20, 52}, E64[4] = {42, 42, 60, 108};
    for (uint32_t a = 0; a < 4; a++) {
        SCOPED_TRACE(a);
        build(1, a);
        const float m16[2] = {3 + d[a], 1 + d[a]};
        for (uint32_t w = 0; w < 16; w++) {
            const float re = (w & 8 ? -1.0f : 1.0f) * m16[(w >> 1) & 1];
            const float im = (w & 4 ? -1.0f : 1.0f) * m16[w & 1];
            expect_point(w, static_cast<float>(re / std::sqrt(E16[a])), static_cast<float>(im / std::sqrt(E16[a])));
        }
        build(2, a);
        const double s = std::sqrt(E64[a]);
        expect_point(0, static_cast<float>((7 + d[a]) / s), static_cast<float>((7 + d[a]) / s));
        expect_point(2, static_cast<float>((5 + d[a]) / s), static_cast<float>((7 + d[a]) / s));
        expect_point(8, static_cast<float>((1 + d[a]) / s), static_cast<float>((7 + d[a]) / s));
        expect_point(1, static_cast<float>((7 + d[a]) / s), static_cast<float>((5 + d[a]) / s));
        expect_point(10, static_cast<float>((3 + d[a]) / s), static_cast<float>((7 + d[a]) / s));
        expect_point(63, static_cast<float>(-(3 + d[a]) / s), static_cast<float>(-(3 + d[a]) / s));
        expect_point(48, static_cast<float>(-(7 + d[a]) / s), static_cast<float>(-(7 + d[a]) / s));
    }
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
            for (uint32_t w = Mc; w < 64; w++) EXPECT_TRUE(t[w].re == 0.0f && t[w].im == 0.0f);

            // Along each axis: the points on one row (or column), in order,
            // differ from their neighbours in exactly one bit; every point is distinct.
            const size_t side = size_t{1} << (dvbt_bitpersymb[M] / 2);
            for (int axis = 0; axis < 2; axis++) {
                std::map<float, std::vector<std::pair<float, uint32_t>>> lines;
                for (uint32_t w = 0; w < Mc; w++) {
                    const float along = axis == 0 ? t[w].re : t[w].im;
                    const float across = axis == 0 ? t[w].im : t[w].re;
                    lines[across].push_back({along, w});
                }
                EXPECT_EQ(lines.size(), side);
                for (auto& [key, pts] : lines) {
                    ASSERT_EQ(pts.size(), side);
                    std::sort(pts.begin(), pts.end());
                    for (size_t i = 1; i < pts.size(); i++) {
                        EXPECT_LT(pts[i - 1].first, pts[i].first);
                        EXPECT_EQ(std::popcount(pts[i - 1].second ^ pts[i].second), 1)
                            << "words " << pts[i - 1].second << " and " << pts[i].second;
                    }
                }
            }
        }
    }
}

TEST(InnerMapper, StreamingAcrossWraps) {
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
        const uint32_t in_before = in.v->fill, out_before = out.v->fill;
        const uint32_t maxlen = g() % 70;
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
    for (size_t i = 0; i < words.size(); i++) {
        ASSERT_EQ(std::memcmp(&got[i], &dvbQAMTable()[words[i]], 8), 0) << i;
    }

    // The dump holds the same cells as little-endian IEEE float pairs.
    std::rewind(dump);
    std::vector<uint8_t> bytes;
    for (int c; (c = std::fgetc(dump)) != EOF;) bytes.push_back(static_cast<uint8_t>(c));
    std::fclose(dump);
    ASSERT_EQ(bytes.size(), 8 * words.size());
    for (size_t i = 0; i < words.size(); i++) {
        uint32_t re = 0, im = 0;
        for (int k = 3; k >= 0; k--) {
            re = (re << 8) | bytes[8 * i + k];
            im = (im << 8) | bytes[8 * i + 4 + k];
        }
        ASSERT_EQ(re, std::bit_cast<uint32_t>(got[i].re)) << i;
        ASSERT_EQ(im, std::bit_cast<uint32_t>(got[i].im)) << i;
    }
}

TEST(InnerMapper, BoundsAndMessages) {
    Verbose vb;
    build(0, 0);
    ByteRing in(10, 0);
    CplxRing out(5, 3);
    const uint8_t w[6] = {3, 0, 1, 2, 3, 3};
    in.push(w, 6);
    out.v->fill = 4;  // one free element, at index 2
    testing::internal::CaptureStdout();
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Mapping     : 1 samples\n");
    EXPECT_EQ(in.v->fill, 5u);
    EXPECT_EQ(in.v->head, 1u);
    EXPECT_EQ(out.v->fill, 5u);
    EXPECT_FLOAT_EQ(dvbCplx(out.v)[2].re, -0.70710677f);
    EXPECT_FLOAT_EQ(dvbCplx(out.v)[2].im, -0.70710677f);

    testing::internal::CaptureStdout();
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 0);  // output full: silent
    out.v->fill = 0;
    EXPECT_EQ(qam_map(in.v, out.v, 0, nullptr), 0);    // maxlen 0: counted
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 5);
    EXPECT_EQ(qam_map(in.v, out.v, 100, nullptr), 0);  // input empty: silent
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Mapping     : 0 samples\nMapping     : 5 samples\n");
}
