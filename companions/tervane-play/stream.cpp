#include "stream.hpp"

#include <unistd.h>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace play {
namespace {

std::atomic<bool> g_signalled{false};

extern "C" void on_signal(int) { g_signalled.store(true); }

long underflows(const Stats& st) { return std::max(st.status_underflows, g_log_underflows.load()); }

void report_line(const Stats& st, double rate, Ring& ring, long clipped, bool tty) {
    const double t = std::chrono::duration<double>(Clock::now() - st.start).count();
    std::fprintf(stderr,
                 "%s%.1f s  %llu samples  %.0f S/s (%.4f%%)  ring %3.0f%%  underflows %ld  late %ld  clipped %ld%s",
                 tty ? "\r" : "", t, static_cast<unsigned long long>(st.samples), t > 0 ? st.samples / t : 0.0,
                 t > 0 ? (st.samples / t / rate - 1) * 100 : 0.0, 100.0 * ring.fill() / ring.capacity(), underflows(st),
                 st.late, clipped, tty ? "" : "\n");
}

// A signal ends the run cleanly, but never takes longer than this from the
// moment the writer sees it, whatever the device does.
constexpr auto kSignalGrace = std::chrono::seconds(1);

// When the writer first saw a signal, and the time by which the run must end.
struct SignalWatch {
    std::optional<Clock::time_point> seen;
    bool on() {
        if (!seen && g_signalled.load()) seen = Clock::now();
        return seen.has_value();
    }
    Clock::time_point deadline() const { return seen ? *seen + kSignalGrace : Clock::time_point::max(); }
};

}  // namespace

void install_signal_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

std::string stream(Device& d, Ring& ring, const Converter& conv, const Settings& s, uint64_t to_send, Stats& st) {
    SignalWatch signal;
    while (!ring.wait_full(std::chrono::milliseconds(100)) && !signal.on()) {}
    bool status_ok = true, played_out = false;
    const auto poll_status = [&](long timeout_us) {
        if (!status_ok) return;
        size_t mask = 0;
        int flags = 0;
        long long t = 0;
        const int r = d.dev->readStreamStatus(d.stream, mask, flags, t, timeout_us);
        if (r == SOAPY_SDR_NOT_SUPPORTED) status_ok = false;
        else if (r == SOAPY_SDR_UNDERFLOW) ++st.status_underflows;
        else if (r == 0 && (flags & SOAPY_SDR_END_BURST) != 0) played_out = true;
        else if (r < 0 && r != SOAPY_SDR_TIMEOUT)
            throw std::runtime_error(std::string("readStreamStatus: ") + SoapySDR::errToStr(r));
    };
    const auto stall = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s.stall));
    const bool tty = ::isatty(STDERR_FILENO) != 0;
    const Format& f = d.format;
    std::string failure;
    try {
        if (d.dev->activateStream(d.stream) != 0) throw std::runtime_error("activateStream failed");
        d.active = true;
        st.start = Clock::now();
        auto next_report = st.start + std::chrono::seconds(1);
        std::optional<Clock::time_point> refused;  // since when the device has taken nothing offered
        std::vector<uint8_t> chunk(d.mtu * f.size);
        bool empty = false, cut = false;
        for (bool last = false; !last && !cut;) {
            // The device wants samples: an empty ring is a late delivery (once an episode).
            const bool late = ring.fill() == 0 && !ring.drained() && !signal.on();
            if (late && !empty) ++st.late;
            empty = late;
            const size_t n =
                ring.pop(chunk.data(), std::min<uint64_t>(d.mtu, to_send - st.samples), std::chrono::milliseconds(100));
            if (n == 0 && !signal.on() && !ring.drained()) continue;
            last = signal.on() || st.samples + n >= to_send || ring.drained();
            f.measure(chunk.data(), 2 * n, st.peak, st.power);
            size_t done = 0;
            do {
                int flags = last ? SOAPY_SDR_END_BURST : 0;
                const void* b[] = {chunk.data() + done * f.size};
                // A timeout only says the device's buffer is full; an underflow return
                // took nothing either. Neither is progress; only a device that takes
                // nothing for the stall time has stopped.
                const int r = d.dev->writeStream(d.stream, b, n - done, flags, 0, 100000);
                const auto now = Clock::now();
                if (r == SOAPY_SDR_UNDERFLOW) ++st.status_underflows;
                else if (r < 0 && r != SOAPY_SDR_TIMEOUT)
                    throw std::runtime_error(std::string("writeStream: ") + SoapySDR::errToStr(r));
                if (r > 0 || n == done) {
                    done += static_cast<size_t>(std::max(r, 0));
                    st.samples += static_cast<size_t>(std::max(r, 0));
                    refused.reset();
                } else if (!refused) {
                    refused = now;
                } else if (now - *refused > stall) {
                    char why[80];
                    std::snprintf(why, sizeof why, "device stalled: it took no sample for %g s", s.stall);
                    throw std::runtime_error(why);
                }
                poll_status(0);
                cut = signal.on() && now >= signal.deadline() - kSignalGrace / 2;
            } while (done < n && !cut);
            if (Clock::now() >= next_report) {
                report_line(st, s.rate, ring, conv.clipped.load(), tty);
                next_report += std::chrono::seconds(1);
            }
        }
        // Played out: the END_BURST status, else the duration of what was sent; a
        // signal cuts the wait short, and a device that plays nothing ends it too.
        const auto sent_end =
            st.start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(st.samples / s.rate));
        const auto played_by = std::max(Clock::now(), sent_end) + std::chrono::seconds(1);
        while (!cut && status_ok && !played_out && Clock::now() < std::min(played_by, signal.deadline()))
            poll_status(100000), signal.on();
        while (!cut && !played_out && Clock::now() < std::min(sent_end, signal.deadline())) {
            signal.on();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    } catch (const std::exception& e) {
        failure = e.what();
    }
    st.end = Clock::now();
    if (tty) std::fputc('\n', stderr);
    return failure;
}

void print_summary(const Stats& st, const Converter& conv, const Producer& prod) {
    const double secs = std::chrono::duration<double>(st.end - st.start).count();
    const auto db = [](double x) { return x > 0 ? 10 * std::log10(x) : -999.0; };
    std::printf(
        "samples=%llu seconds=%.3f rate=%.1f underflows=%ld late=%ld clipped=%ld peak_dbfs=%.2f "
        "rms_dbfs=%.2f loops=%ld nulls=%ld dropped=%ld skipped=%llu\n",
        static_cast<unsigned long long>(st.samples), secs, secs > 0 ? st.samples / secs : 0.0, underflows(st), st.late,
        conv.clipped.load(), db(st.peak * st.peak), db(st.samples > 0 ? st.power / st.samples : 0), prod.loops.load(),
        prod.nulls.load(), prod.dropped.load(), static_cast<unsigned long long>(prod.skipped.load()));
}

}  // namespace play
