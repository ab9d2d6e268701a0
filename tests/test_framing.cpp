// Frame adaptation and TPS: known TPS words, the BCH code checked by an
// independent polynomial division, the pilot/TPS/data layout of every mode and
// phase against a model of the frame, the DBPSK of the TPS cells and the
// frame/superframe counting.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "ofdm/framing.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::CplxRing;
using testutil::Verbose;

void set_params(uint32_t mode, uint32_t M, uint32_t alpha, uint32_t delta, uint32_t rate, uint32_t rate_hp,
                uint32_t rate_lp, int32_t cid, uint32_t idi) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.mode = mode;
    dvbt_parms.M = M;
    dvbt_parms.alpha = alpha;
    dvbt_parms.delta = delta;
    dvbt_parms.rate = rate;
    dvbt_parms.rate_hp = rate_hp;
    dvbt_parms.rate_lp = rate_lp;
    dvbt_parms.band = 3;
    dvbt_parms.cid = cid;
    dvbt_parms.idi = idi;
}

// Distinct data cells that can be neither a pilot nor a TPS value.
std::vector<dvbComplex> data_cells(uint32_t n, uint32_t base) {
    std::vector<dvbComplex> d(n);
    for (uint32_t i = 0; i < n; i++)
        d[i] = {static_cast<float>(base + i) + 0.25f, -static_cast<float>(base + i) - 0.5f};
    return d;
}

// Builds symbols one at a time from a ring holding one symbol, in the current mode.
void advance_symbols(uint32_t count) {
    const auto N = static_cast<uint32_t>(dvbt_N[dvbt_parms.mode]);
    const auto K = static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]);
    CplxRing in(N);
    CplxRing out(K);
    Verbose quiet(0);
    for (uint32_t u = 0; u < count; u++) {
        in.v->fill = N;
        ASSERT_EQ(piltps_add(in.v, out.v, N, nullptr), N);
        out.v->fill = 0;
    }
}

// Brings the frame counters to symbol 0 of frame 0 of a superframe.
void rewind_to_superframe() {
    const auto done = static_cast<uint32_t>(framing_frame_num() * 68 + framing_sym_num());
    if (done != 0) advance_symbols(272 - done);
    ASSERT_EQ(framing_sym_num(), 0);
    ASSERT_EQ(framing_frame_num(), 0);
}

// Reference sequence from an 11-cell shift register: output is cell 0, the new
// cell is the XOR of cells 0 and 2 (x^11 + x^2 + 1), all cells one at start.
std::vector<uint8_t> prbs_reference(size_t n) {
    std::vector<uint8_t> out(n);
    uint32_t reg = 0x7FF;
    for (size_t i = 0; i < n; i++) {
        out[i] = static_cast<uint8_t>(reg & 1u);
        const uint32_t fb = (reg ^ (reg >> 2)) & 1u;
        reg = (reg >> 1) | (fb << 10);
    }
    return out;
}

std::string bits(std::span<const uint8_t, 68> s, size_t from, size_t to) {
    std::string r;
    for (size_t i = from; i <= to; i++) r += static_cast<char>('0' + s[i]);
    return r;
}

std::string two_bits(int v) { return {static_cast<char>('0' + (v >> 1) % 2), static_cast<char>('0' + v % 2)}; }

// True when s1 .. s67 (s1 of degree 66) is a multiple of
// h(X) = X^14 + X^9 + X^8 + X^6 + X^5 + X^4 + X^2 + X + 1.
bool divisible_by_h(std::span<const uint8_t, 68> s) {
    std::vector<uint8_t> r(s.begin() + 1, s.end());  // r[0] has degree 66
    const int h_degrees[] = {14, 9, 8, 6, 5, 4, 2, 1, 0};
    for (size_t i = 0; i + 14 < r.size(); i++) {
        if (r[i] == 0) continue;
        for (int d : h_degrees) r[i + 14 - static_cast<size_t>(d)] ^= 1u;
    }
    for (uint8_t x : r)
        if (x != 0) return false;
    return true;
}

enum class Cell { Pilot, Tps, Data };

Cell classify(uint32_t mode, int32_t l, int32_t k) {
    if (k % 12 == 3 * (l % 4)) return Cell::Pilot;
    for (int32_t i = 0; i < cpilot_count[mode]; i++)
        if (cpilot[static_cast<size_t>(i)] == k) return Cell::Pilot;
    for (int32_t j = 0; j < tps_count[mode]; j++)
        if (tps[static_cast<size_t>(j)] == k) return Cell::Tps;
    return Cell::Data;
}

