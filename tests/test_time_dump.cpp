// Time-domain output: byte patterns of the three formats, ring wrap, null
// files, and the progress line with the payload accumulators. The progress
// state lives for the whole process, as each test runs in a process of its own.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <string>
#include <vector>

#include "frame/files.hpp"
#include "frame/params.hpp"
#include "ofdm/ofdm.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::CplxRing;
using testutil::Verbose;

struct TmpFile {
    FILE* fp = std::tmpfile();
    ~TmpFile() {
        if (fp != nullptr) std::fclose(fp);
    }
    TmpFile() = default;
    TmpFile(const TmpFile&) = delete;
    TmpFile& operator=(const TmpFile&) = delete;
    std::vector<uint8_t> bytes() {
        std::fflush(fp);
        std::rewind(fp);
        std::vector<uint8_t> b;
        for (int c = std::fgetc(fp); c != EOF; c = std::fgetc(fp)) b.push_back(static_cast<uint8_t>(c));
        return b;
    }
};

void setup(uint32_t format, float sf) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.delta = 3;
    dvbt_parms.dumpformat = format;
    tdstream_sf = sf;
    tot_flen = 1000000;
}

void put_le32(std::vector<uint8_t>& b, float f) {
    const auto u = std::bit_cast<uint32_t>(f);
    for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(u >> (8 * i)));
}

}  // namespace

TEST(OfdmTimeDump, StdWritesLittleEndianFloatsAcrossTheWrap) {
    setup(0, 0.0f);
    CplxRing in(10, 7);
    const std::vector<dvbComplex> s{{1.0f, -2.0f}, {0.1f, 3.5e-7f}, {-1e6f, 0.0f}, {7.25f, -0.5f}, {2.0f, 4.0f},
                                    {-3.0f, 9.0f}};
    in.push(s);
    TmpFile f;
    Verbose loud;
    testing::internal::CaptureStdout();
    EXPECT_EQ(time_dump(in.v, f.fp, nullptr, nullptr, 400000), 6);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("Time dump   : 6 samples\n", 0), 0u) << out;
    EXPECT_EQ(in.v->fill, 0u);
    EXPECT_EQ(in.v->head, 3u);
    std::vector<uint8_t> want;
    for (const dvbComplex& c : s) {
        put_le32(want, c.re);
        put_le32(want, c.im);
    }
    EXPECT_EQ(f.bytes(), want);
}

TEST(OfdmTimeDump, AgiBigEndianTruncatedAndSaturated) {
    setup(1, 1000.0f);
    CplxRing in(4, 3);
    // 1500 / -2500; 0.005f times 1000 is just below 5 in double precision, so 4;
    // truncation toward zero; beyond the 16-bit range becomes -32768.
    in.push({{1.5f, -2.5f}, {0.005f, -0.0019f}, {32.767f, -32.768f}, {40.0f, -40.0f}});
    TmpFile f;
    Verbose quiet(0);
    EXPECT_EQ(time_dump(in.v, f.fp, nullptr, nullptr, 400000), 4);
    const std::vector<uint8_t> want{0x05, 0xDC, 0xF6, 0x3C,   // 1500, -2500
                                    0x00, 0x04, 0xFF, 0xFF,   // 4, -1
                                    0x7F, 0xFE, 0x80, 0x00,   // 32766 (32.767f is below), -32768
                                    0x80, 0x00, 0x80, 0x00};  // 40000 and -40000 saturate
    EXPECT_EQ(f.bytes(), want);
    EXPECT_EQ(in.v->head, 3u);
}

TEST(OfdmTimeDump, AgiOldOffsetCodesInTwoFiles) {
    setup(2, 8191.0f);
    CplxRing in(3, 2);
    in.push({{0.0f, -1.0f}, {1.0f, -1.0001f}, {2.0f, -3.0f}});
    TmpFile fi, fq;
    Verbose quiet(0);
    EXPECT_EQ(time_dump(in.v, nullptr, fi.fp, fq.fp, 400000), 3);
    // 0 -> 0x2000, -8191 -> 1, 8191 -> 0x3FFF, -8191.8 -> -8191 -> 1,
    // 16382 -> 0x5FFE and -24573 -> 0xC003 (kept modulo 65536).
    EXPECT_EQ(fi.bytes(), (std::vector<uint8_t>{0x20, 0x00, 0x3F, 0xFF, 0x5F, 0xFE}));
    EXPECT_EQ(fq.bytes(), (std::vector<uint8_t>{0x00, 0x01, 0x00, 0x01, 0xC0, 0x03}));
}

