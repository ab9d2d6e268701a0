// Interpolation filter: equality with the full filter on the zero-stuffed
// input, the fast form against the plain per-phase form, the known impulse and
// constant answers, the streaming rule, and the spectrum of real 2x/4x runs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "cli_util.hpp"
#include "frame/params.hpp"
#include "ofdm/filter.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::CplxRing;

void setup(uint32_t interp) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.interp = interp;
    init_filt();
}

std::vector<dvbComplex> random_samples(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<float> d(0.0f, 30.0f);
    std::vector<dvbComplex> v(n);
    for (auto& c : v) c = {d(gen), d(gen)};
    return v;
}

// Streams the input through transmit in uneven calls over small rings that wrap.
std::vector<dvbComplex> stream(const std::vector<dvbComplex>& input, uint32_t R, unsigned seed) {
    CplxRing in(37), out(53);
    std::mt19937 gen(seed);
    std::vector<dvbComplex> result;
    size_t next = 0;
    while (result.size() < input.size() * R) {
        const size_t want = gen() % 40;
        for (size_t k = 0; k < want && next < input.size() && in.v->fill < in.v->len; ++k) in.push(input[next++]);
        transmit(in.v, out.v, 1 + gen() % 30, nullptr);
        const size_t take = gen() % 60;
        for (size_t k = 0; k < take && out.v->fill > 0; ++k) result.push_back(out.pop());
    }
    return result;
}

