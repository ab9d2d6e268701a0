// Processor features for the kernels' dispatch.
#include "vectors/cpu.hpp"

#include "vectors/simd.hpp"

dvbIsa dvbCpuIsa() {
#if TERVANE_X86
    static const dvbIsa isa = [] {
        __builtin_cpu_init();
        const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                            __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
                            __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("bmi") &&
                            __builtin_cpu_supports("bmi2");
        const bool avx = __builtin_cpu_supports("avx");
        return avx && avx512 ? DVB_ISA_AVX512 : avx ? DVB_ISA_AVX : DVB_ISA_BASE;
    }();
    return isa;
#else
    return DVB_ISA_BASE;
#endif
}

dvbIsa dvbKernelIsa = dvbCpuIsa();
