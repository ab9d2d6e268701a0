// Every optimised kernel against its plain form on the same inputs, byte for
// byte: each transform form of the processor against the plain recurrence, and
// the word and AVX-512 forms of the coding stages against per-element models,
// streamed through rings of odd lengths that wrap, with odd call limits.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "frame/files.hpp"
#include "frame/params.hpp"
#include "inner/inner_coder.hpp"
#include "inner/inner_int.hpp"
#include "inner/mapper.hpp"
#include "ofdm/ofdm.hpp"
#include "outer/energy.hpp"
#include "outer/rs.hpp"
#include "ring_util.hpp"
#include "vectors/cpu.hpp"

namespace {

using testutil::ByteRing;
using Bytes = std::vector<uint8_t>;

// The kernel sets to compare: the baseline forms, and AVX-512 where the processor has it.
std::vector<dvbIsa> isas() {
    std::vector<dvbIsa> v{DVB_ISA_BASE};
    if (dvbCpuIsa() >= DVB_ISA_AVX512) v.push_back(DVB_ISA_AVX512);
    return v;
}
struct IsaScope {
    explicit IsaScope(dvbIsa isa) { dvbKernelIsa = isa; }
    ~IsaScope() { dvbKernelIsa = dvbCpuIsa(); }
};

Bytes random_bytes(size_t n, std::mt19937& g, uint32_t mod = 256) {
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g() % mod);
    return b;
}

// Streams input through a one-input stage whose rings have odd lengths and
// start part-way (so both wrap), calling it with the limit given, until
// nothing moves; returns everything it produced.
Bytes stream(const Bytes& input, uint32_t in_len, uint32_t out_len, uint32_t maxlen,
             const std::function<int64_t(dvbVect*, dvbVect*, uint32_t)>& stage) {
    ByteRing in(in_len, in_len / 3), out(out_len, out_len / 2);
    Bytes result;
    size_t fed = 0;
    for (bool moved = true; moved || fed < input.size();) {
        const size_t n = std::min(input.size() - fed, size_t{in.v->len - in.v->fill});
        in.push(input.data() + fed, n);
        fed += n;
        moved = stage(in.v, out.v, maxlen) != 0;
        out.pop_into(result);
        if (!moved && n == 0) break;
    }
    return result;
}

TEST(Kernels, EveryTransformFormMatchesThePlainOneOnRandomAndRealSpectra) {
    std::mt19937 g(11);
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.M = 2;
    dvbQAMConstGenerate();
    const auto qam = dvbQAMTable();
    for (uint32_t mode = 0; mode < 3; mode++) {
        for (uint32_t mapping = 0; mapping < 3; mapping++) {
            dvbt_parms.mode = mode;
            dvbt_parms.ifftmm = mapping;
            init_ifft();
            const auto F = static_cast<size_t>(dvbt_fftsize[mode]);
            std::uniform_real_distribution<float> d(-1.0f, 1.0f);
            for (int kind = 0; kind < 4; kind++) {
                // Random cells of three scales, and cells as the chain makes them:
                // constellation points, boosted pilots, TPS values and some zeros.
                const float scale = kind == 0 ? 1.0f : kind == 1 ? 1e-3f : 1e4f;
                std::vector<dvbComplex> cells(F);
                for (auto& c : cells) {
                    if (kind < 3) {
                        c = {scale * d(g), scale * d(g)};
                    } else {
                        const uint32_t r = g() % 16;
                        c = r == 0 ? dvbComplex{4.0f / 3.0f, 0.0f} : r == 1 ? dvbComplex{-1.0f, 0.0f}
                            : r == 2 ? dvbComplex{0.0f, 0.0f} : qam[g() % 64];
                    }
                }
                std::vector<dvbComplex> want(F), want_sym(F);
                std::memcpy(want.data(), cells.data(), F * sizeof(dvbComplex));
                ofdm_ifft_reference(want.data());
                ofdm_ifft_forms()[0].symbol(cells.data(), want_sym.data());
                for (const ofdm_ifft_form& f : ofdm_ifft_forms()) {
                    if (!f.available) continue;
                    SCOPED_TRACE(std::string(f.name) + " mode " + std::to_string(mode) + " mapping " +
                                 std::to_string(mapping) + " kind " + std::to_string(kind));
                    std::vector<dvbComplex> got = cells, sym(F);
                    f.transform(got.data());
                    f.symbol(cells.data(), sym.data());
                    EXPECT_EQ(std::memcmp(got.data(), want.data(), F * sizeof(dvbComplex)), 0);
                    EXPECT_EQ(std::memcmp(sym.data(), want_sym.data(), F * sizeof(dvbComplex)), 0);
                }
            }
        }
    }
}

