// Frame adaptation and TPS: known TPS words, the BCH code checked by an
// independent polynomial division, the pilot/TPS/data layout of every mode and
// phase against a model of the frame, the DBPSK of the TPS cells and the
// frame/superframe counting.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
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
    dvbt_parms = dvbt_parms_t{mode, M, alpha, delta, rate, rate_hp, rate_lp, 3, 0, 0, 0, 0, 0.0f, cid, idi};
}

// Distinct data cells that can be neither a pilot nor a TPS value.
std::vector<dvbComplex> data_cells(uint32_t n, uint32_t base) {
    std::vector<dvbComplex> d(n);
    for (uint32_t i = 0; i < n; i++)
        d[i] = {static_cast<float>(base + i) + 0.25f, -static_cast<float>(base + i) - 0.5f};
    return d;
}

// Builds one symbol of the current mode from its data cells and returns its K cells.
std::vector<dvbComplex> build_symbol(const std::vector<dvbComplex>& data) {
    const auto N = static_cast<uint32_t>(dvbt_N[dvbt_parms.mode]);
    CplxRing in(N);
    CplxRing out(static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]));
    in.push(data);
    Verbose quiet(0);
    EXPECT_EQ(piltps_add(in.v, out.v, N, nullptr), N);
    return out.pop_all();
}

void advance_symbols(uint32_t count) {
    for (uint32_t u = 0; u < count; u++) build_symbol(std::vector<dvbComplex>(static_cast<size_t>(dvbt_N[dvbt_parms.mode])));
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
        const Cell cell = classify(mode, l, static_cast<int32_t>(k));
        if (cell == Cell::Pilot) {
            ASSERT_EQ(std::bit_cast<uint32_t>(c.re), ref[k] != 0 ? 0xBFAAAAABu : 0x3FAAAAABu) << "k " << k;
        } else if (cell == Cell::Tps) {
            ASSERT_TRUE(c.re == 1.0f || c.re == -1.0f) << "k " << k;
            ASSERT_EQ(c.re, ampl[j++]) << "k " << k;
        } else {
            ASSERT_LT(d, data.size());
            ASSERT_EQ(c.re, data[d].re) << "k " << k;
            ASSERT_EQ(c.im, data[d++].im) << "k " << k;
            continue;
        }
        ASSERT_EQ(c.im, 0.0f) << "k " << k;
    }
    EXPECT_EQ(d, static_cast<size_t>(dvbt_N[mode]));
    EXPECT_EQ(j, static_cast<size_t>(tps_count[mode]));
}

}  // namespace

// The four example words bit for bit; in each frame every parameter
// combination must give a codeword of the BCH code.
TEST(OfdmTps, ExampleWordsAndEveryWordIsACodeword) {
    struct Case {
        uint32_t frame, mode, M, alpha, delta, rate, rate_hp, rate_lp;
        int32_t cid;
        uint32_t idi;
        const char* word;  // s0, sync, length, parameters, cell id, reserved, parity
    };
    const Case cases[] = {
        {0, 0, 0, 0, 3, 0, 0, 0, -1, 0,
         "0" "0011010111101110" "010111" "00000000000000000" "00000000" "000000" "01100110000100"},
        {1, 2, 2, 0, 0, 2, 0, 0, 0x1234, 0,
         "0" "1100101000010001" "011111" "01100000100001101" "00110100" "000000" "10001001000010"},
        {2, 1, 1, 2, 1, 0, 1, 4, 0xABCD, 1,
         "0" "0011010111101110" "011111" "10011100011001010" "10101011" "000000" "01111100101110"},
        {3, 2, 2, 3, 2, 0, 3, 0, -1, 0,
         "0" "1100101000010001" "010111" "11100110110000101" "00000000" "000000" "01011110110000"},
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
        EXPECT_EQ(bits(s, 0, 67), c.word) << "frame " << c.frame;
        EXPECT_TRUE(divisible_by_h(s));
        // A flipped bit of a codeword leaves a remainder.
        std::array<uint8_t, 68> w{};
        std::copy(s.begin(), s.end(), w.begin());
        w[30 + c.frame] ^= 1u;
        EXPECT_FALSE(divisible_by_h(std::span<const uint8_t, 68>(w)));
        for (uint32_t n = 0; n < 3 * 3 * 4 * 4 * 5; n++)  // mode, M, alpha, delta, rate
            for (int32_t cid : {-1, 0, 0x00FF, 0xFF00, 0x5A5A5}) {
                const uint32_t ra = n / 144, rb = (ra * 3 + 1) % 5, delta = n / 36 % 4;
                set_params(n % 3, n / 3 % 3, n / 9 % 4, delta, ra, rb, (rb + 2) % 5, cid, (ra + delta) & 1u);
                init_tps();
                ASSERT_TRUE(divisible_by_h(framing_s())) << bits(framing_s(), 0, 67);
            }
    }
}