TEST(OfdmTimeDump, MissingFilesStillConsumeAndReport) {
    Verbose loud;
    for (uint32_t format = 0; format < 3; format++) {
        setup(format, 100.0f);
        CplxRing in(10, 8);
        in.push(std::vector<dvbComplex>(9, dvbComplex{0.25f, 0.5f}));
        TmpFile only_i;
        testing::internal::CaptureStdout();
        // In "agiold" one open file is not enough: nothing is written to it.
        EXPECT_EQ(time_dump(in.v, nullptr, only_i.fp, nullptr, 4), 4);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("Time dump   : 4 samples\n", 0), 0u) << out;
        EXPECT_NE(out.find("% done (S"), std::string::npos) << out;
        EXPECT_EQ(in.v->fill, 5u);
        EXPECT_EQ(in.v->head, 2u);
        EXPECT_TRUE(only_i.bytes().empty());
    }
    // An empty ring gives 0 and prints nothing.
    CplxRing empty(5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(time_dump(empty.v, nullptr, nullptr, nullptr, 400000), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(OfdmTimeDump, RecordsOfWrappedAndStraightRingsAreTheSame) {
    for (uint32_t format = 0; format < 3; format++) {
        setup(format, 3000.0f);
        std::vector<dvbComplex> s(7);
        for (size_t i = 0; i < s.size(); i++) s[i] = {0.1f * static_cast<float>(i) - 0.3f, 1.0f - 0.07f * static_cast<float>(i)};
        std::vector<uint8_t> want, want_q, got, got_q;
        for (uint32_t head : {0u, 5u}) {
            CplxRing in(8, head);
            in.push(s);
            TmpFile a, q;
            Verbose quiet(0);
            EXPECT_EQ(time_dump(in.v, a.fp, a.fp, q.fp, 400000), 7);
            (head == 0 ? want : got) = a.bytes();
            (head == 0 ? want_q : got_q) = q.bytes();
        }
        EXPECT_EQ(got, want) << format;
        EXPECT_EQ(got_q, want_q) << format;
        EXPECT_EQ(want.size(), format == 0 ? 56u : format == 1 ? 28u : 14u);
    }
}

TEST(OfdmTimeDump, ProgressLineCountsSymbolsFramesAndPayload) {
    // 2k, guard 1/4, QPSK, rate 1/2, no interpolation: 2560 samples per symbol.
    setup(0, 0.0f);
    dvbt_parms.delta = 0;
    tot_flen = 94000;
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;
    CplxRing in(2560);
    Verbose level2(2);
    const float k = 188.0f / 1632.0f;
    float hp = 0.0f;
    for (int sym = 1; sym <= 272; sym++) {
        in.v->fill = 2560;
        testing::internal::CaptureStdout();
        ASSERT_EQ(time_dump(in.v, nullptr, nullptr, nullptr, 400000), 2560);
        const std::string out = testing::internal::GetCapturedStdout();
        hp += 1.0f * 1512.0f * 2.0f * 0.5f * k;
        ASSERT_EQ(std::bit_cast<uint32_t>(proc_data_hp), std::bit_cast<uint32_t>(hp)) << sym;
        char want[96];
        std::snprintf(want, sizeof want, "%-2.1f%% done (S%02d,F%d,SF%06d)\n",
                      static_cast<double>(hp * 100.0f / 94000.0f), sym % 68, (sym / 68) % 4, sym / 272);
        ASSERT_EQ(out, want) << sym;
        if (sym == 1) {
            EXPECT_EQ(out, "0.2% done (S01,F0,SF000000)\n");
        } else if (sym == 68) {
            EXPECT_EQ(out.substr(out.find('(')), "(S00,F1,SF000000)\n");
        } else if (sym == 272) {
            EXPECT_EQ(out.substr(out.find('(')), "(S00,F0,SF000001)\n");
        }
    }
    EXPECT_EQ(proc_data_lp, 0.0f);
}

TEST(OfdmTimeDump, InterpolatedAndHierarchicalPayload) {
    // 8k, guard 1/8, 64-QAM hierarchical, rates 2/3 (HP) and 5/6 (LP), 4x: 36864 samples per symbol.
    setup(0, 0.0f);
    dvbt_parms.mode = 2;
    dvbt_parms.delta = 1;
    dvbt_parms.M = 2;
    dvbt_parms.alpha = 1;
    dvbt_parms.rate_hp = 1;
    dvbt_parms.rate_lp = 3;
    dvbt_parms.interp = 2;
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;
    CplxRing in(36864 * 2);
    in.v->fill = 36864 + 36864 / 2;
    Verbose level2(2);
    testing::internal::CaptureStdout();
    ASSERT_EQ(time_dump(in.v, nullptr, nullptr, nullptr, 400000), 36864 + 18432);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("% done (S"), std::string::npos) << out;
    const float k = 188.0f / 1632.0f;
    const float s_c = 55296.0f / 4.0f / 9216.0f;
    EXPECT_EQ(s_c, 1.5f);
    EXPECT_EQ(proc_data_hp, s_c * 6048.0f * 2.0f * (2.0f / 3.0f) * k);
    EXPECT_EQ(proc_data_lp, s_c * 6048.0f * 4.0f * (5.0f / 6.0f) * k);
}
