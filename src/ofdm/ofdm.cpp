// OFDM modulator and time-domain sample output.
#include "ofdm/ofdm.hpp"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

#include "frame/files.hpp"
#include "frame/params.hpp"
#include "frame/print.hpp"
#include "ofdm/ofdm_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/simd.hpp"
#include "vectors/written.hpp"

namespace {

using namespace ofdm_detail;

constexpr int32_t max_stages = 13;
constexpr std::array<int32_t, 3> bit_num{11, 12, 13};

// Mapping constants, guard interval and symbol length of the current mode.
uint32_t K_p1_2 = 0, K_m1_2 = 0, zl1 = 0, zl2 = 0, fft_K_m1_2 = 0, fftpK_m1_2 = 0;
uint32_t prf = 0, prf_len = 0;

std::array<uint32_t, max_F> bro{};

// The transform's state, passed to every form. The recurrence restarts from
// the same seeds in every block, so one sequence of twiddle factors per stage
// serves all blocks with the very same values.
IfftState ifft;

// Recurrence seeds per stage v = 1 .. 13 (index 0 unused).
std::array<float, max_stages + 1> ism2{}, icm2{}, ism1{}, icm1{}, iw{};

// The cells of a symbol that crosses the end of the input ring.
std::array<dvbComplex, max_K> in_buf{};
std::array<dvbComplex, max_F> out_buf{};

// Runs the recurrence of stage v for H steps, handing each (cos, sin) to f.
template <typename Fn>
inline void stage_recurrence(int32_t v, uint32_t H, Fn&& f) {
    double cc2 = icm2[static_cast<size_t>(v)];
    double cc1 = icm1[static_cast<size_t>(v)];
    double ss2 = ism2[static_cast<size_t>(v)];
    double ss1 = ism1[static_cast<size_t>(v)];
    const double wv = iw[static_cast<size_t>(v)];
    for (uint32_t j = 0; j < H; j++) {
        const double cc0 = wv * cc1 - cc2;
        cc2 = cc1;
        cc1 = cc0;
        const double ss0 = wv * ss1 - ss2;
        ss2 = ss1;
        ss1 = ss0;
        f(j, cc0, ss0);
    }
}

// One butterfly: t = (c + i s) * d; d' = a - t, a' = a + t, each rounded to float.
inline void butterfly(dvbComplex& a, dvbComplex& d, double c, double s) {
    const double tre = c * static_cast<double>(d.re) - s * static_cast<double>(d.im);
    const double tim = c * static_cast<double>(d.im) + s * static_cast<double>(d.re);
    const double are = a.re;
    const double aim = a.im;
    d.re = static_cast<float>(are - tre);
    d.im = static_cast<float>(aim - tim);
    a.re = static_cast<float>(are + tre);
    a.im = static_cast<float>(aim + tim);
}

// The same butterfly on the stored twiddle pairs c = (c, c), s = (-s, s); the
// x86 build has it in ofdm_x86.hpp.
#if !TERVANE_X86
inline void butterfly2(dvbComplex* a, dvbComplex* d, const double* c, const double* s) {
    butterfly(*a, *d, c[0], s[1]);
}
#endif

// Carrier index of every bin, for the chosen frequency mapping; K (the index
// of a zero cell kept after the symbol) for an empty bin.
uint32_t carrier_of_bin(uint32_t mapping, uint32_t m, uint32_t K) {
    switch (mapping) {
    case 1:  // BB: carrier k on bin k + zl1
        return m >= zl1 && m < zl2 ? m - zl1 : K;
    case 2:  // INV: carrier k on bin (K_m1_2 - k) mod F
        if (m < K_p1_2) return K_m1_2 - m;
        return m >= fft_K_m1_2 ? fftpK_m1_2 - m : K;
    default:  // 0: carrier k on bin (k - K_m1_2) mod F
        if (m < K_p1_2) return K_m1_2 + m;
        return m >= fft_K_m1_2 ? m - fft_K_m1_2 : K;
    }
}

// Fills the record's gather tables for the given frequency mapping.
void build_gather(uint32_t mapping) {
    const auto K = static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]);
    for (uint32_t p = 0; p < ifft.fft_size; p++) ifft.gather[p] = carrier_of_bin(mapping, bro[p], K);
    constexpr uint32_t order[8] = {0, 2, 4, 6, 1, 3, 5, 7};
    for (uint32_t p = 0; p < ifft.fft_size; p++)
        ifft.gather8[p] = static_cast<int32_t>(ifft.gather[(p & ~7u) + order[p & 7u]]);
    ifft.mapping = mapping;
    ifft.gather_K = K;
}

