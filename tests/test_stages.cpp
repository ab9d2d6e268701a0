// Stage functions called directly: the units each stage moves under the ring
// rule with its count line, the producer and the consumer, the sample formats
// and the progress line, the clock, and the library's own transfers.

#include <cmath>
#include <cstring>
#include <memory>

#include <sys/resource.h>

#include "frame/files.hpp"
#include "frame/time.hpp"
#include "inner/inner_coder.hpp"
#include "inner/inner_int.hpp"
#include "inner/mapper.hpp"
#include "ofdm/filter.hpp"
#include "ofdm/framing.hpp"
#include "ofdm/ofdm.hpp"
#include "outer/energy.hpp"
#include "outer/mpeg2.hpp"
#include "outer/outer_coder.hpp"
#include "outer/outer_int.hpp"
#include "outer/rs.hpp"
#include "util.hpp"
#include "vectors/prbs.hpp"

namespace {

using namespace tu;

// A temporary file whose whole content can be read back.
struct TmpFile {
    std::unique_ptr<FILE, int (*)(FILE*)> file{std::tmpfile(), &std::fclose};
    FILE* const fp = file.get();
    std::vector<uint8_t> bytes() {
        std::fflush(fp);
        std::rewind(fp);
        std::vector<uint8_t> b;
        for (int c; (c = std::fgetc(fp)) != EOF;) b.push_back(static_cast<uint8_t>(c));
        return b;
    }
};

// ---- Units of each stage under the ring rule -------------------------------

struct Units {
    const char* label;
    uint32_t in_unit, out_unit, max_unit;
    bool in_bytes, out_bytes;
    std::function<uint32_t(dvbVect*, dvbVect*, uint32_t)> call;
};

// Empty input or full output: 0 and silence. Otherwise the count line at
// level 4 with the input elements consumed, whole units only, bounded by the
// input, the output room and maxlen in turn.
void check_units(const Units& u) {
    SCOPED_TRACE(u.label);
    const uint32_t big = 3 * std::max({u.in_unit, u.out_unit, u.max_unit});
    ByteRing bi(big), bo(big);
    CplxRing ci(big), co(big);
    dvbVect* in = u.in_bytes ? bi.v : ci.v;
    dvbVect* out = u.out_bytes ? bo.v : co.v;
    tu::Verbose loud(4);
    auto move = [&](uint32_t held, uint32_t room, uint32_t maxlen) {
        in->fill = held, in->head = 0, out->fill = big - room, out->head = 0;
        uint32_t n = 99;
        const std::string text = tu::captured([&] { n = u.call(in, out, maxlen); });
        EXPECT_EQ(text, held == 0 || room == 0 ? "" : std::string(u.label) + ": " + std::to_string(n) + " samples\n");
        return n;
    };
    EXPECT_EQ(move(0, big, big), 0u);
    EXPECT_EQ(move(big, 0, big), 0u);
    EXPECT_EQ(move(u.in_unit - 1, big, big), 0u);
    EXPECT_EQ(move(2 * u.in_unit - 1, big, big), u.in_unit);
    EXPECT_EQ(move(big, 2 * u.out_unit - 1, big), u.in_unit);
    EXPECT_EQ(move(big, big, 2 * u.max_unit - 1), u.in_unit);
    EXPECT_EQ(in->fill, big - u.in_unit);
    EXPECT_EQ(out->fill, u.out_unit);
}

TEST(StageUnits, EveryStageMovesWholeUnits) {
    tu::set_parms([](dvbt_parms_t& p) { p.interp = 1; });
    init_rs();
    dvbSymIntAddrGenerate();
    dvbQAMConstGenerate();
    init_tps();
    init_ifft();
    init_filt();
    dvbVect* prbs = nullptr;
    priv_dvbCreateVect(&prbs, Digital);
    dvbPRBSCreate(prbs, ED_REGLEN, ED_TAPS, ED_INIT, ED_BITS);
    dvbConvertVect(prbs, Symbol, 8, 0);
    convint_state ci{};
    init_convint(&ci, 12, 17);
    uint32_t enc = 0;
    const Units all[] = {
        {"Energy+Inv. ", 1, 1, 1, true, true,
         [&](dvbVect* i, dvbVect* o, uint32_t m) { return static_cast<uint32_t>(energy_inv(i, o, prbs, m, nullptr)); }},
        {"Outer_coder ", 188, 204, 188, true, true,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return rs_short204188(i, o, m, nullptr); }},
        {"Outer_int   ", 12, 12, 12, true, true,
         [&](dvbVect* i, dvbVect* o, uint32_t m) { return conv_int(i, o, &ci, m, nullptr); }},
        {"Inner_coder1", 1, 16, 1, true, true,
         [&](dvbVect* i, dvbVect* o, uint32_t m) { return static_cast<uint32_t>(encode27(i, o, &enc, m, nullptr)); }},
        {"Inner_coder2", 6, 4, 6, true, true,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return static_cast<uint32_t>(puncture(i, o, 2, m, nullptr)); }},
        {"Inner_int_b ", 252, 126, 252, true, true,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return bit_interleave(i, nullptr, o, m, nullptr); }},
        {"Inner_int_s ", 1512, 1512, 1512, true, true,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return static_cast<uint32_t>(symbol_interleave(i, o, m, nullptr)); }},
        {"Mapping     ", 1, 1, 1, true, false,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return static_cast<uint32_t>(qam_map(i, o, m, nullptr)); }},
        {"Framing     ", 1512, 1705, 1512, false, false,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return piltps_add(i, o, m, nullptr); }},
        {"OFDM        ", 1705, 2112, 1705, false, false,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return ofdm_mod(i, o, m, nullptr); }},
        {"Transmission", 1, 2, 2, false, false,
         [](dvbVect* i, dvbVect* o, uint32_t m) { return transmit(i, o, m, nullptr); }},
    };
    for (const Units& u : all) check_units(u);
    priv_dvbDestroyVect(&prbs);
}

