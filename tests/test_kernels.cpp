// Every optimised kernel against a plain form on the same inputs, byte for
// byte, with each instruction set the processor offers: every transform form
// against the plain recurrence, and the coding stages, the mapper and the
// interpolation filter, fed in random pieces through rings of odd lengths (units and outputs
// straddle the ring ends), against element-by-element models.

#include <cstring>
#include <random>

#include "inner/inner_coder.hpp"
#include "inner/inner_int.hpp"
#include "inner/mapper.hpp"
#include "models.hpp"
#include "ofdm/filter.hpp"
#include "ofdm/ofdm.hpp"
#include "outer/energy.hpp"
#include "outer/outer_int.hpp"
#include "outer/rs.hpp"
#include "util.hpp"

namespace {

using namespace tu;

Bytes random_bytes(size_t n, std::mt19937& g, uint32_t values = 256) {
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g() % values);
    return b;
}

// Feeds input in random pieces through rings of the given lengths, each
// starting part-way, with random call limits, and collects what comes out.
template <typename T, typename U = T>
std::vector<U> stream(const std::vector<T>& input, uint32_t in_len, uint32_t out_len, size_t expect, std::mt19937& g,
                      const std::function<void(dvbVect*, dvbVect*, uint32_t)>& stage) {
    tu::Ring<T> in(in_len, in_len / 2);
    tu::Ring<U> out(out_len, out_len - 3);
    std::vector<U> got;
    for (size_t next = 0, rounds = 0; got.size() < expect && rounds < 200000; ++rounds) {
        std::vector<T> chunk;
        for (size_t k = g() % in_len + 1; k > 0 && next < input.size() && chunk.size() < dvbRingFree(in.v); --k)
            chunk.push_back(input[next++]);
        in.push(chunk);
        stage(in.v, out.v, 1 + g() % (2 * in_len));
        const std::vector<U> part = out.pop_all();
        got.insert(got.end(), part.begin(), part.end());
    }
    return got;
}

TEST(Kernels, EveryTransformFormMatchesThePlainRecurrence) {
    std::mt19937 g(11);
    tu::set_parms([](dvbt_parms_t& p) { p.M = 2; });
    dvbQAMConstGenerate();
    for (uint32_t mode = 0; mode < 3; mode++) {
        for (uint32_t mapping = 0; mapping < 3; mapping++) {
            dvbt_parms.mode = mode, dvbt_parms.ifftmm = mapping;
            init_ifft();
            const auto F = static_cast<size_t>(dvbt_fftsize[mode]);
            std::uniform_real_distribution<float> d(-1.0f, 1.0f);
            // Random cells of three scales, then cells as the chain makes them.
            for (float scale : {1.0f, 1e-3f, 1e4f, 0.0f}) {
                std::vector<dvbComplex> cells(F), want(F), want_sym(F);
                for (auto& c : cells) {
                    const uint32_t r = g() % 16;
                    c = scale != 0.0f ? dvbComplex{scale * d(g), scale * d(g)}
                        : r < 3       ? std::array<dvbComplex, 3>{{{4.0f / 3.0f, 0.0f}, {-1.0f, 0.0f}, {0.0f, 0.0f}}}[r]
                                      : dvbQAMTable()[g() % 64];
                }
                want = cells;
                ofdm_ifft_reference(want.data());
                ofdm_ifft_forms()[0].symbol(cells.data(), want_sym.data());
                for (const ofdm_ifft_form& f : ofdm_ifft_forms()) {
                    if (f.isa > dvbCpuIsa()) continue;
                    std::vector<dvbComplex> got = cells, sym(F);
                    f.transform(got.data());
                    f.symbol(cells.data(), sym.data());
                    EXPECT_EQ(std::memcmp(got.data(), want.data(), F * 8), 0)
                        << f.name << " mode " << mode << " scale " << scale;
                    EXPECT_EQ(std::memcmp(sym.data(), want_sym.data(), F * 8), 0) << f.name << " mapping " << mapping;
                }
            }
        }
    }
}

