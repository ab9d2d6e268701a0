#include "receiver/resample.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace rx {

namespace {

double bessel_i0(double x) {
    double sum = 1, term = 1;
    for (int k = 1; term > 1e-17 * sum; ++k) term *= (x / (2 * k)) * (x / (2 * k)), sum += term;
    return sum;
}

constexpr int kPeriods = 48;  // output periods the filter spans
constexpr double kBeta = 9.0;

}  // namespace

void resampler_init(Resampler& r, double step) {
    r.step = step;
    const double scale = std::max(step, 1.0);  // input samples per period of the cutoff
    r.taps = static_cast<int>(std::ceil(kPeriods * scale));
    r.table.assign(static_cast<size_t>((r.phases + 1) * r.taps), 0.0f);
    const double half = r.taps / 2.0;
    for (int p = 0; p <= r.phases; ++p) {
        double sum = 0;
        for (int k = 0; k < r.taps; ++k) {
            const double u =
                (k - r.taps / 2 + 1) - static_cast<double>(p) / r.phases;  // input samples from the instant
            const double x = u / scale;
            const double q = u / half;
            const double w = bessel_i0(kBeta * std::sqrt(std::max(0.0, 1 - q * q))) / bessel_i0(kBeta);
            const double s = x == 0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
            r.table[static_cast<size_t>(p * r.taps + k)] = static_cast<float>(w * s);
            sum += w * s;
        }
        for (int k = 0; k < r.taps; ++k) r.table[static_cast<size_t>(p * r.taps + k)] /= static_cast<float>(sum);
    }
    r.hist.assign(static_cast<size_t>(r.taps / 2), {0, 0});  // zeros before the first input
    r.t = r.taps / 2;                                        // the first output falls on the first input
}

void resample(Resampler& r, std::span<const std::complex<float>> in, std::vector<std::complex<float>>& out) {
    r.hist.insert(r.hist.end(), in.begin(), in.end());
    const float* x = reinterpret_cast<const float*>(r.hist.data());
    const auto have = static_cast<double>(r.hist.size());
    for (;;) {
        double base = std::floor(r.t);
        auto p = static_cast<int>(std::lround((r.t - base) * r.phases));
        const auto first = static_cast<int64_t>(base) - r.taps / 2 + 1;
        if (static_cast<double>(first + r.taps) > have) break;
        const float* h = r.table.data() + static_cast<size_t>(p) * static_cast<size_t>(r.taps);
        const float* s = x + 2 * first;
        float acc_r[8] = {}, acc_i[8] = {};  // partial sums in lanes
        int k = 0;
        for (; k + 8 <= r.taps; k += 8)
            for (int u = 0; u < 8; ++u)
                acc_r[u] += h[k + u] * s[2 * (k + u)], acc_i[u] += h[k + u] * s[2 * (k + u) + 1];
        for (; k < r.taps; ++k) acc_r[0] += h[k] * s[2 * k], acc_i[0] += h[k] * s[2 * k + 1];
        float yr = 0, yi = 0;
        for (int u = 0; u < 8; ++u) yr += acc_r[u], yi += acc_i[u];
        out.emplace_back(yr, yi);
        r.t += r.step;
    }
    // Drop what no later output needs.
    const auto keep_from = static_cast<int64_t>(std::floor(r.t)) - r.taps / 2 + 1;
    const auto drop = static_cast<size_t>(std::clamp<int64_t>(keep_from, 0, static_cast<int64_t>(r.hist.size())));
    r.hist.erase(r.hist.begin(), r.hist.begin() + static_cast<std::ptrdiff_t>(drop));
    r.t -= static_cast<double>(drop);
}

}  // namespace rx
