// The transmission parameter record, its name and numeric tables, the settings
// of the frame, the buffer lengths and the derived rates. All are written during
// start-up only and read everywhere else.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

struct dvbt_parms_t {
    uint32_t mode;        // index into dvbt_modename
    uint32_t M;           // index into dvbt_Mname
    uint32_t alpha;       // 0: non-hierarchical, else hierarchy 1, 2, 4
    uint32_t delta;       // index into dvbt_deltaname
    uint32_t rate;        // NH code rate index
    uint32_t rate_hp;     // HP code rate index
    uint32_t rate_lp;     // LP code rate index
    uint32_t band;        // index into dvbt_bandname
    uint32_t cinit;       // outer interleaver fill: 0 zeros, 1 rand
    uint32_t ifftmm;      // frequency mapping: 0, BB, INV
    uint32_t interp;      // interpolation: 1x, 2x, 4x
    uint32_t dumpformat;  // time-domain format: std, agi, agiold
    float gain;           // gain of the integer output formats
    int32_t cid;          // cell identifier, negative when not set
    uint32_t idi;         // in-depth interleaving flag
};

extern dvbt_parms_t dvbt_parms;

// Name tables: the option accepts exactly these texts, in index order.
inline constexpr std::array<const char*, 3> dvbt_modename{"2k", "4k", "8k"};
inline constexpr std::array<const char*, 3> dvbt_Mname{"4", "16", "64"};
inline constexpr std::array<const char*, 4> dvbt_alphaname{"NH", "1", "2", "4"};
inline constexpr std::array<const char*, 4> dvbt_deltaname{"1/4", "1/8", "1/16", "1/32"};
inline constexpr std::array<const char*, 5> dvbt_ratename{"1/2", "2/3", "3/4", "5/6", "7/8"};
inline constexpr std::array<const char*, 4> dvbt_bandname{"5", "6", "7", "8"};
inline constexpr std::array<const char*, 2> dvbt_cinitname{"0", "rand"};
inline constexpr std::array<const char*, 3> dvbt_ifftmmname{"0", "BB", "INV"};
inline constexpr std::array<const char*, 3> dvbt_interpname{"1x", "2x", "4x"};
inline constexpr std::array<const char*, 3> dvbt_dumpformat{"std", "agi", "agiold"};

// Numeric tables.
inline constexpr std::array<int32_t, 3> dvbt_fftsize{2048, 4096, 8192};
inline constexpr std::array<int32_t, 3> dvbt_N{1512, 3024, 6048};
inline constexpr std::array<int32_t, 3> dvbt_K{1705, 3409, 6817};
inline constexpr std::array<int32_t, 3> dvbt_Ntps{17, 34, 68};
inline constexpr std::array<int32_t, 3> dvbt_bitpersymb{2, 4, 6};
inline constexpr std::array<float, 4> dvbt_guardfrac{0.25f, 0.125f, 0.0625f, 0.03125f};
inline constexpr std::array<float, 5> dvbt_punrate{1.0f / 2.0f, 2.0f / 3.0f, 3.0f / 4.0f, 5.0f / 6.0f, 7.0f / 8.0f};
inline constexpr std::array<float, 3> dvbt_interprate{1.0f, 2.0f, 4.0f};
// Elementary sampling rate by channel spacing: 40/7, 48/7, 8 and 64/7 MHz.
inline constexpr std::array<float, 4> dvbt_fs{40.0e6f / 7.0f, 48.0e6f / 7.0f, 8.0e6f, 64.0e6f / 7.0f};

// The frame structure: 68 OFDM symbols a frame, 4 frames a superframe.
inline constexpr int32_t dvbt_frame_symbols = 68;
inline constexpr int32_t dvbt_superframe_frames = 4;
inline constexpr int32_t dvbt_superframe_symbols = dvbt_frame_symbols * dvbt_superframe_frames;

// Full scale of the integer sample formats, by dumpformat: none for "std",
// signed 16 bits for "agi", 14-bit offset codes for "agiold".
inline constexpr std::array<int32_t, 3> dvbt_fullscale{0, 32767, 8191};

// Reference amplitude of the OFDM signal of a mode, for the integer formats:
// the RMS amplitude of one component of its samples.
double dvbRefAmplitude(uint32_t mode);
// Scale factor from sample values to the codes of an integer format (its full
// scale over gain times the reference amplitude); 0 for "std".
float dvbIntegerScale(uint32_t dumpformat, uint32_t mode, float gain);
// Rate of the time-domain samples in Hz, exact: the elementary rate of the
// channel spacing (8 MHz x (5 + band) / 7, of which dvbt_fs holds the floats)
// times the interpolation factor.
double dvbSampleRate(uint32_t band, uint32_t interp);

// Settings of the frame (file names are owned text blocks, null when none).
extern char* mpeg2ts_fname;
extern char* mpeg2ts_hp_fname;
extern char* mpeg2ts_lp_fname;
extern char* out_fname;
extern char* log_fname;
extern char* dumptypes;
extern uint16_t verbosity;
extern int32_t help;
extern int32_t version;
extern int32_t packnum;

// Buffer lengths, set once after packnum is clamped.
extern uint32_t mpeg2len, rslen, cilen, velen, pulen, bilen, silen, malen, fdlen, tdlen, txlen;

// Derived quantities, set by the parameter report.
extern float f_s, T_s, B_n, r_u, r_uhp, r_ulp;

// Useful payload bytes written so far (HP or NH, and LP), for the end report.
extern float proc_data_hp, proc_data_lp;

inline bool dvbt_hierarchical() { return dvbt_parms.alpha != 0; }

// The two adjustments made before any stage is set up: a hierarchical QPSK
// request runs as 16-QAM, and in-depth interleaving does not exist in 8k.
void settle_parms();

// Derives f_s, T_s, B_n, r_u, r_uhp and r_ulp from the settled parameters.
void compute_rates();
