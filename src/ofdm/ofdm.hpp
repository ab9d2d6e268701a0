// OFDM modulator (carrier placement, inverse FFT, cyclic prefix) and the output
// of the time-domain samples with the progress line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "vectors/cpu.hpp"
#include "vectors/manage.hpp"

// Sets the mapping constants, the bit-reversal table and the per-stage
// recurrence seeds for the current mode and guard interval.
void init_ifft();

// Turns whole symbols of K carriers into prf_len time samples each (cyclic prefix
// then the useful part). maxlen counts input cells. Returns the cells consumed.
uint32_t ofdm_mod(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);

// The most samples one call of time_dump writes.
inline constexpr uint32_t TIME_DUMP_MAX = 400000;

// Writes at most maxlen samples in the chosen format and prints the progress
// line. Returns the number of samples consumed.
int32_t time_dump(dvbVect* in, FILE* td_fp, FILE* tdI_fp, FILE* tdQ_fp, uint32_t maxlen);

// The unnormalised inverse transform of the current mode, in place, on F values
// given in bit-reversed order; the result is in natural order.
// ofdm_ifft_reference is the plain form every other must match bit for bit;
// ofdm_ifft_generic the form that runs on any processor.
void ofdm_ifft_generic(dvbComplex* buf);
void ofdm_ifft_reference(dvbComplex* buf);

// Every form of the transform this build has, the plain one first, then in
// order of width, and the instruction set each needs: transform works in place;
// symbol places the K cells of one symbol on their bins (the frequency mapping
// of the current parameters, as ofdm_mod does) and transforms them into
// dst[0 .. F-1]. The modulator uses the widest form the kernels may use.
struct ofdm_ifft_form {
    const char* name;
    dvbIsa isa;
    void (*transform)(dvbComplex* buf);
    void (*symbol)(const dvbComplex* cells, dvbComplex* dst);
};
std::span<const ofdm_ifft_form> ofdm_ifft_forms();