// Checks one symbol l against the frame model: pilots +-4/3 by the reference
// sequence, TPS cells +-1 equal to the module's amplitudes, data cells in order.
void check_symbol(uint32_t mode, int32_t l, const std::vector<dvbComplex>& sym, const std::vector<dvbComplex>& data) {
    const auto K = static_cast<size_t>(dvbt_K[mode]);
    ASSERT_EQ(sym.size(), K);
    const std::vector<uint8_t> ref = prbs_reference(K);
    const auto ampl = framing_tps_ampl();
    size_t d = 0;
    size_t j = 0;
    for (size_t k = 0; k < K; k++) {
        const dvbComplex c = sym[k];
        switch (classify(mode, l, static_cast<int32_t>(k))) {
        case Cell::Pilot:
            ASSERT_EQ(std::bit_cast<uint32_t>(c.re), ref[k] != 0 ? 0xBFAAAAABu : 0x3FAAAAABu) << "k " << k;
            ASSERT_EQ(c.im, 0.0f) << "k " << k;
            break;
        case Cell::Tps:
            ASSERT_TRUE(c.re == 1.0f || c.re == -1.0f) << "k " << k;
            ASSERT_EQ(c.re, ampl[j]) << "k " << k;
            ASSERT_EQ(c.im, 0.0f);
            j++;
            break;
        case Cell::Data:
            ASSERT_LT(d, data.size());
            ASSERT_EQ(c.re, data[d].re) << "k " << k;
            ASSERT_EQ(c.im, data[d].im) << "k " << k;
            d++;
            break;
        }
    }
    EXPECT_EQ(d, static_cast<size_t>(dvbt_N[mode]));
    EXPECT_EQ(j, static_cast<size_t>(tps_count[mode]));
}

}  // namespace

// ---------------------------------------------------------------- TPS

TEST(OfdmTps, ExampleWords) {
    struct Case {
        uint32_t frame, mode, M, alpha, delta, rate, rate_hp, rate_lp;
        int32_t cid;
        uint32_t idi;
        const char *sync, *len, *params, *cell, *parity;
    };
    const Case cases[] = {
        {0, 0, 0, 0, 3, 0, 0, 0, -1, 0, "0011010111101110", "010111", "00000000000000000", "00000000",
         "01100110000100"},
        {1, 2, 2, 0, 0, 2, 0, 0, 0x1234, 0, "1100101000010001", "011111", "01100000100001101", "00110100",
         "10001001000010"},
        {2, 1, 1, 2, 1, 0, 1, 4, 0xABCD, 1, "0011010111101110", "011111", "10011100011001010", "10101011",
         "01111100101110"},
        {3, 2, 2, 3, 2, 0, 3, 0, -1, 0, "1100101000010001", "010111", "11100110110000101", "00000000",
         "01011110110000"},
    };
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    for (const Case& c : cases) {
        // Reach the frame through the framing stage itself, then recompute for the parameters.
        set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
        while (framing_frame_num() != static_cast<int32_t>(c.frame)) advance_symbols(68);
        set_params(c.mode, c.M, c.alpha, c.delta, c.rate, c.rate_hp, c.rate_lp, c.cid, c.idi);
        init_tps();
        const auto s = framing_s();
        SCOPED_TRACE("frame " + std::to_string(c.frame));
        EXPECT_EQ(s[0], 0);
        EXPECT_EQ(bits(s, 1, 16), c.sync);
        EXPECT_EQ(bits(s, 17, 22), c.len);
        EXPECT_EQ(bits(s, 23, 39), c.params);
        EXPECT_EQ(bits(s, 40, 47), c.cell);
        EXPECT_EQ(bits(s, 48, 53), "000000");
        EXPECT_EQ(bits(s, 54, 67), c.parity);
        EXPECT_TRUE(divisible_by_h(s));
    }
}

