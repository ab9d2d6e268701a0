// The receiver's decoder and its parts against real time. The whole decoder
// runs on the transmitter's own cells of 8k 64-QAM 2/3, guard 1/4 (19.9 Mbit/s
// useful), with noise at 20 dB: its figure is the processor time per second
// of signal. Build with -DTERVANE_BENCH=ON and run ./build/tervane_bench
// --benchmark_filter=Rx.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <bit>
#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "receiver/decoder.hpp"
#include "receiver/kernels.hpp"
#include "receiver/rs.hpp"

#ifdef TERVANE_HAVE_VOLK
#include <volk/volk.h>
#endif

namespace {

constexpr size_t N8k = 6048;

constexpr unsigned branch_parity(unsigned v) { return static_cast<unsigned>(std::popcount(v) & 1); }
// One second of 8k guard 1/4 at 64/7 MHz is 892.9 symbols.
constexpr double symbols_per_second = 64e6 / 7 / (8192 * 1.25);

// The mapper's cells of a transmission of random packets, made once by the
// transmitter in a scratch directory.
const std::vector<std::complex<float>>& cells_8k64() {
    static const std::vector<std::complex<float>> cells = [] {
        std::vector<std::complex<float>> c;
        std::string dir = (std::filesystem::temp_directory_path() / "tervane-bench-XXXXXX").string();
        if (::mkdtemp(dir.data()) == nullptr) return c;
        {
            std::vector<uint8_t> ts(188 * 14000);
            std::mt19937 g(1);
            for (size_t i = 0; i < ts.size(); i++) ts[i] = i % 188 == 0 ? 0x47 : static_cast<uint8_t>(g());
            std::ofstream(dir + "/in.ts", std::ios::binary)
                .write(reinterpret_cast<const char*>(ts.data()), static_cast<std::streamsize>(ts.size()));
        }
        const std::string cmd = "cd '" + dir +
                                "' && '" TERVANE_EXE
                                "' -i in.ts -o out -d m -m 8k -M 64 -D 1/4 -p 2/3 -l /dev/null -v 0 >/dev/null";
        if (std::system(cmd.c_str()) == 0) {
            std::ifstream f(dir + "/out_ma.bin", std::ios::binary | std::ios::ate);
            c.resize(static_cast<size_t>(f.tellg()) / 8);
            f.seekg(0);
            f.read(reinterpret_cast<char*>(c.data()), static_cast<std::streamsize>(c.size() * 8));
        }
        std::filesystem::remove_all(dir);
        // Noise at 20 dB C/N.
        std::mt19937 g(2);
        std::normal_distribution<float> n(0.0f, static_cast<float>(std::sqrt(0.01 / 2)));
        for (auto& x : c) x += std::complex<float>(n(g), n(g));
        return c;
    }();
    return cells;
}

void BM_RxDecoder8k64(benchmark::State& state) {
    dvbKernelIsa = static_cast<dvbIsa>(state.range(0));
    if (dvbKernelIsa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const auto& cells = cells_8k64();
    const size_t symbols = cells.size() / N8k;
    if (symbols < 68) {
        state.SkipWithError("no cells from the transmitter");
        return;
    }
    rx::Transmission t;
    t.mode = 2, t.M = 2, t.rate_hp = 1;
    const std::vector<float> csi(N8k, 100.0f);
    uint64_t ok = 0;
    for (auto _ : state) {
        rx::DecoderPtr d = rx::decoder_create(t);
        for (size_t k = 0; k < symbols; k++)
            rx::decoder_push(*d,
                             {static_cast<uint32_t>(k / 68 % 4), static_cast<uint32_t>(k % 68),
                              std::span(cells).subspan(k * N8k, N8k), csi},
                             [&](const rx::Packet& p) { ok += p.ok; });
    }
    dvbKernelIsa = dvbCpuIsa();
    state.counters["packets_ok"] = static_cast<double>(ok) / static_cast<double>(state.iterations());
    // Seconds of signal decoded per second of processor time.
    state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(symbols) / symbols_per_second,
                                                      benchmark::Counter::kIsIterationInvariantRate);
}

void BM_RxDemap64(benchmark::State& state) {
    dvbKernelIsa = static_cast<dvbIsa>(state.range(0));
    if (dvbKernelIsa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const auto& cells = cells_8k64();
    if (cells.size() < N8k) {
        state.SkipWithError("no cells from the transmitter");
        return;
    }
    const rx::Constellation c = rx::constellation(2, 0);
    const std::vector<float> csi(N8k, 100.0f);
    std::vector<int8_t> planes(6 * N8k);
    for (auto _ : state) {
        rx::demap(c, reinterpret_cast<const float*>(cells.data()), csi.data(), N8k, 0.5f, planes.data(), N8k);
        benchmark::DoNotOptimize(planes.data());
    }
    dvbKernelIsa = dvbCpuIsa();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * N8k));
    state.SetLabel("cells");
}

