// Which vector instruction sets the optimised kernels use, for the transmitter
// and the receiver alike. Every kernel with a wide form also keeps a form that
// runs on any processor, and both give the same bytes; tests lower
// dvbKernelIsa to run the narrower forms on a processor that has the wider ones.
#pragma once

enum dvbIsa : int {
    DVB_ISA_BASE = 0,    // the baseline instruction set of the build
    DVB_ISA_AVX = 1,     // AVX
    DVB_ISA_AVX512 = 2,  // AVX-512 F, BW, VL, DQ and VBMI, with BMI and BMI2, besides AVX
};

// The widest set the processor offers (asked once, for every kernel).
dvbIsa dvbCpuIsa();

// The widest set the kernels may use; starts at the processor's.
extern dvbIsa dvbKernelIsa;

// The dispatch rule, the same for every kernel: it runs its widest form whose
// set the kernels may use. A wider form is always chosen over a narrower one,
// so that the form that runs does not depend on timing or load at start-up.
inline bool dvbUseIsa(dvbIsa isa) { return isa <= dvbKernelIsa; }
inline bool dvbUseAvx() { return dvbUseIsa(DVB_ISA_AVX); }
inline bool dvbUseAvx512() { return dvbUseIsa(DVB_ISA_AVX512); }