// Plain encoder: one bit at a time through the shift register.
Bytes encode_plain(const Bytes& in) {
    uint32_t st = 0;
    Bytes out;
    for (uint8_t b : in) {
        for (int k = 7; k >= 0; k--) {
            st = (st << 1) | ((b >> k) & 1u);
            out.push_back(Partab[st & 0x4F]);
            out.push_back(Partab[st & 0x6D]);
        }
    }
    return out;
}

Bytes puncture_plain(const Bytes& in, uint32_t rate) {
    Bytes out;
    const auto ip = static_cast<size_t>(in_plen[rate]);
    for (size_t i = 0; i + ip <= in.size(); i += ip)
        for (size_t k = 0; k < ip; k++)
            if (p_mat[rate][k] != 0) out.push_back(in[i + k]);
    return out;
}

TEST(Kernels, EncoderAndPuncturerMatchThePlainForms) {
    std::mt19937 g(5);
    const Bytes bytes = random_bytes(20011, g);
    const Bytes coded = encode_plain(bytes);
    for (dvbIsa isa : isas()) {
        IsaScope scope(isa);
        for (uint32_t batch : {5u, 7u, 19u, 100u}) {  // ring sizes of odd -s values
            SCOPED_TRACE("isa " + std::to_string(isa) + " batch " + std::to_string(batch));
            uint32_t st = 0;
            EXPECT_EQ(stream(bytes, 204 * batch + 1, 3264 * batch + 3, 204 * batch - 5,
                             [&](dvbVect* i, dvbVect* o, uint32_t m) { return encode27(i, o, &st, m, nullptr); }),
                      coded);
            for (uint16_t rate = 0; rate < 5; rate++)
                EXPECT_EQ(stream(coded, 3264 * batch + 7, 3264 * batch - 1, 3264 * batch - 3,
                                 [&](dvbVect* i, dvbVect* o, uint32_t m) { return puncture(i, o, rate, m, nullptr); }),
                          puncture_plain(coded, rate))
                    << "rate " << rate;
        }
    }
}

// Plain bit interleaver: demultiplex each block into six stores, then read
// every store from its cyclic shift on.
Bytes bit_interleave_plain(const Bytes& hp, const Bytes& lp, uint32_t v, bool hier) {
    static const uint8_t nh[3][6] = {{0, 1}, {0, 2, 1, 3}, {0, 2, 4, 1, 3, 5}};
    static const uint8_t lpr[3][4] = {{0}, {2, 3}, {2, 4, 3, 5}};
    static const uint32_t shift[6] = {0, 63, 105, 42, 21, 84};
    const size_t hpb = hier ? 252 : 126 * v, lpb = hier ? 126 * (v - 2) : 0;
    Bytes out;
    for (size_t b = 0; (b + 1) * hpb <= hp.size() && (!hier || (b + 1) * lpb <= lp.size()); b++) {
        uint8_t store[6][126];
        for (size_t k = 0; k < 126; k++) {
            if (!hier) {
                for (size_t i = 0; i < v; i++) store[nh[v / 2 - 1][i]][k] = hp[b * hpb + k * v + i];
            } else {
                store[0][k] = hp[b * hpb + 2 * k];
                store[1][k] = hp[b * hpb + 2 * k + 1];
                for (size_t i = 0; i < v - 2; i++) store[lpr[v / 2 - 1][i]][k] = lp[b * lpb + k * (v - 2) + i];
            }
        }
        for (size_t w = 0; w < 126; w++) {
            uint32_t word = 0;
            for (size_t e = 0; e < v; e++) word = (word << 1) | store[e][(w + shift[e]) % 126];
            out.push_back(static_cast<uint8_t>(word));
        }
    }
    return out;
}