TEST(OfdmTps, EveryWordIsACodewordWithItsFields) {
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    const int32_t cids[] = {-1, -7, 0, 0x00FF, 0xFF00, 0x1234, 0x5A5A5, 65535};
    const uint32_t mode_bits[] = {0, 2, 1};
    int words = 0;
    for (int frame = 0; frame < 4; frame++) {
        if (frame > 0) {
            set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
            advance_symbols(68);
        }
        ASSERT_EQ(framing_frame_num(), frame);
        for (uint32_t mode = 0; mode < 3; mode++)
            for (uint32_t M = 0; M < 3; M++)
                for (uint32_t alpha = 0; alpha < 4; alpha++)
                    for (uint32_t delta = 0; delta < 4; delta++)
                        for (uint32_t ra = 0; ra < 5; ra++)
                            for (int32_t cid : cids) {
                                const uint32_t rb = (ra * 3 + 1) % 5;
                                const uint32_t idi = (ra + delta) & 1u;
                                set_params(mode, M, alpha, delta, ra, rb, (rb + 2) % 5, cid, idi);
                                init_tps();
                                const auto s = framing_s();
                                ASSERT_TRUE(divisible_by_h(s)) << bits(s, 0, 67);
                                // Fields encoded independently, most significant bit first.
                                std::string want = "0";
                                want += frame % 2 == 0 ? "0011010111101110" : "1100101000010001";
                                want += cid >= 0 ? "011111" : "010111";
                                auto field = [&want](uint32_t v, int n) {
                                    for (int i = n - 1; i >= 0; i--) want += static_cast<char>('0' + ((v >> i) & 1u));
                                };
                                field(static_cast<uint32_t>(frame), 2);
                                field(M, 2);
                                field(idi, 1);
                                field(alpha, 2);
                                field(alpha != 0 ? rb : ra, 3);
                                field(alpha != 0 ? (rb + 2) % 5 : 0u, 3);
                                field(3 - delta, 2);
                                field(mode_bits[mode], 2);
                                const uint32_t id = cid < 0 ? 0u : static_cast<uint32_t>(cid) & 0xFFFFu;
                                field(frame % 2 == 0 ? id >> 8 : id & 0xFFu, 8);
                                field(0, 6);
                                ASSERT_EQ(bits(s, 0, 53), want);
                                words++;
                            }
    }
    EXPECT_EQ(words, 4 * 3 * 3 * 4 * 4 * 5 * 8);

    // A single flipped bit of a codeword leaves a non-zero remainder.
    set_params(2, 2, 0, 0, 2, 0, 0, 0x1234, 0);
    init_tps();
    std::array<uint8_t, 68> w{};
    const auto s_word = framing_s();
    std::copy(s_word.begin(), s_word.end(), w.begin());
    for (size_t i = 1; i < 68; i++) {
        w[i] ^= 1u;
        EXPECT_FALSE(divisible_by_h(std::span<const uint8_t, 68>(w))) << i;
        w[i] ^= 1u;
    }
}

TEST(OfdmTps, FrameCountingAndWordChangesAtTheBoundary) {
    set_params(0, 1, 0, 0, 1, 0, 0, 0x4321, 0);
    init_tps();
    rewind_to_superframe();
    init_tps();
    const std::string frame0 = bits(framing_s(), 0, 67);
    for (int f = 0; f < 4; f++) {
        advance_symbols(67);
        EXPECT_EQ(framing_sym_num(), 67);
        EXPECT_EQ(framing_frame_num(), f);
        // The word of the frame holds until its last symbol is built.
        EXPECT_EQ(bits(framing_s(), 23, 24), two_bits(f));
        advance_symbols(1);
        const int next = (f + 1) % 4;
        EXPECT_EQ(framing_sym_num(), 0);
        EXPECT_EQ(framing_frame_num(), next);
        const auto s = framing_s();
        EXPECT_EQ(bits(s, 1, 16), next % 2 == 0 ? "0011010111101110" : "1100101000010001");
        EXPECT_EQ(bits(s, 23, 24), two_bits(next));
        EXPECT_EQ(bits(s, 40, 47), next % 2 == 0 ? "01000011" : "00100001");
        EXPECT_TRUE(divisible_by_h(s));
    }
    // After 272 symbols the superframe starts again with the same word.
    EXPECT_EQ(bits(framing_s(), 0, 67), frame0);
}

// ---------------------------------------------------------------- Pilots

TEST(OfdmPilots, ReferenceSequence) {
    const auto w = framing_w();
    const char* first32 = "11111111111000000000110000000111";
    for (size_t i = 0; i < 32; i++) EXPECT_EQ(w[i], first32[i] - '0') << i;
    const std::vector<uint8_t> ref = prbs_reference(6817);
    for (size_t i = 0; i < 6817; i++) ASSERT_EQ(w[i], ref[i]) << i;
}