// Places the K cells in bit-reversed bin order into dst[0 .. F-1], empty bins zero.
void place_cells(const dvbComplex* cells, dvbComplex* dst) {
    const uint32_t K = ifft.gather_K;
    for (uint32_t p = 0; p < ifft.fft_size; p++) {
        const uint32_t g = ifft.gather[p];
        dst[p] = g < K ? cells[g] : dvbComplex{0.0f, 0.0f};
    }
}

void symbol_reference(const dvbComplex* cells, dvbComplex* dst) {
    place_cells(cells, dst);
    ofdm_ifft_reference(dst);
}
void symbol_generic(const dvbComplex* cells, dvbComplex* dst) {
    place_cells(cells, dst);
    ofdm_ifft_generic(dst);
}

#if TERVANE_X86
// The vector forms on the record.
void transform_avx(dvbComplex* buf) { ifft_avx(ifft, buf); }
void transform_avx512(dvbComplex* buf) { ifft_avx512(ifft, buf); }
void symbol_avx(const dvbComplex* cells, dvbComplex* dst) {
    place_cells(cells, dst);
    ifft_avx(ifft, dst);
}
void symbol_avx512(const dvbComplex* cells, dvbComplex* dst) { ofdm_detail::symbol_avx512(ifft, cells, dst); }
#endif

// The form the modulator uses: the last of the forms (the widest) that the
// kernels may use.
using symbol_form = void (*)(const dvbComplex*, dvbComplex*);
symbol_form modulator_form() {
    symbol_form fn = symbol_generic;
    for (const ofdm_ifft_form& f : ofdm_ifft_forms())
        if (f.transform != ofdm_ifft_reference && dvbUseIsa(f.isa)) fn = f.symbol;
    return fn;
}

// Running state of the sample output.
float wsymb = 0.0f;
int32_t sym_num = 0;
int32_t frame_num = 0;
int32_t superframe_num = 0;

// Work area for the integer formats.
constexpr uint32_t io_chunk = 4096;
std::array<uint8_t, io_chunk * 4> io_buf{};
std::array<uint8_t, io_chunk * 2> io_buf2{};

// trunc(x * sf) in double; NaN and values outside the 32-bit range give INT32_MIN.
inline int32_t scaled(float x, float sf) {
    const double p = std::trunc(static_cast<double>(x) * static_cast<double>(sf));
    if (!(p >= -2147483648.0 && p <= 2147483647.0)) return INT32_MIN;
    return static_cast<int32_t>(p);
}

inline uint16_t agi_code(float x, float sf) {
    const int32_t v = scaled(x, sf);
    return static_cast<uint16_t>(v >= -32768 && v <= 32767 ? v : -32768);
}

inline uint16_t agiold_code(float x, float sf) {
    return static_cast<uint16_t>((static_cast<uint32_t>(scaled(x, sf)) + 8192u) & 0xFFFFu);
}

inline void put_be16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v & 0xFFu);
}

// Writes n samples from the ring at r in the "std" format; returns the records accepted.
uint32_t write_std(const dvbVect* in, uint32_t n, FILE* fp) {
    if constexpr (std::endian::native == std::endian::little) {
        return static_cast<uint32_t>(checked_ring_write(in, in->head, n, fp));
    } else {
        const dvbComplex* src = dvbCplx(in);
        uint32_t done = 0;
        uint32_t pos = in->head;
        while (done < n) {
            const uint32_t m = n - done < io_chunk / 2 ? n - done : io_chunk / 2;
            uint8_t* p = io_buf.data();
            for (uint32_t i = 0; i < m; i++) {
                const float v[2] = {src[pos].re, src[pos].im};
                for (float f : v) {
                    const auto u = std::bit_cast<uint32_t>(f);
                    for (int byte = 0; byte < 4; byte++) *p++ = static_cast<uint8_t>(u >> (8 * byte));
                }
                if (++pos == in->len) pos = 0;
            }
            const size_t got = checked_write(io_buf.data(), sizeof(dvbComplex), m, fp);
            done += static_cast<uint32_t>(got);
            if (got < m) break;
        }
        return done;
    }
}

uint32_t write_agi(const dvbVect* in, uint32_t n, FILE* fp) {
    const dvbComplex* src = dvbCplx(in);
    const float sf = tdstream_sf;
    uint32_t pos = in->head;
    uint32_t done = 0;
    while (done < n) {
        const uint32_t m = n - done < io_chunk ? n - done : io_chunk;
        uint8_t* p = io_buf.data();
        uint32_t i = 0;
#if TERVANE_X86
        if (dvbUseAvx512()) {
            // The part of the chunk before the end of the ring.
            const uint32_t run = in->len - pos < m ? in->len - pos : m;
            i = agi_codes_avx512(src + pos, run, sf, p);
            p += 4 * i;
            pos += i;
            if (pos == in->len) pos = 0;
        }
#endif
        for (; i < m; i++, p += 4) {
            put_be16(p, agi_code(src[pos].re, sf));
            put_be16(p + 2, agi_code(src[pos].im, sf));
            if (++pos == in->len) pos = 0;
        }
        const size_t got = checked_write(io_buf.data(), 4, m, fp);
        done += static_cast<uint32_t>(got);
        if (got < m) break;
    }
    return done;
}