TEST(Kernels, BitInterleaverMatchesThePlainFormForEveryConstellationAndHierarchy) {
    std::mt19937 g(9);
    const Bytes hp = random_bytes(12 * 756 + 100, g, 2), lp = random_bytes(12 * 504 + 77, g, 2);
    for (dvbIsa isa : isas()) {
        IsaScope scope(isa);
        for (uint32_t alpha = 0; alpha < 4; alpha++) {
            for (uint32_t M = alpha == 0 ? 0 : 1; M < 3; M++) {
                dvbt_parms = dvbt_parms_t{};
                dvbt_parms.M = M;
                dvbt_parms.alpha = alpha;
                const auto v = static_cast<uint32_t>(dvbt_bitpersymb[M]);
                ByteRing in_hp(3001, 1000), in_lp(2503, 7), out(1009, 500);
                Bytes got;
                size_t fh = 0, fl = 0;
                for (int calls = 0; calls < 1000; calls++) {
                    const size_t nh = std::min(hp.size() - fh, size_t{in_hp.v->len - in_hp.v->fill});
                    const size_t nl = std::min(lp.size() - fl, size_t{in_lp.v->len - in_lp.v->fill});
                    in_hp.push(hp.data() + fh, nh);
                    in_lp.push(lp.data() + fl, nl);
                    fh += nh;
                    fl += nl;
                    const uint32_t n = bit_interleave(in_hp.v, alpha != 0 ? in_lp.v : nullptr, out.v, 2017, nullptr);
                    out.pop_into(got);
                    if (n == 0 && nh == 0 && nl == 0) break;
                }
                EXPECT_EQ(got, bit_interleave_plain(hp, lp, v, alpha != 0)) << "M " << M << " alpha " << alpha;
            }
        }
    }
}

TEST(Kernels, GroupedReedSolomonAndRunwiseDispersalMatchThePlainForms) {
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
    // Dispersal with an odd packet length and period: XOR except at packet starts, group start inverted.
    const uint32_t plen = 13, period = 91;
    testutil::Vec seq(Symbol);
    dvbConstVect(seq.v, Symbol, period - 1, 0);
    for (uint32_t i = 0; i + 1 < period; i++) dvbBytes(seq.v)[i] = static_cast<uint8_t>(g());
    const Bytes in = random_bytes(5000, g);
    Bytes want(in.size());
    for (uint32_t i = 0; i < in.size(); i++) {
        const uint32_t p = i % period;
        want[i] = p == 0 ? static_cast<uint8_t>(~in[i]) : p % plen == 0 ? in[i] : in[i] ^ dvbBytes(seq.v)[p - 1];
    }
    seq.v->head = 0;
    EXPECT_EQ(stream(in, 301, 211, 97,
                     [&](dvbVect* i, dvbVect* o, uint32_t m) {
                         uint32_t c = 0;
                         dvbTSDisperdInvert(i, o, seq.v, plen, period, m, "ED", nullptr, &c);
                         return c;
                     }),
              want);
}

TEST(Kernels, AgiSampleCodesMatchThePlainFormIncludingOutOfRange) {
    std::mt19937 g(21);
    std::uniform_real_distribution<float> d(-2.0f, 2.0f);
    testutil::CplxRing ring(1003, 990);
    std::vector<dvbComplex> samples(1000);
    for (auto& c : samples) c = {d(g), d(g)};
    samples[3] = {1e30f, -1e30f};  // beyond the 32-bit range
    samples[8] = {std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::infinity()};
    samples[9] = {1.0001f, -1.0001f};  // just past full scale
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.dumpformat = 1;
    tdstream_sf = 32767.0f;
    tot_flen = 1000;
    testutil::Verbose quiet(0);
    std::vector<Bytes> out;
    for (dvbIsa isa : isas()) {
        IsaScope scope(isa);
        FILE* fp = std::tmpfile();
        ASSERT_NE(fp, nullptr);
        ring.push(samples);
        EXPECT_EQ(time_dump(ring.v, fp, nullptr, nullptr, 400000), 1000);
        Bytes b(4000);
        std::rewind(fp);
        EXPECT_EQ(std::fread(b.data(), 1, b.size(), fp), b.size());
        std::fclose(fp);
        out.push_back(b);
    }
    EXPECT_EQ(out[0][12], 0x80);  // out of range: -32768
    EXPECT_EQ(out[0][13], 0x00);
    for (const Bytes& b : out) EXPECT_EQ(b, out[0]);
}

}  // namespace