TEST(OfdmPilots, CarrierTables) {
    EXPECT_EQ(cpilot[44], 1704);
    EXPECT_EQ(cpilot[45], 1752);
    EXPECT_EQ(cpilot[88], 3408);
    EXPECT_EQ(cpilot[89], 3456);
    EXPECT_EQ(cpilot[176], 6816);
    EXPECT_EQ(tps[16], 1687);
    EXPECT_EQ(tps[17], 1738);
    EXPECT_EQ(tps[33], 3391);
    EXPECT_EQ(tps[67], 6799);
    for (size_t i = 1; i < cpilot.size(); i++) EXPECT_LT(cpilot[i - 1], cpilot[i]);
    for (size_t i = 1; i < tps.size(); i++) EXPECT_LT(tps[i - 1], tps[i]);
    // No TPS carrier is a continual or scattered pilot of any phase.
    const std::set<int32_t> cp(cpilot.begin(), cpilot.end());
    for (int32_t k : tps) {
        EXPECT_EQ(cp.count(k), 0u) << k;
        EXPECT_NE(k % 3, 0) << k;
    }
    EXPECT_EQ(std::bit_cast<uint32_t>(pilot_ampl), 0x3FAAAAABu);
}

TEST(OfdmPilots, LayoutOfEveryModeAndPhase) {
    for (uint32_t mode = 0; mode < 3; mode++) {
        set_params(mode, 0, 0, 3, 0, 0, 0, -1, 0);
        rewind_to_superframe();
        const auto N = static_cast<uint32_t>(dvbt_N[mode]);
        const auto K = static_cast<uint32_t>(dvbt_K[mode]);
        for (int32_t l = 0; l < 5; l++) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " symbol " + std::to_string(l));
            ASSERT_EQ(framing_sym_num(), l);
            CplxRing in(N);
            CplxRing out(K);
            const auto data = data_cells(N, 1000u * static_cast<uint32_t>(l));
            in.push(data);
            Verbose quiet(0);
            ASSERT_EQ(piltps_add(in.v, out.v, N, nullptr), N);
            EXPECT_EQ(in.v->fill, 0u);
            EXPECT_EQ(out.v->fill, K);
            const auto sym = out.pop_all();
            check_symbol(mode, l, sym, data);
            // The highest carrier is a continual pilot in every symbol.
            EXPECT_EQ(std::abs(sym[K - 1].re), pilot_ampl);
        }
    }
}

TEST(OfdmPilots, FirstCarriersOf2kSymbol0) {
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    CplxRing in(1512);
    CplxRing out(1705);
    const auto d = data_cells(1512, 0);
    in.push(d);
    Verbose quiet(0);
    ASSERT_EQ(piltps_add(in.v, out.v, 1512, nullptr), 1512u);
    const auto c = out.pop_all();
    const float P = pilot_ampl;
    EXPECT_EQ(c[0].re, -P);
    for (size_t k = 1; k <= 11; k++) EXPECT_EQ(c[k].re, d[k - 1].re) << k;
    EXPECT_EQ(c[12].re, P);
    for (size_t k = 13; k <= 23; k++) EXPECT_EQ(c[k].re, d[k - 2].re) << k;
    EXPECT_EQ(c[24].re, P);
    for (size_t k = 25; k <= 33; k++) EXPECT_EQ(c[k].re, d[k - 3].re) << k;
    EXPECT_EQ(c[34].re, 1.0f);
    EXPECT_EQ(c[35].re, d[31].re);
    EXPECT_EQ(c[36].re, P);
    EXPECT_EQ(c[47].re, d[42].re);
    // Carrier 48 is scattered and continual, written once; 49 is data, 50 TPS, 54 the next continual pilot.
    EXPECT_EQ(c[48].re, -P);
    EXPECT_EQ(c[49].re, d[43].re);
    EXPECT_EQ(c[50].re, -1.0f);
    EXPECT_EQ(c[51].re, d[44].re);
    EXPECT_EQ(c[54].re, framing_w()[54] != 0 ? -P : P);
    EXPECT_EQ(c[1704].re, -P);
}