uint32_t write_agiold(const dvbVect* in, uint32_t n, FILE* fpI, FILE* fpQ) {
    const dvbComplex* src = dvbCplx(in);
    const float sf = tdstream_sf;
    uint32_t pos = in->head;
    uint32_t done = 0;
    while (done < n) {
        const uint32_t m = n - done < io_chunk ? n - done : io_chunk;
        for (uint32_t i = 0; i < m; i++) {
            put_be16(io_buf.data() + 2 * i, agiold_code(src[pos].re, sf));
            put_be16(io_buf2.data() + 2 * i, agiold_code(src[pos].im, sf));
            if (++pos == in->len) pos = 0;
        }
        checked_write(io_buf.data(), 2, m, fpI);
        const size_t got = checked_write(io_buf2.data(), 2, m, fpQ);
        done += static_cast<uint32_t>(got);
        if (got < m) break;
    }
    return done;
}

}  // namespace

void init_ifft() {
    const uint32_t mode = dvbt_parms.mode;
    const auto F = static_cast<uint32_t>(dvbt_fftsize[mode]);
    const auto K = static_cast<uint32_t>(dvbt_K[mode]);
    ifft.fft_size = F;
    ifft.stages = bit_num[mode];

    K_p1_2 = (K + 1) / 2;
    K_m1_2 = (K - 1) / 2;
    zl1 = (F - K + 1) / 2;
    zl2 = zl1 + K;
    fft_K_m1_2 = F - K_m1_2;
    fftpK_m1_2 = F + K_m1_2;
    prf = static_cast<uint32_t>(static_cast<float>(F) * dvbt_guardfrac[dvbt_parms.delta]);
    prf_len = F + prf;

    for (uint32_t i = 0; i < F; i++) {
        uint32_t r = 0;
        uint32_t v = i;
        for (int32_t bit = 0; bit < ifft.stages; bit++) {
            r = (r << 1) | (v & 1u);
            v >>= 1;
        }
        bro[i] = r;
    }
    ifft.mapping = -1;

    constexpr auto two_pi = static_cast<float>(2.0 * std::numbers::pi);
    for (int32_t v = 1; v <= ifft.stages; v++) {
        const float theta = two_pi / static_cast<float>(1u << v);
        const double two_theta = -2.0 * static_cast<double>(theta);
        const auto sv = static_cast<size_t>(v);
        ism2[sv] = static_cast<float>(std::sin(two_theta));
        icm2[sv] = static_cast<float>(std::cos(two_theta));
        ism1[sv] = std::sin(-theta);
        icm1[sv] = std::cos(theta);
        iw[sv] = 2.0f * icm1[sv];
    }

    for (int32_t v = 1; v <= ifft.stages; v++) {
        const uint32_t H = 1u << (v - 1);
        double* c = ifft.twc.data() + 2 * (H - 1);
        double* s = ifft.tws.data() + 2 * (H - 1);
        stage_recurrence(v, H, [c, s](uint32_t j, double cj, double sj) {
            c[2 * j] = cj;
            c[2 * j + 1] = cj;
            s[2 * j] = -sj;
            s[2 * j + 1] = sj;
        });
    }

    build_gather(dvbt_parms.ifftmm);
}

std::span<const ofdm_ifft_form> ofdm_ifft_forms() {
    static const ofdm_ifft_form forms[] = {
        {"reference", DVB_ISA_BASE, ofdm_ifft_reference, symbol_reference},
        {"generic", DVB_ISA_BASE, ofdm_ifft_generic, symbol_generic},
#if TERVANE_X86
        {"avx", DVB_ISA_AVX, transform_avx, symbol_avx},
        {"avx512", DVB_ISA_AVX512, transform_avx512, symbol_avx512},
#endif
    };
    return forms;
}

void ofdm_ifft_reference(dvbComplex* buf) {
    const uint32_t F = ifft.fft_size;
    for (int32_t v = 1; v <= ifft.stages; v++) {
        const uint32_t H = 1u << (v - 1);
        const uint32_t B = H << 1;
        for (uint32_t z = 0; z < F; z += B) {
            dvbComplex* blk = buf + z;
            stage_recurrence(v, H, [blk, H](uint32_t j, double c, double s) { butterfly(blk[j], blk[j + H], c, s); });
        }
    }
}