// The producer reads what the room and maxlen allow and says so, also at the
// end of the file; the consumer writes what it holds up to maxlen.
TEST(StageUnits, ProducerAndConsumer) {
    TmpFile f;
    std::fwrite(std::string(10, 'x').data(), 1, 10, f.fp);
    std::rewind(f.fp);
    ByteRing ts(8, 5);
    tu::Verbose loud(4);
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(read_mpeg(f.fp, ts.v, 3), 3u); }), "MPEG-2_read : 3 samples\n");
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(read_mpeg(f.fp, ts.v, 0), 0u); }),
              "MPEG-2_read : 0 samples\n");  // no room asked
    EXPECT_EQ(ts.v->fill, 3u);
    EXPECT_EQ(read_mpeg(f.fp, ts.v, 100), 5u);
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(read_mpeg(f.fp, ts.v, 100), 0u); }), "");  // full
    ts.v->fill = 0;
    EXPECT_EQ(read_mpeg(f.fp, ts.v, 100), 2u);
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(read_mpeg(f.fp, ts.v, 100), 0u); }), "MPEG-2_read : 0 samples\n");

    tu::set_parms([](dvbt_parms_t&) {});
    tot_flen = 1000;
    CplxRing td(10);
    td.v->fill = 7;
    const std::string text = tu::captured([&] { EXPECT_EQ(time_dump(td.v, nullptr, nullptr, nullptr, 5), 5); });
    EXPECT_EQ(text.substr(0, 24), "Time dump   : 5 samples\n");
    EXPECT_TRUE(tu::contains(text, "% done (S")) << text;
    EXPECT_EQ(td.v->fill, 2u);
    td.v->fill = 0;
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(time_dump(td.v, nullptr, nullptr, nullptr, 5), 0); }), "");
}

// ---- Sample formats and progress ------------------------------------------