TEST(Kernels, CodingStagesThroughOddRings) {
    std::mt19937 g(5);
    const Bytes bytes = random_bytes(9001, g), coded = models::encode(bytes);
    const Bytes hp = random_bytes(14 * 756 + 100, g, 2), lp = random_bytes(14 * 504 + 77, g, 2);
    for (dvbIsa isa : isas()) {
        IsaScope scope(isa);
        SCOPED_TRACE("isa " + std::to_string(isa));
        uint32_t st = 0;
        EXPECT_EQ(stream(bytes, 203, 1001, coded.size(), g,
                         [&](dvbVect* i, dvbVect* o, uint32_t m) { encode27(i, o, &st, m, nullptr); }),
                  coded);
        for (uint16_t rate = 0; rate < 5; rate++) {
            const Bytes want = models::puncture(coded, rate);
            EXPECT_EQ(stream(coded, 1001, 777, want.size(), g,
                             [&](dvbVect* i, dvbVect* o, uint32_t m) { puncture(i, o, rate, m, nullptr); }),
                      want)
                << rate;
        }
        for (uint32_t alpha = 0; alpha < 4; alpha++)
            for (uint32_t M = alpha == 0 ? 0 : 1; M < 3; M++) {
                tu::set_parms([&](dvbt_parms_t& p) { p.M = M, p.alpha = alpha; });
                const Bytes want = models::bit_interleave(hp, lp, dvbt_bitpersymb[M], alpha != 0);
                tu::ByteRing in_lp(2503, 7);
                size_t fl = 0;
                EXPECT_EQ(stream(hp, 761, 131, want.size(), g,
                                 [&](dvbVect* i, dvbVect* o, uint32_t m) {
                                     for (; fl < lp.size() && dvbRingFree(in_lp.v) > 0; ++fl) in_lp.push({lp[fl]});
                                     bit_interleave(i, alpha != 0 ? in_lp.v : nullptr, o, m, nullptr);
                                 }),
                          want)
                    << "M " << M << " alpha " << alpha;
            }
        for (uint32_t alpha = 0; alpha < 4; alpha++)
            for (uint32_t M = 0; M < 3; M++) {
                tu::set_parms([&](dvbt_parms_t& p) { p.M = M, p.alpha = alpha; });
                dvbQAMConstGenerate();
                const Bytes words = random_bytes(3001, g);  // the mapper reads the low 6 bits
                std::vector<dvbComplex> want;
                for (uint8_t w : words) want.push_back(dvbQAMTable()[w & 63u]);
                const auto got =
                    stream<uint8_t, dvbComplex>(words, 1001, 777, want.size(), g,
                                                [](dvbVect* i, dvbVect* o, uint32_t m) { qam_map(i, o, m, nullptr); });
                ASSERT_EQ(got.size(), want.size());
                EXPECT_EQ(std::memcmp(got.data(), want.data(), want.size() * sizeof(dvbComplex)), 0)
                    << "M " << M << " alpha " << alpha;
            }
        tu::set_parms([](dvbt_parms_t&) {});
        dvbSymIntAddrGenerate();
        const Bytes words = random_bytes(1512 * 8, g, 4),
                    want = models::symbol_interleave(words, 0, dvbSymIntBlockNum());
        EXPECT_EQ(stream(words, 1601, 1553, want.size(), g,
                         [](dvbVect* i, dvbVect* o, uint32_t m) { symbol_interleave(i, o, m, nullptr); }),
                  want);
    }
}

