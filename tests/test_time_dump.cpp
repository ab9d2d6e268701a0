// Time-domain output: byte patterns of the three formats, ring wrap, and the
// progress line with the payload accumulators. The progress state lives for
// the whole process, as each test runs in a process of its own.
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
    TmpFile() = default;
    TmpFile(const TmpFile&) = delete;
    TmpFile& operator=(const TmpFile&) = delete;
    ~TmpFile() { std::fclose(fp); }
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

}  // namespace

TEST(OfdmTimeDump, StdWritesLittleEndianFloatsAcrossTheWrap) {
    setup(0, 0.0f);
    CplxRing in(4, 3);
    in.push({{1.0f, -2.0f}, {0.1f, 3.5e-7f}, {-1e6f, 0.0f}});
    TmpFile f;
    Verbose loud;
    testing::internal::CaptureStdout();
    EXPECT_EQ(time_dump(in.v, f.fp, nullptr, nullptr, 400000), 3);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("Time dump   : 3 samples\n", 0), 0u) << out;
    testing::internal::CaptureStdout();
    EXPECT_EQ(time_dump(in.v, f.fp, nullptr, nullptr, 400000), 0);  // empty: nothing at all
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(in.v->head, 2u);
    const std::vector<uint8_t> want{0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0xC0,   // 1, -2
                                    0xCD, 0xCC, 0xCC, 0x3D, 0xA2, 0xE7, 0xBB, 0x34,   // 0.1, 3.5e-7
                                    0x00, 0x24, 0x74, 0xC9, 0x00, 0x00, 0x00, 0x00};  // -1e6, 0
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

TEST(OfdmTimeDump, RecordsOfWrappedAndStraightRingsAreTheSame) {
    for (uint32_t format = 0; format < 3; format++) {
        setup(format, 3000.0f);
        std::vector<dvbComplex> s(7);
        for (size_t i = 0; i < s.size(); i++) s[i] = {0.1f * static_cast<float>(i) - 0.3f, 1.0f - 0.07f * static_cast<float>(i)};
        std::vector<uint8_t> bytes[2], bytes_q[2];
        for (uint32_t head : {0u, 5u}) {
            CplxRing in(8, head);
            in.push(s);
            TmpFile a, q;
            Verbose quiet(0);
            EXPECT_EQ(time_dump(in.v, a.fp, a.fp, q.fp, 4), 4);  // maxlen honoured
            EXPECT_EQ(time_dump(in.v, a.fp, a.fp, q.fp, 400000), 3);
            bytes[head != 0] = a.bytes();
            bytes_q[head != 0] = q.bytes();
        }
        EXPECT_EQ(bytes[1], bytes[0]) << format;
        EXPECT_EQ(bytes_q[1], bytes_q[0]) << format;
        EXPECT_EQ(bytes[0].size(), format == 0 ? 56u : format == 1 ? 28u : 14u);
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
    float hp = 0.0f;
    for (int sym = 1; sym <= 272; sym++) {
        in.v->fill = 2560;
        testing::internal::CaptureStdout();
        ASSERT_EQ(time_dump(in.v, nullptr, nullptr, nullptr, 400000), 2560);
        const std::string out = testing::internal::GetCapturedStdout();
        hp += 1.0f * 1512.0f * 2.0f * 0.5f * (188.0f / 1632.0f);
        ASSERT_EQ(std::bit_cast<uint32_t>(proc_data_hp), std::bit_cast<uint32_t>(hp)) << sym;
        if (sym == 1) {
            EXPECT_EQ(out, "0.2% done (S01,F0,SF000000)\n");
        } else if (sym == 68 || sym == 272) {
            EXPECT_EQ(out.substr(out.find('(')), sym == 68 ? "(S00,F1,SF000000)\n" : "(S00,F0,SF000001)\n");
        }
    }
    EXPECT_EQ(proc_data_lp, 0.0f);
}

TEST(OfdmTimeDump, InterpolatedAndHierarchicalPayload) {
    // 8k, guard 1/8, 64-QAM hierarchical, rates 2/3 (HP) and 5/6 (LP), 4x: 36864 samples per symbol.
    dvbt_parms = dvbt_parms_t{2, 2, 1, 1, 0, 1, 3, 0, 0, 0, 2, 0, 0.0f, 0, 0};
    tot_flen = 1000000;
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;
    CplxRing in(36864 * 2);
    in.v->fill = 36864 + 36864 / 2;
    Verbose quiet(0);
    ASSERT_EQ(time_dump(in.v, nullptr, nullptr, nullptr, 400000), 36864 + 18432);
    const float k = 188.0f / 1632.0f;
    EXPECT_EQ(proc_data_hp, 1.5f * 6048.0f * 2.0f * (2.0f / 3.0f) * k);
    EXPECT_EQ(proc_data_lp, 1.5f * 6048.0f * 4.0f * (5.0f / 6.0f) * k);
}