// The std format is the chain test's (every byte of every run); the two integer
// formats here at the edges of their ranges, across the end of the ring.
TEST(SampleOutput, IntegerFormatsByteForByteAcrossTheWrap) {
    tu::Verbose quiet(0);
    // agi: truncation toward zero in double, beyond 16 bits (NaN and infinities too) -32768;
    // three rounds so that the wide form has whole groups of eight, for each instruction set.
    tu::set_parms([](dvbt_parms_t& p) { p.dumpformat = 1; });
    tdstream_sf = 1000.0f;
    const std::vector<dvbComplex> agi_in{{1.5f, -2.5f},   {0.005f, -0.0019f}, {32.7675f, -32.7685f},
                                         {40.0f, -40.0f}, {NAN, INFINITY},    {1e30f, -1e30f}};
    const std::vector<uint8_t> agi_out{0x05, 0xDC, 0xF6, 0x3C, 0x00, 0x04, 0xFF, 0xFF, 0x7F, 0xFF, 0x80, 0x00,
                                       0x80, 0x00, 0x80, 0x00, 0x80, 0x00, 0x80, 0x00, 0x80, 0x00, 0x80, 0x00};
    for (dvbIsa isa : tu::isas()) {
        tu::IsaScope scope(isa);
        CplxRing ring(20, 13);
        TmpFile a;
        for (int round = 0; round < 3; ++round) ring.push(agi_in);
        EXPECT_EQ(time_dump(ring.v, a.fp, nullptr, nullptr, 400000), 18);  // 32767 and -32768 are the ends of the range
        const auto bytes = a.bytes();
        for (size_t round = 0; round < 3; ++round)
            EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 24 * round, bytes.begin() + 24 * (round + 1)), agi_out)
                << isa;
    }

    // agiold: offset codes modulo 65536, I and Q in two files; nothing written unless both are open.
    dvbt_parms.dumpformat = 2;
    tdstream_sf = 8191.0f;
    CplxRing in(4, 3);
    in.push({{0.0f, -1.0f}, {1.0f, -1.0001f}, {2.0f, -3.0f}});
    TmpFile fi, fq;
    EXPECT_EQ(time_dump(in.v, nullptr, fi.fp, fq.fp, 400000), 3);
    EXPECT_EQ(fi.bytes(), (std::vector<uint8_t>{0x20, 0x00, 0x3F, 0xFF, 0x5F, 0xFE}));
    EXPECT_EQ(fq.bytes(), (std::vector<uint8_t>{0x00, 0x01, 0x00, 0x01, 0xC0, 0x03}));
    in.push({{1.0f, 1.0f}});
    EXPECT_EQ(time_dump(in.v, nullptr, fi.fp, nullptr, 400000), 1);
    EXPECT_EQ(fi.bytes().size(), 6u);
}

// The clock of the speed report counts user and system time, as the process's own usage does.
TEST(Timing, TicTocCountsUserAndSystemTime) {
    auto usage = [] {
        rusage ru{};
        getrusage(RUSAGE_SELF, &ru);
        return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
               static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    };
    EXPECT_EQ(dvbTic(), 0.0);
    const double t0 = usage();
    FILE* null = std::fopen("/dev/null", "wb");
    std::setvbuf(null, nullptr, _IONBF, 0);
    for (int i = 0; i < 200000; ++i) std::fputc('x', null);  // system time
    volatile double x = 0;
    for (int i = 0; i < 30000000; ++i) x = x + i;  // user time
    const double t = dvbToc(), t1 = usage();
    std::fclose(null);
    EXPECT_GT(t, 0.0);
    EXPECT_NEAR(t, t1 - t0, 0.01);
}

// ---- Library transfers not used by the chain ------------------------------

TEST(LibraryTransfers, ParameterisedDispersalAndByteRingMoves) {
    ByteRing a(20), b(20), c(20);
    tu::Vec q(Symbol);
    dvbConstVect(q.v, Symbol, 7, 0x0F);
    a.push(std::vector<uint8_t>(3, 0x47));
    uint32_t n = 99;
    tu::Verbose loud(4);
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(dvbTSDisperdInvert(a.v, b.v, q.v, 4, 8, 100, "tsd", nullptr, &n), 0u); }),
              "tsd => process : 3 samples\n");
    EXPECT_EQ(b.pop_all(), (std::vector<uint8_t>{0xB8, 0x48, 0x48}));
    EXPECT_EQ(dvbTSDisperdInvert(a.v, b.v, q.v, 4, 8, 100, "tsd", nullptr, &n), 1u);  // nothing held
    EXPECT_EQ(n, 0u);
    a.push({1});
    b.v->fill = b.v->len;
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(dvbTSDisperdInvert(a.v, b.v, q.v, 4, 8, 100, "tsd", nullptr, &n), 1u); }),
              "");  // no room
    b.v->fill = 0;
    out2null(a.v, 1);
    a.push({1, 2, 3, 4, 5, 6});
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(in2out(a.v, b.v, 4), 1u); }), "in2out:   4\n");
    EXPECT_EQ(out2null(a.v, 1), 1u);
    TmpFile f;
    EXPECT_EQ(out2file(a.v, f.fp, 10), 1u);
    EXPECT_EQ(out2file(b.v, f.fp, 3), 3u);
    EXPECT_EQ(out2file(b.v, nullptr, 3), 1u);
    EXPECT_EQ(f.bytes(), (std::vector<uint8_t>{6, 1, 2, 3}));
    std::rewind(f.fp);
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(file2in(f.fp, c.v, 3), 1u); }), "file2in:  3\n");
    EXPECT_EQ(tu::captured([&] { EXPECT_EQ(file2in(f.fp, c.v, 3), 0u); }), "file2in:  1\n");  // one byte left
    EXPECT_EQ(c.pop_all(), (std::vector<uint8_t>{6, 1, 2, 3}));
    EXPECT_EQ(out2null(c.v, 5), 0u);
}

}  // namespace