TEST(Kernels, GroupedReedSolomonRunwiseDispersalAndBranchwiseInterleaver) {
    init_rs();
    std::mt19937 g(3);
    for (uint32_t count : {1u, 4u, 9u}) {
        std::vector<Bytes> pkts(count);
        std::vector<const uint8_t*> ptr;
        for (auto& p : pkts) ptr.push_back((p = random_bytes(188, g)).data());
        std::vector<uint8_t[16]> par(count);
        rs_parity188(ptr.data(), count, par.data());
        for (uint32_t k = 0; k < count; k++) {
            uint8_t data[239] = {}, bb[16];
            for (uint32_t i = 0; i < 188; i++) data[187 - i] = pkts[k][i];
            encode_rs(data, bb);
            for (uint32_t m = 0; m < 16; m++) EXPECT_EQ(par[k][m], bb[15 - m]) << count << " " << k;
        }
    }
    // Odd packet length and period: XOR but at packet starts, the group's first byte inverted.
    const uint32_t plen = 13, period = 91;
    tu::Vec seq(Symbol);
    dvbConstVect(seq.v, Symbol, period - 1, 0);
    for (uint32_t i = 0; i + 1 < period; i++) dvbBytes(seq.v)[i] = static_cast<uint8_t>(g());
    const Bytes in = random_bytes(5000, g);
    Bytes want(in.size());
    for (uint32_t i = 0; i < in.size(); i++) {
        const uint32_t p = i % period;
        want[i] = p == 0 ? static_cast<uint8_t>(~in[i]) : p % plen == 0 ? in[i] : in[i] ^ dvbBytes(seq.v)[p - 1];
    }
    seq.v->head = 0;
    EXPECT_EQ(stream(in, 301, 211, want.size(), g,
                     [&](dvbVect* i, dvbVect* o, uint32_t m) {
                         uint32_t c = 0;
                         dvbTSDisperdInvert(i, o, seq.v, plen, period, m, "ED", nullptr, &c);
                     }),
              want);
    // The outer interleaver with each instruction set: rings whose ends cut
    // groups, calls shorter than a branch's delay and calls of several pieces.
    tu::set_parms([](dvbt_parms_t& p) { p.cinit = 0; });
    const Bytes rs = random_bytes(12 * 4000, g), ci_want = models::outer_interleave(rs);
    for (dvbIsa isa : isas())
        for (const auto& [in_len, out_len] : {std::pair{131u, 127u}, std::pair{25013u, 24997u}}) {
            IsaScope scope(isa);
            convint_state ci{};
            init_convint(&ci, 12, 17);
            EXPECT_EQ(stream(rs, in_len, out_len, ci_want.size(), g,
                             [&](dvbVect* i, dvbVect* o, uint32_t m) { conv_int(i, o, &ci, m, nullptr); }),
                      ci_want)
                << "isa " << isa << " ring " << in_len;
        }
}

// The interpolation filter, fed in uneven pieces through small rings and through
// rings that take the vector forms' blocks and several of the filter's pieces in
// one call, with each instruction set: bit for bit the full filter h (float sums
// in tap order) on the input with R - 1 zeros after every sample, and the plain
// per-phase form agrees. On a constant, 4x settles to the phases' tap sums.
TEST(Kernels, InterpolationIsTheFullFilterOnZeroStuffedInput) {
    std::mt19937 g(5);
    std::normal_distribution<float> d(0.0f, 30.0f);
    std::vector<dvbComplex> input(5000);
    for (auto& c : input) c = {d(g), d(g)};
    input[700] = {-0.0f, 0.0f};  // a negative zero among the sums' terms
    const auto interpolate = [](dvbVect* i, dvbVect* o, uint32_t m) { transmit(i, o, m, nullptr); };
    for (dvbIsa isa : isas())
        for (uint32_t interp : {1u, 2u})
            for (const auto& [in_len, out_len] : {std::pair{37u, 53u}, std::pair{1601u, 4001u}}) {
                IsaScope scope(isa);
                tu::set_parms([interp](dvbt_parms_t& p) { p.interp = interp; });
                init_filt();
                const uint32_t R = interp == 1 ? 2 : 4;
                SCOPED_TRACE("isa " + std::to_string(isa) + " R " + std::to_string(R) + " ring " +
                             std::to_string(in_len));
                const std::vector<float> h = interp == 1 ? std::vector<float>(filter2x.begin(), filter2x.end())
                                                         : std::vector<float>(filter4x.begin(), filter4x.end());
                const auto got = stream(input, in_len, out_len, input.size() * R, g, interpolate);
                ASSERT_EQ(got.size(), input.size() * R);
                init_filt();
                std::vector<dvbComplex> plain(R);
                for (size_t n = 0; n < got.size(); ++n) {
                    dvbComplex y{0.0f, 0.0f};
                    for (size_t k = n % R; k < h.size() && k <= n; k += R) {
                        y.re += h[k] * input[(n - k) / R].re;
                        y.im += h[k] * input[(n - k) / R].im;
                    }
                    ASSERT_EQ(std::memcmp(&y, &got[n], 8), 0) << "output " << n;
                    if (n % R == 0) transmit_reference_step(input[n / R], plain.data());
                    ASSERT_EQ(std::memcmp(&plain[n % R], &got[n], 8), 0) << "plain form, output " << n;
                }
            }
    const float settled[4] = {0.2547144f, 0.2551731f, 0.2547144f, 0.2551567f};
    init_filt();
    const auto y = stream(std::vector<dvbComplex>(40, dvbComplex{1.0f, 0.0f}), 40, 160, 160, g, interpolate);
    ASSERT_EQ(y.size(), 160u);
    for (size_t m = 0; m < 4; ++m) EXPECT_NEAR(y[39 * 4 + m].re, settled[m], 2e-7f);
}

}  // namespace