TEST(OfdmPilots, ReferenceSequenceAndCarrierTables) {
    const auto w = framing_w();
    const char* first32 = "11111111111000000000110000000111";
    for (size_t i = 0; i < 32; i++) EXPECT_EQ(w[i], first32[i] - '0') << i;
    const std::vector<uint8_t> ref = prbs_reference(6817);
    for (size_t i = 0; i < 6817; i++) ASSERT_EQ(w[i], ref[i]) << i;
    // Sums and position-weighted sums of the published carrier lists.
    const auto sums = [](std::span<const int32_t> t) {
        std::pair<int64_t, int64_t> r{0, 0};
        for (size_t i = 0; i < t.size(); i++) r = {r.first + t[i], r.second + static_cast<int64_t>(i + 1) * t[i]};
        return r;
    };
    EXPECT_EQ(sums(cpilot), (std::pair<int64_t, int64_t>{585384, 69870252}));
    EXPECT_EQ(sums(tps), (std::pair<int64_t, int64_t>{230548, 10587414}));
}

TEST(OfdmPilots, LayoutOfEveryModeAndPhase) {
    for (uint32_t mode = 0; mode < 3; mode++) {
        set_params(mode, 0, 0, 3, 0, 0, 0, -1, 0);
        rewind_to_superframe();
        for (int32_t l = 0; l < 5; l++) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " symbol " + std::to_string(l));
            ASSERT_EQ(framing_sym_num(), l);
            const auto data = data_cells(static_cast<uint32_t>(dvbt_N[mode]), 1000u * static_cast<uint32_t>(l));
            check_symbol(mode, l, build_symbol(data), data);
        }
    }
}

TEST(OfdmPilots, FirstCarriersOf2kSymbol0) {
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    const auto d = data_cells(1512, 0);
    const auto c = build_symbol(d);
    // Carriers 0 .. 54: '+'/'-' pilot +-4/3 (48 is scattered and continual), 'T'/'t' TPS +-1, '.' next data cell.
    const std::string want = "-...........+...........+.........T.+...........-.t...-";
    size_t n = 0;
    for (size_t k = 0; k < want.size(); k++) {
        const char w = want[k];
        const float v = w == '.' ? d[n++].re : w == '+' ? pilot_ampl : w == '-' ? -pilot_ampl : w == 'T' ? 1.0f : -1.0f;
        EXPECT_EQ(c[k].re, v) << k;
    }
    EXPECT_EQ(c[1704].re, -pilot_ampl);
}

TEST(OfdmTps, DbpskOverAFrameAndNewWordAtTheBoundary) {
    set_params(0, 2, 0, 1, 3, 0, 0, 0x4321, 0);
    rewind_to_superframe();
    init_tps();
    const std::string word0 = bits(framing_s(), 0, 67);
    EXPECT_EQ(word0.substr(40, 8), "01000011");
    const std::vector<uint8_t> ref = prbs_reference(1705);
    std::vector<float> start(17);
    int parity = 0;
    for (int32_t l = 0; l < 68; l++) {
        // The word of the frame holds until its last symbol is built.
        ASSERT_EQ(framing_sym_num(), l);
        ASSERT_EQ(bits(framing_s(), 0, 67), word0);
        const auto sym = build_symbol(data_cells(1512, 7));
        if (l > 0) parity ^= word0[static_cast<size_t>(l)] - '0';
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
    EXPECT_EQ(framing_sym_num(), 0);
    EXPECT_EQ(framing_frame_num(), 1);
    const auto s = framing_s();
    EXPECT_EQ(bits(s, 1, 16), "1100101000010001");
    EXPECT_EQ(bits(s, 23, 24), "01");
    EXPECT_EQ(bits(s, 40, 47), "00100001");
    EXPECT_TRUE(divisible_by_h(s));
    // After 272 symbols the superframe starts again with the same word.
    advance_symbols(3 * 68);
    EXPECT_EQ(framing_frame_num(), 0);
    EXPECT_EQ(bits(framing_s(), 0, 67), word0);
}

TEST(OfdmPilots, StreamingRules) {
    set_params(0, 0, 0, 3, 0, 0, 0, -1, 0);
    rewind_to_superframe();
    Verbose loud;
    CplxRing in(3 * 1512);
    CplxRing out(3 * 1705);
    testing::internal::CaptureStdout();
    EXPECT_EQ(piltps_add(in.v, out.v, 3 * 1512, nullptr), 0u);  // empty input: no message
    in.push(data_cells(1511, 0));
    EXPECT_EQ(piltps_add(in.v, out.v, 3 * 1512, nullptr), 0u);  // short input: zero with the message
    in.push(data_cells(2 * 1512 + 1, 0));
    out.v->fill = 1705 - 5;  // room for two symbols of the three
    EXPECT_EQ(piltps_add(in.v, out.v, 3 * 1512, nullptr), 2u * 1512u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Framing     : 0 samples\nFraming     : 3024 samples\n");
    EXPECT_EQ(out.v->fill, 3u * 1705u - 5u);
    EXPECT_EQ(in.v->fill, 1512u);
    EXPECT_EQ(framing_sym_num(), 2);
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
    EXPECT_EQ(std::memcmp(got.data(), all.data(), all.size() * sizeof(dvbComplex)), 0);
}
