// OFDM modulator: the transform against a direct DFT in double, the carrier
// placement of the three frequency mappings, the cyclic prefix, the streaming
// rules, and bit identity of the fast transforms with the plain one.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "ofdm/ofdm.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::CplxRing;
using testutil::Verbose;

void setup(uint32_t mode, uint32_t delta, uint32_t ifftmm) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.mode = mode;
    dvbt_parms.delta = delta;
    dvbt_parms.ifftmm = ifftmm;
    init_ifft();
}

uint32_t F_of(uint32_t mode) { return static_cast<uint32_t>(dvbt_fftsize[mode]); }
uint32_t K_of(uint32_t mode) { return static_cast<uint32_t>(dvbt_K[mode]); }

// Bin of carrier k under each mapping, from the carrier numbering around the centre carrier.
uint32_t bin_of(uint32_t mode, uint32_t mapping, uint32_t k) {
    const auto F = static_cast<int64_t>(F_of(mode));
    const auto K = static_cast<int64_t>(K_of(mode));
    const int64_t centre = (K - 1) / 2;
    const int64_t kk = static_cast<int64_t>(k);
    int64_t m = 0;
    if (mapping == 0) m = kk - centre;
    else if (mapping == 1) m = kk + (F - K + 1) / 2;
    else m = centre - kk;
    return static_cast<uint32_t>(((m % F) + F) % F);
}

std::vector<dvbComplex> random_cells(uint32_t n, std::mt19937& rng, float scale = 1.0f) {
    std::uniform_real_distribution<float> u(-scale, scale);
    std::vector<dvbComplex> c(n);
    for (auto& x : c) x = {u(rng), u(rng)};
    return c;
}

// Modulates one symbol and returns its prf_len samples.
std::vector<dvbComplex> modulate(const std::vector<dvbComplex>& cells, uint32_t prf_len) {
    const auto K = static_cast<uint32_t>(cells.size());
    CplxRing in(K);
    CplxRing out(prf_len);
    in.push(cells);
    Verbose quiet(0);
    EXPECT_EQ(ofdm_mod(in.v, out.v, K, nullptr), K);
    EXPECT_EQ(out.v->fill, prf_len);
    return out.pop_all();
}

uint32_t prf_of(uint32_t mode, uint32_t delta) { return F_of(mode) >> (2 + delta); }

uint32_t bit_reverse(uint32_t i, uint32_t bits) {
    uint32_t r = 0;
    for (uint32_t b = 0; b < bits; b++) r |= ((i >> b) & 1u) << (bits - 1 - b);
    return r;
}

}  // namespace

TEST(OfdmFft, MatchesDirectDftForEveryModeAndMapping) {
    std::mt19937 rng(2024);
    for (uint32_t mode = 0; mode < 3; mode++) {
        const uint32_t F = F_of(mode);
        const uint32_t K = K_of(mode);
        // e^(+i 2 pi n / F) in double.
        std::vector<double> cs(F), sn(F);
        for (uint32_t n = 0; n < F; n++) {
            const double a = 2.0 * std::numbers::pi * n / F;
            cs[n] = std::cos(a);
            sn[n] = std::sin(a);
        }
        for (uint32_t mapping = 0; mapping < 3; mapping++) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " mapping " + std::to_string(mapping));
            setup(mode, 1, mapping);
            const auto cells = random_cells(K, rng);
            const uint32_t prf = prf_of(mode, 1);
            const auto y = modulate(cells, F + prf);
            ASSERT_EQ(y.size(), F + prf);
            // Direct sum over the occupied bins, every 8th sample in 8k to keep the test short.
            const uint32_t step = mode == 2 ? 8 : 1;
            double max_err = 0.0;
            double sum_err2 = 0.0;
            uint32_t checked = 0;
            for (uint32_t u = 0; u < F; u += step) {
                double re = 0.0, im = 0.0;
                for (uint32_t k = 0; k < K; k++) {
                    const uint64_t m = bin_of(mode, mapping, k);
                    const uint32_t idx = static_cast<uint32_t>((m * u) % F);
                    re += cells[k].re * cs[idx] - cells[k].im * sn[idx];
                    im += cells[k].re * sn[idx] + cells[k].im * cs[idx];
                }
                const dvbComplex got = y[prf + u];
                const double e = std::hypot(got.re - re, got.im - im);
                max_err = std::max(max_err, e);
                sum_err2 += e * e;
                checked++;
            }
            // Errors relative to the rms output level sqrt(2K/3). The twiddle recurrence
            // runs from single-precision seeds, so its phase drifts by up to about 2e-2
            // over the 2048 and 4096 steps of the last stages in 4k and 8k; 2k stays
            // near 1e-3. A misplaced bin or a wrong twiddle gives errors of order 1.
            const double level = std::sqrt(2.0 * K / 3.0);
            const double rms = std::sqrt(sum_err2 / checked);
            const double rms_limit[3] = {2e-3, 3e-2, 3e-2};
            const double max_limit[3] = {8e-3, 1e-1, 1e-1};
            EXPECT_LT(rms / level, rms_limit[mode]) << "max " << max_err / level;
            EXPECT_LT(max_err / level, max_limit[mode]) << "rms " << rms / level;
            // Cyclic prefix: the last prf useful samples, bit for bit.
            EXPECT_EQ(std::memcmp(y.data(), y.data() + F, prf * sizeof(dvbComplex)), 0);
        }
    }
}