bool same_bits(const dvbComplex& a, const dvbComplex& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(FilterInterp, EqualsFullFilterOnZeroStuffedInput) {
    for (uint32_t interp : {1u, 2u}) {
        setup(interp);
        const uint32_t R = interp == 1 ? 2 : 4;
        const float* h = interp == 1 ? filter2x.data() : filter4x.data();
        const size_t L = interp == 1 ? 31 : 63;
        const auto input = random_samples(700, 11 + interp);
        const auto got = stream(input, R, 5);
        // Direct form over the zero-stuffed input, float sums in tap order.
        std::vector<dvbComplex> z(input.size() * R, dvbComplex{0.0f, 0.0f});
        for (size_t i = 0; i < input.size(); ++i) z[i * R] = input[i];
        for (size_t n = 0; n < z.size(); ++n) {
            dvbComplex y{0.0f, 0.0f};
            for (size_t k = 0; k < L && k <= n; ++k) {
                y.re += h[k] * z[n - k].re;
                y.im += h[k] * z[n - k].im;
            }
            ASSERT_TRUE(same_bits(y, got[n])) << "R " << R << " output " << n;
        }
    }
}

TEST(FilterInterp, FastFormMatchesPlainPhases) {
    for (uint32_t interp : {1u, 2u}) {
        const uint32_t R = interp == 1 ? 2 : 4;
        setup(interp);
        const auto input = random_samples(3000, 3);
        const auto got = stream(input, R, 9);  // more than the fast form's history store
        std::vector<dvbComplex> y(R);
        for (size_t i = 0; i < input.size(); ++i) {
            transmit_reference_step(input[i], y.data());
            for (uint32_t m = 0; m < R; ++m) ASSERT_TRUE(same_bits(y[m], got[i * R + m])) << "R " << R << " input " << i << " output " << m;
        }
    }
}

TEST(FilterInterp, ImpulseAndConstantAnswers) {
    setup(1);
    {
        CplxRing in(64), out(128);
        in.push({1.0f, 0.0f});
        for (int i = 0; i < 20; ++i) in.push({0.0f, 0.0f});
        ASSERT_EQ(transmit(in.v, out.v, 1000, nullptr), 21u);
        for (size_t k = 0; k < 31; ++k) {
            const dvbComplex c = out.pop();
            EXPECT_EQ(c.re, filter2x[k]) << k;
            EXPECT_EQ(c.im, 0.0f);
        }
    }
    setup(2);
    CplxRing in(64), out(256);
    for (int i = 0; i < 40; ++i) in.push({1.0f, 0.0f});
    ASSERT_EQ(transmit(in.v, out.v, 1000, nullptr), 40u);
    const float settled[4] = {0.2547144f, 0.2551731f, 0.2547144f, 0.2551567f};
    for (int i = 0; i < 40; ++i) {
        for (int m = 0; m < 4; ++m) {
            const dvbComplex c = out.pop();
            if (i >= 16) {
                EXPECT_NEAR(c.re, settled[m], 2e-7f) << i << " " << m;
            }
        }
    }
}

TEST(FilterInterp, StreamingRuleUnits) {
    setup(2);
    verbosity = 4;
    CplxRing in(16), out(16);
    for (int i = 0; i < 5; ++i) in.push({1.0f, 1.0f});
    out.v->fill = 13;  // 3 free: less than R
    testing::internal::CaptureStdout();
    EXPECT_EQ(transmit(in.v, out.v, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Transmission: 0 samples\n");
    out.v->fill = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(transmit(in.v, out.v, 3, nullptr), 0u);  // maxlen below R
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Transmission: 0 samples\n");
    out.v->fill = 16;  // full: silent
    testing::internal::CaptureStdout();
    EXPECT_EQ(transmit(in.v, out.v, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    out.v->fill = 0;
    out.v->head = 14;  // outputs of one input straddle the end of the ring
    testing::internal::CaptureStdout();
    EXPECT_EQ(transmit(in.v, out.v, 100, nullptr), 4u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Transmission: 4 samples\n");
    EXPECT_EQ(in.v->fill, 1u);
    EXPECT_EQ(out.v->fill, 16u);
}

TEST(FilterInterp, DumpHoldsTheProducedSamplesAcrossTheWrap) {
    for (uint32_t interp : {1u, 2u}) {
        setup(interp);
        const uint32_t R = interp == 1 ? 2 : 4;
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        CplxRing in(32), out(30);
        out.v->head = 25;  // the first call's outputs wrap, one group straddling the end
        const auto input = random_samples(13, 7);
        for (const auto& c : input) in.push(c);
        std::vector<dvbComplex> expected;
        uint32_t total = 0;
        for (uint32_t maxlen : {5 * R, 3 * R + 1}) {
            const uint32_t n = transmit(in.v, out.v, maxlen, dump);
            total += n;
            while (out.v->fill > 0) expected.push_back(out.pop());
        }
        ASSERT_EQ(total, 8u);
        ASSERT_EQ(expected.size(), size_t{total} * R);
        std::vector<dvbComplex> got(expected.size() + 1);
        std::rewind(dump);
        ASSERT_EQ(std::fread(got.data(), sizeof(dvbComplex), got.size(), dump), expected.size());
        std::fclose(dump);
        for (size_t k = 0; k < expected.size(); ++k) EXPECT_TRUE(same_bits(got[k], expected[k])) << "R " << R << " " << k;
    }
}

// Power spectral density by averaged Hann-windowed periodograms.
std::vector<double> psd(const std::vector<std::complex<float>>& x, size_t n) {
    std::vector<double> acc(n, 0.0);
    std::vector<std::complex<double>> seg(n);
    const double pi = std::acos(-1.0);
    size_t count = 0;
    for (size_t start = 0; start + n <= x.size(); start += n / 2, ++count) {
        for (size_t i = 0; i < n; ++i)
            seg[i] = std::complex<double>(x[start + i]) * (0.5 - 0.5 * std::cos(2 * pi * double(i) / double(n)));
        // Iterative radix-2 transform.
        for (size_t i = 1, j = 0; i < n; ++i) {
            size_t bit = n >> 1;
            for (; j & bit; bit >>= 1) j ^= bit;
            j ^= bit;
            if (i < j) std::swap(seg[i], seg[j]);
        }
        for (size_t len = 2; len <= n; len <<= 1) {
            const std::complex<double> wl = std::polar(1.0, -2 * pi / double(len));
            for (size_t i = 0; i < n; i += len) {
                std::complex<double> w = 1.0;
                for (size_t k = 0; k < len / 2; ++k, w *= wl) {
                    const auto u = seg[i + k], v = seg[i + k + len / 2] * w;
                    seg[i + k] = u + v;
                    seg[i + k + len / 2] = u - v;
                }
            }
        }
        for (size_t i = 0; i < n; ++i) acc[i] += std::norm(seg[i]);
    }
    for (auto& a : acc) a /= double(count);
    return acc;
}

TEST(FilterInterp, ImagesOfRealRunsAreSuppressed) {
    cli::TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(600, 4));
    for (const char* I : {"2x", "4x"}) {
        const double R = I[0] - '0';
        const auto r = cli::tervane(dir.path, {"-i", "in.ts", "-o", "out", "-d", "t", "-I", I, "-v", "0"});
        ASSERT_EQ(r.status, 0);
        const auto bytes = cli::read_file(dir / "out.bin");
        std::vector<std::complex<float>> x(bytes.size() / 8);
        std::memcpy(x.data(), bytes.data(), x.size() * 8);
        ASSERT_GT(x.size(), 100000u);
        const size_t n = 4096;
        const auto p = psd(x, n);
        // Frequency of bin i in units of the input sample rate.
        auto freq = [&](size_t i) { return (i < n / 2 ? double(i) : double(i) - double(n)) * R / double(n); };
        double in_band = 0.0, worst = 0.0;
        size_t in_count = 0;
        for (size_t i = 0; i < n; ++i) {
            const double f = std::fabs(freq(i));
            if (f < 0.4) {
                in_band += p[i];
                ++in_count;
            } else if (f > 0.6) {
                worst = std::max(worst, p[i]);
            }
        }
        in_band /= double(in_count);
        const double db = 10.0 * std::log10(worst / in_band);
        std::printf("[ psd      ] %s: highest density beyond 0.6 fs is %.1f dB below the in-band mean\n", I, -db);
        EXPECT_LT(db, -40.0) << I;
    }
}

TEST(FilterInterp, ProgressAndPayloadCountInputRateSymbols) {
    cli::TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(300, 2));
    std::vector<std::string> lines;
    for (const char* I : {"1x", "2x", "4x"}) {
        const auto r = cli::tervane(dir.path, {"-i", "in.ts", "-o", "o", "-d", "t", "-I", I, "-v", "2"});
        ASSERT_EQ(r.status, 0);
        // The last progress line: share of the input and frame position.
        const size_t end = r.out.rfind(" done (");
        ASSERT_NE(end, std::string::npos);
        const size_t start = r.out.rfind('\n', end) + 1;
        lines.push_back(r.out.substr(start, r.out.find('\n', end) - start));
    }
    // The same share and the same frame; the symbol count, a float sum of
    // fractional symbols when a call's samples are not whole symbols, may end
    // one symbol short.
    for (size_t k = 1; k < 3; ++k) {
        EXPECT_EQ(lines[k].substr(0, lines[k].find('(')), lines[0].substr(0, lines[0].find('(')));
        EXPECT_EQ(lines[k].substr(lines[k].find(',')), lines[0].substr(lines[0].find(',')));
        const int s0 = std::stoi(lines[0].substr(lines[0].find("(S") + 2, 2));
        const int sk = std::stoi(lines[k].substr(lines[k].find("(S") + 2, 2));
        EXPECT_LE(std::abs(s0 - sk), 1) << lines[k];
    }
}

}  // namespace