void BM_RxViterbi(benchmark::State& state) {
    dvbKernelIsa = static_cast<dvbIsa>(state.range(0));
    if (dvbKernelIsa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const size_t n = 4096;
    std::vector<int8_t> pairs(2 * n);
    std::mt19937 g(3);
    for (auto& p : pairs) p = static_cast<int8_t>(static_cast<int>(g() % 255) - 127);
    std::vector<uint64_t> dec(n);
    std::array<int16_t, 64> m{};
    for (auto _ : state) {
        rx::viterbi_acs(m.data(), pairs.data(), n, dec.data());
        benchmark::DoNotOptimize(dec.data());
    }
    dvbKernelIsa = dvbCpuIsa();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
    state.SetLabel("decoded bits");
}

// Four decoders at once, as the decoder runs its windows (bits of all four).
void BM_RxViterbiFour(benchmark::State& state) {
    dvbKernelIsa = static_cast<dvbIsa>(state.range(0));
    if (dvbKernelIsa > dvbCpuIsa()) {
        state.SkipWithError("not available on this processor");
        return;
    }
    const size_t n = 4096;
    std::vector<int8_t> pairs(8 * n);
    std::mt19937 g(3);
    for (auto& p : pairs) p = static_cast<int8_t>(static_cast<int>(g() % 255) - 127);
    std::array<std::vector<uint64_t>, 4> d;
    std::array<std::array<int16_t, 64>, 4> m{};
    rx::ViterbiSet v;
    v.count = 4;
    for (size_t k = 0; k < 4; k++) {
        d[k].resize(n);
        v.metrics[k] = m[k].data(), v.pairs[k] = pairs.data() + 2 * n * k, v.decisions[k] = d[k].data();
    }
    for (auto _ : state) {
        rx::viterbi_acs_set(v, n);
        benchmark::DoNotOptimize(d[3].data());
    }
    dvbKernelIsa = dvbCpuIsa();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 4 * n));
    state.SetLabel("decoded bits");
}

#ifdef TERVANE_HAVE_VOLK
// VOLK's add-compare-select for the same code (8-bit metrics, its fastest
// form on this processor), for comparison.
void BM_RxVolkViterbi(benchmark::State& state) {
    const unsigned n = 4096;
    std::vector<unsigned char> syms(2 * n), dec(8 * (n + 6)), x(64), y(64), tab(64);
    std::mt19937 g(3);
    for (auto& s : syms) s = static_cast<unsigned char>(g());
    for (unsigned i = 0; i < 32; i++) {
        tab[i] = (branch_parity((2 * i) & 0x4F) != 0) ? 255 : 0;
        tab[32 + i] = (branch_parity((2 * i) & 0x6D) != 0) ? 255 : 0;
    }
    for (auto _ : state) {
        std::fill(x.begin(), x.end(), 0);
        volk_8u_x4_conv_k7_r2_8u(y.data(), x.data(), syms.data(), dec.data(), n, 0, tab.data());
        benchmark::DoNotOptimize(dec.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
    state.SetLabel("decoded bits");
}
BENCHMARK(BM_RxVolkViterbi);
#endif

void BM_RxReedSolomonClean(benchmark::State& state) {
    std::array<uint8_t, 204> cw{};
    for (size_t i = 0; i < 188; i++) cw[i] = static_cast<uint8_t>(i * 7);
    rx::rs_encode(std::span<const uint8_t, 188>(cw.data(), 188), std::span<uint8_t, 16>(cw.data() + 188, 16));
    for (auto _ : state) {
        std::array<uint8_t, 204> c = cw;
        benchmark::DoNotOptimize(rx::rs_decode(std::span<uint8_t, 204>(c)));
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel("packets");
}

void BM_RxReedSolomonEightErrors(benchmark::State& state) {
    std::array<uint8_t, 204> cw{};
    for (size_t i = 0; i < 188; i++) cw[i] = static_cast<uint8_t>(i * 7);
    rx::rs_encode(std::span<const uint8_t, 188>(cw.data(), 188), std::span<uint8_t, 16>(cw.data() + 188, 16));
    for (size_t k = 0; k < 8; k++) cw[k * 25] ^= 0x5A;
    for (auto _ : state) {
        std::array<uint8_t, 204> c = cw;
        benchmark::DoNotOptimize(rx::rs_decode(std::span<uint8_t, 204>(c)));
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel("packets");
}

void isa_args(benchmark::internal::Benchmark* b) {
    for (int64_t isa : {DVB_ISA_BASE, DVB_ISA_AVX, DVB_ISA_AVX512}) b->Arg(isa);
}

}  // namespace

BENCHMARK(BM_RxDecoder8k64)->Arg(DVB_ISA_AVX)->Arg(DVB_ISA_AVX512)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RxDemap64)->Apply(isa_args);
BENCHMARK(BM_RxViterbi)->Apply(isa_args);
BENCHMARK(BM_RxViterbiFour)->Apply(isa_args);
BENCHMARK(BM_RxReedSolomonClean);
BENCHMARK(BM_RxReedSolomonEightErrors);
