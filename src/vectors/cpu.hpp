// Which vector instruction sets the optimised kernels use. Every kernel with a
// wide form also keeps a form that runs on any processor, and both give the
// same bytes; tests lower dvbKernelIsa to run the narrower forms on a processor
// that has the wider ones.
#pragma once

enum dvbIsa : int {
    DVB_ISA_BASE = 0,    // the baseline instruction set of the build
    DVB_ISA_AVX = 1,     // AVX
    DVB_ISA_AVX512 = 2,  // AVX-512 F, BW, VL, DQ and VBMI, with BMI2, besides AVX
};

// The widest set the processor offers (asked once, for every kernel).
dvbIsa dvbCpuIsa();

// The widest set the kernels may use; starts at the processor's.
extern dvbIsa dvbKernelIsa;

inline bool dvbUseAvx() { return dvbKernelIsa >= DVB_ISA_AVX; }
inline bool dvbUseAvx512() { return dvbKernelIsa >= DVB_ISA_AVX512; }