TEST(OfdmFft, CarrierPlacementOf2kMappings) {
    struct Case {
        uint32_t mapping, carrier, bin;
    };
    const Case cases[] = {{0, 852, 0},    {0, 1704, 852}, {0, 0, 1196},   {0, 851, 2047}, {2, 852, 0},
                          {2, 0, 852},    {2, 1704, 1196}, {2, 853, 2047}, {1, 0, 172},    {1, 1704, 1876},
                          {1, 852, 1024}, {0, 853, 1},    {2, 851, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE("mapping " + std::to_string(c.mapping) + " carrier " + std::to_string(c.carrier));
        EXPECT_EQ(bin_of(0, c.mapping, c.carrier), c.bin);
        setup(0, 3, c.mapping);
        std::vector<dvbComplex> cells(1705, dvbComplex{0.0f, 0.0f});
        cells[c.carrier] = {1.0f, 0.0f};
        const auto y = modulate(cells, 2112);
        // A single bin m gives e^(+i 2 pi m u / F): the phase step tells the bin.
        const double step = std::atan2(y[64 + 1].im, y[64 + 1].re);
        const long m = std::lround(step * 2048.0 / (2.0 * std::numbers::pi));
        EXPECT_EQ(static_cast<uint32_t>((m + 2048) % 2048), c.bin);
    }
}

TEST(OfdmFft, FastTransformsAreBitIdenticalToThePlainOne) {
    std::mt19937 rng(77);
    for (uint32_t mode = 0; mode < 3; mode++) {
        const uint32_t F = F_of(mode);
        const uint32_t K = K_of(mode);
        const uint32_t bits = 11 + mode;
        for (uint32_t mapping = 0; mapping < 3; mapping++) {
            setup(mode, 3, mapping);
            SCOPED_TRACE("mode " + std::to_string(mode) + " mapping " + std::to_string(mapping));
            // Symbols of very different levels, as pilots, data and large values give.
            for (float scale : {1.0f, 1e-3f, 1e4f}) {
                const auto cells = random_cells(K, rng, scale);
                const auto y = modulate(cells, F + prf_of(mode, 3));
                // The same spectrum placed here and transformed by the plain recurrence.
                std::vector<dvbComplex> x(F, dvbComplex{0.0f, 0.0f});
                for (uint32_t k = 0; k < K; k++) x[bit_reverse(bin_of(mode, mapping, k), bits)] = cells[k];
                std::vector<dvbComplex> a = x, b = x;
                ofdm_ifft_reference(a.data());
                ofdm_ifft_generic(b.data());
                EXPECT_EQ(std::memcmp(y.data() + prf_of(mode, 3), a.data(), F * sizeof(dvbComplex)), 0) << scale;
                EXPECT_EQ(std::memcmp(b.data(), a.data(), F * sizeof(dvbComplex)), 0) << scale;
            }
            // Arbitrary full buffers (every bin used) through all three forms.
            std::vector<dvbComplex> x = random_cells(F, rng, 100.0f);
            std::vector<dvbComplex> a = x, b = x, c = x;
            ofdm_ifft_reference(a.data());
            ofdm_ifft(b.data());
            ofdm_ifft_generic(c.data());
            EXPECT_EQ(std::memcmp(a.data(), b.data(), F * sizeof(dvbComplex)), 0);
            EXPECT_EQ(std::memcmp(a.data(), c.data(), F * sizeof(dvbComplex)), 0);
        }
    }
}

TEST(OfdmFft, StreamingRules) {
    setup(2, 0, 0);
    const uint32_t K = 6817;
    Verbose loud;
    CplxRing in(3 * K);
    CplxRing out(20480 + 3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ofdm_mod(in.v, out.v, 3 * K, nullptr), 0u);  // empty input: no message
    in.push(std::vector<dvbComplex>(K - 1, dvbComplex{1.0f, -1.0f}));
    EXPECT_EQ(ofdm_mod(in.v, out.v, 3 * K, nullptr), 0u);  // short input: zero with the message
    in.push(std::vector<dvbComplex>(2 * K + 1, dvbComplex{1.0f, -1.0f}));
    EXPECT_EQ(ofdm_mod(in.v, out.v, 3 * K, nullptr), 2 * K);  // room for two symbols of the three
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "OFDM        : 0 samples\nOFDM        : 13634 samples\n");
    EXPECT_EQ(out.v->fill, 20480u);
    EXPECT_EQ(in.v->fill, K);
}

TEST(OfdmFft, RingsWrapAndDumpMatches) {
    setup(0, 2, 1);
    const uint32_t K = 1705;
    const uint32_t L = 2176;
    std::mt19937 rng(5);
    const auto s1 = random_cells(K, rng);
    const auto s2 = random_cells(K, rng);
    // Straight rings first, then rings whose reads and writes wrap.
    std::vector<dvbComplex> want = modulate(s1, L);
    const auto want2 = modulate(s2, L);
    want.insert(want.end(), want2.begin(), want2.end());

    CplxRing in(K + 300, K);
    CplxRing out(2 * L + 11, L + 100);
    in.push(s1);
    in.push(std::vector<dvbComplex>(s2.begin(), s2.begin() + 290));
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    Verbose quiet(0);
    ASSERT_EQ(ofdm_mod(in.v, out.v, 10 * K, dump), K);
    in.push(std::vector<dvbComplex>(s2.begin() + 290, s2.end()));
    ASSERT_EQ(ofdm_mod(in.v, out.v, 10 * K, dump), K);
    const auto got = out.pop_all();
    ASSERT_EQ(got.size(), want.size());
    EXPECT_EQ(std::memcmp(got.data(), want.data(), want.size() * sizeof(dvbComplex)), 0);
    std::fflush(dump);
    std::rewind(dump);
    std::vector<dvbComplex> file(want.size() + 1);
    ASSERT_EQ(std::fread(file.data(), sizeof(dvbComplex), file.size(), dump), want.size());
    std::fclose(dump);
    EXPECT_EQ(std::memcmp(file.data(), want.data(), want.size() * sizeof(dvbComplex)), 0);
}
