// Throughput of the costly stages and of the whole chain, against the real-time
// rates they have to beat. Build with -DTERVANE_BENCH=ON and run
// ./build/tervane_bench.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "inner/inner_coder.hpp"
#include "ofdm/ofdm.hpp"
#include "outer/rs.hpp"
#include "vectors/manage.hpp"

namespace {

void set_mode(uint32_t mode) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.mode = mode;
    dvbt_parms.delta = 3;
    dvbt_parms.band = 3;
    init_ifft();
}

std::vector<dvbComplex> random_symbol(size_t n) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    std::vector<dvbComplex> v(n);
    for (auto& c : v) c = {d(gen), d(gen)};
    return v;
}

// Every form of the transform the processor runs, in place on a bit-reversed
// spectrum (range 0: form index, range 1: mode), and the whole symbol path
// (carrier placement folded in) of the same form.
void BM_Ifft(benchmark::State& state) {
    const auto form = static_cast<size_t>(state.range(0));
    const auto mode = static_cast<uint32_t>(state.range(1));
    set_mode(mode);
    const ofdm_ifft_form& f = ofdm_ifft_forms()[form];
    if (f.isa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const auto F = static_cast<size_t>(dvbt_fftsize[mode]);
    const auto src = random_symbol(F);
    std::vector<dvbComplex> buf(F);
    for (auto _ : state) {
        buf = src;
        f.transform(buf.data());
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(std::string(f.name) + " symbols");
}

void BM_Symbol(benchmark::State& state) {
    const auto form = static_cast<size_t>(state.range(0));
    const auto mode = static_cast<uint32_t>(state.range(1));
    set_mode(mode);
    const ofdm_ifft_form& f = ofdm_ifft_forms()[form];
    if (f.isa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const auto cells = random_symbol(static_cast<size_t>(dvbt_K[mode]));
    std::vector<dvbComplex> buf(static_cast<size_t>(dvbt_fftsize[mode]));
    for (auto _ : state) {
        f.symbol(cells.data(), buf.data());
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(std::string(f.name) + " symbols");
}

void form_args(benchmark::internal::Benchmark* b) {
    for (int64_t form = 0; form < static_cast<int64_t>(ofdm_ifft_forms().size()); form++)
        for (int64_t mode : {0, 1, 2}) b->Args({form, mode});
}
BENCHMARK(BM_Ifft)->Apply(form_args);
BENCHMARK(BM_Symbol)->Apply(form_args);

void BM_EncodeRs(benchmark::State& state) {
    init_rs();
    std::vector<uint8_t> data(239, 0);
    std::mt19937 gen(3);
    for (size_t i = 51; i < 239; i++) data[i] = static_cast<uint8_t>(gen());
    uint8_t bb[16];
    for (auto _ : state) {
        encode_rs(data.data(), bb);
        benchmark::DoNotOptimize(bb);
    }
    state.SetBytesProcessed(state.iterations() * 188);
}
BENCHMARK(BM_EncodeRs);

void BM_Encode27(benchmark::State& state) {
    dvbVect* in = nullptr;
    dvbVect* out = nullptr;
    const uint32_t n = 20400;
    priv_dvbCreateVect(&in, Symbol);
    dvbConstVect(in, Symbol, n, 0x5A);
    priv_dvbCreateVect(&out, Symbol);
    dvbConstVect(out, Symbol, 16 * n, 0);
    uint32_t st = 0;
    for (auto _ : state) {
        in->head = 0;
        in->fill = n;
        out->head = 0;
        out->fill = 0;
        benchmark::DoNotOptimize(encode27(in, out, &st, n, nullptr));
    }
    state.SetBytesProcessed(state.iterations() * n);
    priv_dvbDestroyVect(&in);
    priv_dvbDestroyVect(&out);
}
BENCHMARK(BM_Encode27);

}  // namespace

BENCHMARK_MAIN();