TEST(OfdmPilots, TpsDbpskOverAFrame) {
    set_params(0, 2, 0, 1, 3, 0, 0, 0x0F0F, 0);
    init_tps();
    rewind_to_superframe();
    const auto s_frame = framing_s();
    const std::vector<uint8_t> s0(s_frame.begin(), s_frame.end());
    const std::vector<uint8_t> ref = prbs_reference(1705);
    std::vector<float> start(17);
    int parity = 0;
    for (int32_t l = 0; l < 68; l++) {
        CplxRing in(1512);
        CplxRing out(1705);
        in.push(data_cells(1512, 7));
        Verbose quiet(0);
        ASSERT_EQ(piltps_add(in.v, out.v, 1512, nullptr), 1512u);
        const auto sym = out.pop_all();
        if (l > 0) parity ^= s0[static_cast<size_t>(l)];
        for (size_t j = 0; j < 17; j++) {
            const auto k = static_cast<size_t>(tps[j]);
            if (l == 0) {
                EXPECT_EQ(sym[k].re, ref[k] != 0 ? -1.0f : 1.0f) << j;
                start[j] = sym[k].re;
            } else {
                EXPECT_EQ(sym[k].re, parity != 0 ? -start[j] : start[j]) << "l " << l << " j " << j;
            }
            EXPECT_EQ(sym[k].im, 0.0f);
        }
    }
    EXPECT_EQ(framing_frame_num(), 1);
}

TEST(OfdmPilots, StreamingRules) {
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    Verbose loud;
    {  // Empty input, full output: nothing at all.
        CplxRing in(1512);
        CplxRing out(1705);
        testing::internal::CaptureStdout();
        EXPECT_EQ(piltps_add(in.v, out.v, 1512, nullptr), 0u);
        in.push(data_cells(1512, 0));
        out.v->fill = 1705;
        EXPECT_EQ(piltps_add(in.v, out.v, 1512, nullptr), 0u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(in.v->fill, 1512u);
    }
    {  // N - 1 cells, room for K - 1, maxlen below N: zero with the message.
        CplxRing in(4000);
        CplxRing out(4000);
        in.push(data_cells(1511, 0));
        testing::internal::CaptureStdout();
        EXPECT_EQ(piltps_add(in.v, out.v, 4000, nullptr), 0u);
        in.push(data_cells(10, 0));
        out.v->fill = 4000 - 1704;
        EXPECT_EQ(piltps_add(in.v, out.v, 4000, nullptr), 0u);
        out.v->fill = 0;
        EXPECT_EQ(piltps_add(in.v, out.v, 1511, nullptr), 0u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Framing     : 0 samples\nFraming     : 0 samples\nFraming     : 0 samples\n");
        EXPECT_EQ(in.v->fill, 1521u);
        EXPECT_EQ(in.v->head, 0u);
        EXPECT_EQ(framing_sym_num(), 0);
    }
    {  // Several symbols are bounded by input, output room and maxlen.
        CplxRing in(3 * 1512);
        CplxRing out(3 * 1705);
        in.push(data_cells(3 * 1512, 0));
        out.v->fill = 1705 - 5;
        testing::internal::CaptureStdout();
        EXPECT_EQ(piltps_add(in.v, out.v, 3 * 1512, nullptr), 2u * 1512u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Framing     : 3024 samples\n");
        EXPECT_EQ(out.v->fill, 3u * 1705u - 5u);
        out.v->fill = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(piltps_add(in.v, out.v, 1512 * 2 - 1, nullptr), 1512u);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(framing_sym_num(), 3);
    }
}

TEST(OfdmPilots, RingsWrapAndDumpMatches) {
    set_params(1, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    const uint32_t N = 3024;
    const uint32_t K = 3409;
    Verbose quiet(0);
    // Both rings start near their ends, so both symbols' reads and writes wrap.
    CplxRing in(N + 100, N);
    CplxRing out(2 * K + 7, 2 * K);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    std::vector<dvbComplex> all;
    for (int32_t l = 0; l < 2; l++) {
        const auto data = data_cells(N, 5000u * static_cast<uint32_t>(l));
        in.push(data);
        ASSERT_EQ(piltps_add(in.v, out.v, 100000, dump), N);
        const auto sym = out.pop_all();
        check_symbol(1, l, sym, data);
        all.insert(all.end(), sym.begin(), sym.end());
    }
    EXPECT_EQ(in.v->head, (N + N + N) % (N + 100));
    std::fflush(dump);
    std::rewind(dump);
    std::vector<dvbComplex> got(all.size() + 1);
    ASSERT_EQ(std::fread(got.data(), sizeof(dvbComplex), got.size(), dump), all.size());
    std::fclose(dump);
    for (size_t i = 0; i < all.size(); i++) {
        ASSERT_EQ(std::bit_cast<uint64_t>(got[i]), std::bit_cast<uint64_t>(all[i])) << i;
    }
}