void ofdm_ifft_generic(dvbComplex* buf) {
    const uint32_t F = ifft.fft_size;
    for (int32_t v = 1; v <= ifft.stages; v++) {
        const uint32_t H = 1u << (v - 1);
        const uint32_t B = H << 1;
        const double* c = ifft.twc.data() + 2 * (H - 1);
        const double* s = ifft.tws.data() + 2 * (H - 1);
        for (uint32_t z = 0; z < F; z += B) {
            dvbComplex* blk = buf + z;
            for (uint32_t j = 0; j < H; j++) butterfly2(blk + j, blk + j + H, c + 2 * j, s + 2 * j);
        }
    }
}

uint32_t ofdm_mod(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    const auto K = static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]);
    const uint32_t F = ifft.fft_size;

    if (ifft.mapping != static_cast<int64_t>(dvbt_parms.ifftmm) || ifft.gather_K != K) build_gather(dvbt_parms.ifftmm);

    const uint32_t n = dvbRingUnits(in, K, out, prf_len, maxlen, K);
    const symbol_form form = modulator_form();

    uint32_t r = in->head;
    uint32_t q = dvbRingWritePos(out);
    for (uint32_t u = 0; u < n; u++) {
        const auto* cells = static_cast<const dvbComplex*>(dvbRingView(in, r, K, in_buf.data()));
        r = dvbRingAdvance(r, K, in->len);

        // The transform runs in the output ring itself when the whole symbol fits
        // before its end; the prefix is then copied from the symbol's tail.
        dvbComplex* ring = dvbCplx(out);
        const bool direct = out->len - q >= prf_len;
        dvbComplex* sym = direct ? ring + q + prf : out_buf.data();
        form(cells, sym);
        if (direct) {
            std::memcpy(ring + q, sym + (F - prf), size_t{prf} * sizeof(dvbComplex));
            q = dvbRingAdvance(q, prf_len, out->len);
        } else {
            q = dvbRingPut(out, q, sym + (F - prf), prf);
            q = dvbRingPut(out, q, sym, F);
        }
        checked_write(sym + (F - prf), sizeof(dvbComplex), prf, dump);
        checked_write(sym, sizeof(dvbComplex), F, dump);
    }

    dvbRingConsume(in, n * K);
    out->fill += n * prf_len;
    dvbMsgPrint(4, "OFDM        : %d samples\n", static_cast<int>(n * K));
    return n * K;
}

int32_t time_dump(dvbVect* in, FILE* td_fp, FILE* tdI_fp, FILE* tdQ_fp, uint32_t maxlen) {
    if (in->fill == 0) return 0;
    const uint32_t n = dvbRingUnits(in, 1, nullptr, 1, maxlen, 1);
    const dvbt_parms_t& p = dvbt_parms;

    uint32_t count = n;
    switch (p.dumpformat) {
    case 1:
        if (td_fp != nullptr) count = write_agi(in, n, td_fp);
        break;
    case 2:
        if (tdI_fp != nullptr && tdQ_fp != nullptr) count = write_agiold(in, n, tdI_fp, tdQ_fp);
        break;
    default:
        if (td_fp != nullptr) count = write_std(in, n, td_fp);
        break;
    }
    dvbRingConsume(in, count);
    dvbMsgPrint(4, "Time dump   : %d samples\n", static_cast<int>(count));

    // Position in the frame structure and payload carried by the symbols written so far.
    const float x = static_cast<float>(count) / dvbt_interprate[p.interp];
    const auto F = static_cast<float>(dvbt_fftsize[p.mode]);
    const float S = F + F * dvbt_guardfrac[p.delta];
    const float s_c = x / S;
    wsymb = wsymb + s_c;
    const auto s = static_cast<int32_t>(wsymb);
    sym_num = s % dvbt_frame_symbols;
    frame_num = (s / dvbt_frame_symbols) % dvbt_superframe_frames;
    superframe_num = s / dvbt_superframe_symbols;

    constexpr float k = 188.0f / 1632.0f;
    const auto N = static_cast<float>(dvbt_N[p.mode]);
    const auto B = static_cast<float>(dvbt_bitpersymb[p.M]);
    if (p.alpha == 0) {
        proc_data_hp += s_c * N * B * dvbt_punrate[p.rate] * k;
    } else {
        proc_data_hp += s_c * N * 2.0f * dvbt_punrate[p.rate_hp] * k;
        proc_data_lp += s_c * N * (B - 2.0f) * dvbt_punrate[p.rate_lp] * k;
    }
    const float percent = (proc_data_hp + proc_data_lp) * 100.0f / static_cast<float>(tot_flen);
    dvbMsgPrint(2, "%-2.1f%% done (S%02d,F%d,SF%06d)\n", static_cast<double>(percent), sym_num, frame_num,
                superframe_num);
    return static_cast<int32_t>(count);
}
