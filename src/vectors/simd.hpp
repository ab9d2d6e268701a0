// The x86 vector intrinsics for the kernels' wide forms. TERVANE_X86 says
// whether they exist in this build (not with -DTERVANE_PORTABLE=ON, which keeps
// the portable forms alone, as on other processors); TERVANE_AVX512 marks a function compiled
// for the instruction sets of DVB_ISA_AVX512, called only when the processor
// has them (dvbUseAvx512).
#pragma once

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && !defined(TERVANE_PORTABLE)
#define TERVANE_X86 1
// GCC 12 warns falsely about the undefined source operand inside the 512-bit
// intrinsics (its bug 105593); the warning is off where they are used.
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#define TERVANE_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512dq,avx512vbmi,bmi2")))
#else
#define TERVANE_X86 0
#endif
