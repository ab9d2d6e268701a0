// The x86 vector intrinsics for the kernels' wide forms, and one macro per
// instruction set. TERVANE_X86 says whether they exist in this build (not with
// -DTERVANE_PORTABLE=ON, which keeps the portable forms alone, as on other
// processors). TERVANE_AVX and TERVANE_AVX512 mark a function compiled for the
// sets of DVB_ISA_AVX and DVB_ISA_AVX512; such a function is called only when
// dvbUseAvx or dvbUseAvx512 says so, and it lives in a file named *_x86.cpp
// beside the portable form it equals.
#pragma once

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && !defined(TERVANE_PORTABLE)
#define TERVANE_X86 1
// GCC 12 warns falsely about the undefined source operand inside the 512-bit
// intrinsics (its bug 105593); the warning is off where they are used.
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#define TERVANE_AVX __attribute__((target("avx")))
#define TERVANE_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512dq,avx512vbmi,bmi,bmi2")))
#else
#define TERVANE_X86 0
#endif
