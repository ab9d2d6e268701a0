// Process-wide transmission parameters, settings, buffer lengths and rates.
#include "frame/params.hpp"

#include <cmath>

#include "outer/outer_coder.hpp"

dvbt_parms_t dvbt_parms{};

char* mpeg2ts_fname = nullptr;
char* mpeg2ts_hp_fname = nullptr;
char* mpeg2ts_lp_fname = nullptr;
char* out_fname = nullptr;
char* log_fname = nullptr;
char* dumptypes = nullptr;
uint16_t verbosity = 3;
int32_t help = 0;
int32_t version = 0;
int32_t packnum = 100;

uint32_t mpeg2len = 0, rslen = 0, cilen = 0, velen = 0, pulen = 0, bilen = 0, silen = 0, malen = 0, fdlen = 0,
         tdlen = 0, txlen = 0;

float f_s = 0.0f, T_s = 0.0f, B_n = 0.0f, r_u = 0.0f, r_uhp = 0.0f, r_ulp = 0.0f;

float proc_data_hp = 0.0f, proc_data_lp = 0.0f;

void settle_parms() {
    if (dvbt_hierarchical() && dvbt_parms.M == 0) dvbt_parms.M = 1;
    if (dvbt_parms.mode == 2) dvbt_parms.idi = 0;
}

void compute_rates() {
    // In double from the single-precision tables; RS(204,188) as the float 188/204.
    static_assert(static_cast<float>(TS_PACKET) / static_cast<float>(RS_PACKET) == 0.92156863f);
    const dvbt_parms_t& p = dvbt_parms;
    const double fs = dvbt_fs[p.band];
    const double fft = dvbt_fftsize[p.mode];
    const double guard = dvbt_guardfrac[p.delta];
    const double rs_ratio = static_cast<float>(TS_PACKET) / static_cast<float>(RS_PACKET);
    f_s = static_cast<float>(fs);
    T_s = static_cast<float>(1.0 / fs);
    const double Rc = fs / (1.0 + guard) * dvbt_N[p.mode] / fft;
    r_u = static_cast<float>(Rc * dvbt_bitpersymb[p.M] * double{dvbt_punrate[p.rate]} * rs_ratio);
    r_uhp = static_cast<float>(Rc * 2 * double{dvbt_punrate[p.rate_hp]} * rs_ratio);
    r_ulp = static_cast<float>(Rc * (dvbt_bitpersymb[p.M] - 2) * double{dvbt_punrate[p.rate_lp]} * rs_ratio);
    B_n = static_cast<float>(dvbt_K[p.mode] * double{f_s} / fft);
}

double dvbRefAmplitude(uint32_t mode) {
    const int32_t N = dvbt_N[mode], K = dvbt_K[mode], T = dvbt_Ntps[mode];
    const int32_t P = N + T + 16 * (K - N - T) / 9;
    return std::sqrt(P / 2.0);
}

float dvbIntegerScale(uint32_t dumpformat, uint32_t mode, float gain) {
    if (dumpformat == 0) return 0.0f;
    const double full_scale = dvbt_fullscale[dumpformat];
    return static_cast<float>(full_scale / (double{gain} * dvbRefAmplitude(mode)));
}

double dvbSampleRate(uint32_t band, uint32_t interp) { return 8.0e6 * (5.0 + band) / 7.0 * dvbt_interprate[interp]; }
