// tscheck: checks a transport stream that a receiver gave back from a tsgen
// test stream: packet sync, transport error indicators, continuity counters per
// PID, and the PRBS 2^23-1 of the null packets, bit by bit. The last line is a
// summary for scripts; the exit status is 0 only for an error-free stream.
//
// Packet sync: locked when 5 sync bytes (0x47) follow each other at 188-byte
// spacing, lost after 2 consecutive packets without one. The measurement starts
// at the first null packet whose payload is a stretch of the PRBS (what a
// receiver delivers before that is its start-up and is not checked).
//
// Timing, as ETSI TR 101 290 measures it: per PCR PID the accuracy of each PCR
// against a constant-rate fit of PCR on byte position (piecewise across
// discontinuities), the largest gap between PCRs and unannounced jumps; per PES
// stream the largest gap between PTS in time; continuity over every PID but the
// null packets'; the share of null packets. With -timing the stream may be any
// stream, measured from its first packet; without, from where the PRBS starts.
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "companion.hpp"
#include "frame/version.hpp"
#include "ts.hpp"
#include "tstiming.hpp"

namespace {

constexpr const char* kProg = "tscheck";
constexpr size_t kPacket = TS_PACKET;
constexpr uint8_t kSync = TS_SYNC;
constexpr int kLockSyncs = 5;     // consecutive sync bytes that lock the packet sync
constexpr int kUnlockMisses = 2;  // consecutive missing sync bytes that lose it
constexpr unsigned kPayloadBits = 184 * 8;
// The PRBS is found when the 1449 bits that follow the 23 loaded from a payload
// differ in at most a tenth of them (a payload of any other content differs in
// about half); it is lost when a payload differs from the continued sequence in
// more than a quarter of its bits (a packet dropped or inserted, or garbage).
constexpr unsigned kLockMaxMisses = (kPayloadBits - 23) / 10;
constexpr unsigned kSlipMisses = kPayloadBits / 4;
constexpr int kEventsShown = 10;  // of each kind

const char kUsage[] =
    "usage: tscheck [-timing] FILE.ts\n"
    "  Checks a transport stream decoded by a receiver from a tsgen test stream:\n"
    "  packet sync, transport error indicators, continuity counters per PID and the\n"
    "  PRBS 2^23-1 of the null packets. Prints what it found and, last, the line\n"
    "  packets=N sync_losses=N tei=N cc_errors=N prbs_bits=N bit_errors=N ber=X per=X\n"
    "  which gains the timing figures when the stream carries PCRs or PTS:\n"
    "  pcr_pids=N rate=X pcr_accuracy_ns=X pcr_accuracy_errors=N pcr_gap_ms=X\n"
    "  pcr_repetition_errors=N pcr_discontinuity_errors=N pts_gap_ms=X pts_errors=N\n"
    "  continuity_errors=N null_share=X\n"
    "  -timing  any stream: timing and continuity from its first packet, always on\n"
    "           the last line; the PRBS is checked when found, not required\n"
    "  Exit status: 0 error-free, 1 errors found, 2 bad usage.\n";

// TR 101 290's limits.
constexpr double kPcrAccuracyNs = 500;
constexpr int64_t kPcrRepetition = 40 * tstiming::kTicksPerMs;
constexpr int64_t kPcrDiscontinuity = 100 * tstiming::kTicksPerMs;
constexpr int64_t kPtsRepetition = 700 * tstiming::kTicksPerMs;

// The file through a window that slides forward: any size in little memory.
class Input {
public:
    explicit Input(FILE* fp) : fp_(fp) {}
    // Makes bytes [pos, end) available if the file has them; false at its end.
    bool has(uint64_t pos, uint64_t end) {
        if (pos > base_ + 4 * kChunk) {  // drop what lies behind
            const auto drop = static_cast<std::ptrdiff_t>(std::min<uint64_t>(pos - base_, buf_.size()));
            buf_.erase(buf_.begin(), buf_.begin() + drop);
            base_ += static_cast<uint64_t>(drop);
        }
        while (base_ + buf_.size() < end && !eof_) {
            const size_t old = buf_.size();
            buf_.resize(old + kChunk);
            const size_t got = std::fread(buf_.data() + old, 1, kChunk, fp_);
            buf_.resize(old + got);
            if (got < kChunk) {
                if (std::ferror(fp_)) error_ = errno;
                eof_ = true;
            }
        }
        return base_ + buf_.size() >= end;
    }
    const uint8_t* at(uint64_t pos) const { return buf_.data() + (pos - base_); }
    int error() const { return error_; }

private:
    static constexpr size_t kChunk = 1 << 20;
    FILE* fp_;
    std::vector<uint8_t> buf_;
    uint64_t base_ = 0;
    bool eof_ = false;
    int error_ = 0;
};

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

struct PidStats {
    uint64_t packets = 0, cc_errors = 0;
    int last_cc = -1;
};

class Checker {
public:
    // --- counts
    uint64_t packets = 0, sync_losses = 0, sync_byte_errors = 0, skipped = 0, leading = 0;
    uint64_t tei = 0, cc_errors = 0, prbs_bits = 0, bit_errors = 0, nulls = 0, null_errors = 0, slips = 0;
    bool started = false;
    uint64_t start_packet = 0;
    std::map<unsigned, PidStats> pids;

    void packet(const uint8_t* p, uint64_t number) {
        ++packets;
        const unsigned pid = (p[1] & 0x1Fu) << 8 | p[2];
        const bool prbs_packet = pid == TS_NULL_PID && (p[3] & 0x30) == 0x10;  // payload only
        if (!started) {
            if (!prbs_packet || !lock(p + 4)) {
                ++leading;
                return;
            }
            started = true, start_packet = number;
            pids[pid].packets = 1, pids[pid].last_cc = p[3] & 0x0F;
            return;
        }
        if (p[1] & 0x80) {
            ++tei;
            if (show(tei_events_))
                std::printf("transport error indicator set in packet %llu (PID 0x%04X)\n", ull(number), pid);
        }
        PidStats& s = pids[pid];
        ++s.packets;
        if (p[3] & 0x10) {  // the counter counts packets with a payload
            const int cc = p[3] & 0x0F;
            if (s.last_cc >= 0 && cc != ((s.last_cc + 1) & 0x0F)) {
                ++cc_errors, ++s.cc_errors;
                if (show(cc_events_))
                    std::printf("continuity error in packet %llu: PID 0x%04X counter %d after %d\n", ull(number), pid,
                                cc, s.last_cc);
            }
            s.last_cc = cc;
        }
        if (prbs_packet) null_packet(p + 4, number);
    }

    // Whether to print an event: the first few of each kind.
    static bool show(int& shown) {
        if (shown == kEventsShown) std::printf("(further events of this kind not shown)\n");
        return shown++ < kEventsShown;
    }
    int sync_events_ = 0;

private:
    Prbs23 prbs_;
    bool prbs_locked_ = false;
    int tei_events_ = 0, cc_events_ = 0, slip_events_ = 0;

    // Loads the first 23 bits of a payload and checks the rest against their continuation.
    bool lock(const uint8_t* payload) {
        uint32_t reg = 0;
        for (unsigned i = 0; i < 23; ++i) reg = reg << 1 | (payload[i / 8] >> (7 - i % 8) & 1u);
        Prbs23 trial;
        trial.load(reg);
        unsigned misses = 0;
        for (unsigned i = 23; i < kPayloadBits; ++i) misses += (payload[i / 8] >> (7 - i % 8) & 1u) ^ trial.next_bit();
        if (misses > kLockMaxMisses) return false;
        prbs_ = trial, prbs_locked_ = true;
        return true;
    }

    void null_packet(const uint8_t* payload, uint64_t number) {
        ++nulls;
        if (prbs_locked_) {
            Prbs23 ahead = prbs_;
            unsigned misses = 0;
            for (unsigned i = 0; i < kPayloadBits / 8; ++i)
                misses += static_cast<unsigned>(std::popcount(static_cast<unsigned>(payload[i] ^ ahead.next_byte())));
            if (misses <= kSlipMisses) {
                prbs_ = ahead;
                prbs_bits += kPayloadBits, bit_errors += misses;
                if (misses > 0) ++null_errors;
                return;
            }
            ++slips;
            prbs_locked_ = false;
            const bool again = lock(payload);
            if (show(slip_events_))
                std::printf("PRBS lost in packet %llu (%u of %u bits differ)%s\n", ull(number), misses, kPayloadBits,
                            again ? "; found again in it" : "");
        } else if (lock(payload) && show(slip_events_)) {
            std::printf("PRBS found again in packet %llu\n", ull(number));
        }
        ++null_errors;  // a packet that broke the sequence, or came while it was lost
    }
};

// The timing figures of TR 101 290 (see the head of the file).
class Timing {
public:
    uint64_t packets = 0, nulls = 0, continuity_errors = 0;
    uint64_t accuracy_errors = 0, repetition_errors = 0, discontinuity_errors = 0, pts_errors = 0;
    double accuracy_ns = 0, rate = 0;
    int64_t pcr_gap = 0, pts_gap = 0;  // ticks
    size_t pcr_pids = 0, pts_pids = 0;
    int events_ = 0;

    // quiet: its continuity errors are not printed (the PRBS check prints its own).
    void packet(const uint8_t* p, uint64_t pos, uint64_t number, bool quiet) {
        namespace tt = tstiming;
        ++packets;
        // A packet a decoder could not correct (transport error indicator) has no field to trust.
        if ((p[1] & 0x80) != 0) return;
        const unsigned pid = tt::pid(p);
        if (pid == tt::kNullPid) {
            ++nulls;
            return;
        }
        Stream& s = streams_[pid];
        // Continuity: a payload's counter follows the last, or repeats it once;
        // a discontinuity indicator allows any.
        if (tt::has_payload(p)) {
            const int c = static_cast<int>(tt::cc(p));
            if (s.cc >= 0 && !tt::discontinuity(p)) {
                const bool repeat = c == s.cc && !s.repeated;
                if (c != ((s.cc + 1) & 0x0F) && !repeat) {
                    ++continuity_errors;
                    if (!quiet && Checker::show(events_))
                        std::printf("continuity error in packet %llu: PID 0x%04X counter %d after %d\n", ull(number),
                                    pid, c, s.cc);
                }
                s.repeated = repeat;
            }
            s.cc = c;
        }
        if (tt::has_pcr(p)) s.pcrs.push_back({pos + 10, tt::get_pcr(p), tt::discontinuity(p)});
        if (tt::pes_stamps(p).pts >= 0) s.pts.push_back(pos);
    }

    void finish() {
        const Stream* main = nullptr;
        for (auto& [pid, s] : streams_) {
            if (!s.pcrs.empty()) ++pcr_pids;
            if (s.pts.size() >= 2) ++pts_pids;
            pcr_figures(pid, s);
            if (main == nullptr || s.pcrs.size() > main->pcrs.size()) main = &s;
        }
        if (main != nullptr && main->pcrs.size() >= 2) {
            rate = main->rate;
            for (auto& [pid, s] : streams_) pts_figures(pid, s, *main);
        }
    }
    bool timed() const { return pcr_pids > 0 || pts_pids > 0; }
    bool passes() const {
        return accuracy_errors == 0 && repetition_errors == 0 && discontinuity_errors == 0 && pts_errors == 0;
    }
    double null_share() const { return packets ? static_cast<double>(nulls) / static_cast<double>(packets) : 0.0; }

private:
    struct Pcr {
        uint64_t pos;  // of the byte that ends the PCR's base
        int64_t value;
        bool signalled;
    };
    struct Stream {
        int cc = -1;
        bool repeated = false;
        std::vector<Pcr> pcrs;
        std::vector<uint64_t> pts;  // positions of the packets that carry a PTS
        double rate = 0;
    };
    std::map<unsigned, Stream> streams_;

    void pcr_figures(unsigned pid, Stream& s) {
        namespace tt = tstiming;
        // Unwrapped values and the time bases they form.
        std::vector<std::pair<size_t, size_t>> bases;  // [from, to) in s.pcrs
        std::vector<int64_t> u(s.pcrs.size());
        size_t from = 0;
        for (size_t i = 0; i < s.pcrs.size(); ++i) {
            if (i == 0) {
                u[0] = s.pcrs[0].value;
                continue;
            }
            const int64_t d = tt::wrap_diff(s.pcrs[i].value, s.pcrs[i - 1].value, tt::kPcrWrap);
            // A step back or of more than 100 ms: a new time base, announced or not.
            const bool jump = s.pcrs[i].signalled || d < 0 || d > kPcrDiscontinuity;
            if (!s.pcrs[i].signalled && jump) {
                ++discontinuity_errors;
                std::printf("PCR discontinuity without its indicator on PID 0x%04X at byte %llu: %+.3f ms\n", pid,
                            ull(s.pcrs[i].pos - 10), static_cast<double>(d) / tt::kTicksPerMs);
            }
            if (!jump) {
                pcr_gap = std::max(pcr_gap, d);
                if (d > kPcrRepetition) ++repetition_errors;
            }
            if (jump) bases.emplace_back(from, i), from = i;
            u[i] = jump ? s.pcrs[i].value : u[i - 1] + d;
        }
        bases.emplace_back(from, s.pcrs.size());
        // Per time base, a least-squares line of value on position; the largest residual.
        double bytes = 0, ticks = 0, worst = 0;
        for (const auto& [a, b] : bases) {
            if (b - a < 2) continue;
            const auto n = static_cast<double>(b - a);
            double mx = 0, my = 0;
            for (size_t i = a; i < b; ++i)
                mx += static_cast<double>(s.pcrs[i].pos - s.pcrs[a].pos), my += static_cast<double>(u[i] - u[a]);
            mx /= n, my /= n;
            double sxx = 0, sxy = 0;
            for (size_t i = a; i < b; ++i) {
                const double x = static_cast<double>(s.pcrs[i].pos - s.pcrs[a].pos) - mx;
                const double y = static_cast<double>(u[i] - u[a]) - my;
                sxx += x * x, sxy += x * y;
            }
            if (sxx <= 0) continue;
            const double slope = sxy / sxx;  // ticks a byte
            for (size_t i = a; i < b; ++i) {
                const double x = static_cast<double>(s.pcrs[i].pos - s.pcrs[a].pos) - mx;
                const double e = (static_cast<double>(u[i] - u[a]) - my - slope * x) / tt::kTicksPerSecond * 1e9;
                worst = std::max(worst, std::fabs(e));
                if (std::fabs(e) > kPcrAccuracyNs) ++accuracy_errors;
            }
            bytes += static_cast<double>(s.pcrs[b - 1].pos - s.pcrs[a].pos);
            ticks += slope * static_cast<double>(s.pcrs[b - 1].pos - s.pcrs[a].pos);
        }
        if (ticks > 0) s.rate = bytes * 8 * tt::kTicksPerSecond / ticks;
        accuracy_ns = std::max(accuracy_ns, worst);
        if (!s.pcrs.empty())
            std::printf("PID 0x%04X: %zu PCRs in %zu time bases, %.0f bit/s, accuracy within %.1f ns\n", pid,
                        s.pcrs.size(), bases.size(), s.rate, worst);
    }

    // The gaps between a stream's PTS in time: their positions on the clock of
    // the PID with the most PCRs.
    void pts_figures(unsigned pid, const Stream& s, const Stream& clock) {
        namespace tt = tstiming;
        if (s.pts.size() < 2) return;
        tt::Timeline tl;
        tl.fallback_num = tt::kTicksPerSecond * 8;
        tl.fallback_den = std::max<int64_t>(1, static_cast<int64_t>(clock.rate));
        std::vector<int64_t> t;
        size_t next = 0;
        auto place = [&](uint64_t up_to) {
            for (; next < s.pts.size() && s.pts[next] <= up_to; ++next)
                t.push_back(tl.at(static_cast<int64_t>(s.pts[next])));
        };
        for (const Pcr& c : clock.pcrs) {
            tl.pcr(static_cast<int64_t>(c.pos), c.value, c.signalled);
            if (tl.pcrs >= 2) place(c.pos);
        }
        place(UINT64_MAX);
        int64_t gap = 0;
        for (size_t i = 1; i < t.size(); ++i) {
            const int64_t d = t[i] - t[i - 1];
            gap = std::max(gap, d);
            if (d > kPtsRepetition) ++pts_errors;
        }
        pts_gap = std::max(pts_gap, gap);
        std::printf("PID 0x%04X: %zu PTS, largest gap %.3f ms\n", pid, s.pts.size(),
                    static_cast<double>(gap) / tt::kTicksPerMs);
    }
};
}  // namespace

int main(int argc, char** argv) {
    companion::start(kProg);
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "-V") == 0) {
        companion::print_version();
        return 0;
    }
    const bool timing_mode = argc == 3 && std::strcmp(argv[1], "-timing") == 0;
    if (argc != 2 && !timing_mode)
        companion::fail_status(2, "give one transport stream file (usage: tscheck [-timing] FILE.ts)");
    const char* name = argv[argc - 1];
    FILE* fp = std::fopen(name, "rb");
    if (fp == nullptr) companion::fail_status(2, "can't read \"%s\": %s", name, std::strerror(errno));
    Input in(fp);
    Checker c;
    Timing timing;
    uint64_t pos = 0;
    bool locked = false;
    for (;;) {
        if (!locked) {
            // Search: 5 sync bytes at 188-byte spacing, starting at pos.
            if (!in.has(pos, pos + (kLockSyncs - 1) * kPacket + 1)) break;
            bool ok = true;
            for (int k = 0; k < kLockSyncs && ok; ++k) ok = *in.at(pos + static_cast<uint64_t>(k) * kPacket) == kSync;
            if (!ok) {
                ++pos, ++c.skipped;
                continue;
            }
            locked = true;
        }
        if (!in.has(pos, pos + kPacket)) break;
        if (*in.at(pos) != kSync) {
            // One missing sync byte is a corrupted packet; two in a row (this
            // one and the next, or the end of the file) lose the sync.
            static_assert(kUnlockMisses == 2);
            const bool next_ok = in.has(pos, pos + kPacket + 1) && *in.at(pos + kPacket) == kSync;
            if (!next_ok) {
                ++c.sync_losses;
                if (Checker::show(c.sync_events_)) std::printf("packet sync lost at byte %llu\n", ull(pos));
                locked = false;
                ++pos, ++c.skipped;
                continue;
            }
            ++c.sync_byte_errors;
            if (Checker::show(c.sync_events_)) std::printf("corrupted sync byte at byte %llu\n", ull(pos));
        }
        const uint64_t number = c.packets;
        c.packet(in.at(pos), number);
        if (timing_mode || c.started) timing.packet(in.at(pos), pos, number, c.started);
        pos += kPacket;
    }
    in.has(pos, pos + 1);
    if (in.error() != 0) companion::fail_status(2, "reading \"%s\" failed: %s", name, std::strerror(in.error()));
    std::fclose(fp);
    // Bytes after the last packet: not enough for a packet, or never in sync.
    uint64_t trailing = 0;
    while (in.has(pos + trailing, pos + trailing + 1)) ++trailing;

    std::printf("%s %s: %s\n", kProg, TERVANE_VERSION, name);
    std::printf(
        "Sync: %llu packets; %llu bytes out of sync skipped, %llu bytes after the last packet; "
        "%llu corrupted sync bytes\n",
        ull(c.packets), ull(c.skipped), ull(trailing), ull(c.sync_byte_errors));
    if (c.started) {
        std::printf("PRBS: found in packet %llu; the %llu packets before it are not checked\n", ull(c.start_packet),
                    ull(c.leading));
        std::printf("Null packets checked: %llu, %llu with errors, %llu PRBS losses\n", ull(c.nulls),
                    ull(c.null_errors), ull(c.slips));
        int shown = 0;
        for (const auto& [pid, s] : c.pids) {
            if (++shown > 16) {
                std::printf("(%zu more PIDs not shown)\n", c.pids.size() - 16);
                break;
            }
            std::printf("PID 0x%04X: %llu packets, %llu continuity errors\n", pid, ull(s.packets), ull(s.cc_errors));
        }
    } else {
        std::printf("PRBS: not found in any null packet (is this a decoded tsgen stream?)\n");
    }
    timing.finish();
    const bool timed = timing_mode || timing.timed();
    if (timed)
        std::printf(
            "Timing: %zu PCR PIDs, rate %.0f bit/s, PCR accuracy within %.1f ns (%llu beyond 500 ns), largest PCR gap "
            "%.3f ms (%llu beyond 40 ms), %llu PCR discontinuities without their indicator, largest PTS gap %.3f ms "
            "(%llu beyond 700 ms); %llu continuity errors; null packets %.4f of %llu\n",
            timing.pcr_pids, timing.rate, timing.accuracy_ns, ull(timing.accuracy_errors),
            static_cast<double>(timing.pcr_gap) / tstiming::kTicksPerMs, ull(timing.repetition_errors),
            ull(timing.discontinuity_errors), static_cast<double>(timing.pts_gap) / tstiming::kTicksPerMs,
            ull(timing.pts_errors), ull(timing.continuity_errors), timing.null_share(), ull(timing.packets));
    const double ber = c.prbs_bits ? static_cast<double>(c.bit_errors) / static_cast<double>(c.prbs_bits) : 0.0;
    const double per = c.nulls ? static_cast<double>(c.null_errors) / static_cast<double>(c.nulls) : 0.0;
    std::printf(
        "packets=%llu sync_losses=%llu tei=%llu cc_errors=%llu prbs_bits=%llu bit_errors=%llu ber=%.3g per=%.3g",
        ull(c.packets), ull(c.sync_losses), ull(c.tei), ull(c.cc_errors), ull(c.prbs_bits), ull(c.bit_errors), ber,
        per);
    if (timed)
        std::printf(
            " pcr_pids=%zu rate=%.0f pcr_accuracy_ns=%.1f pcr_accuracy_errors=%llu pcr_gap_ms=%.3f "
            "pcr_repetition_errors=%llu pcr_discontinuity_errors=%llu pts_gap_ms=%.3f pts_errors=%llu "
            "continuity_errors=%llu null_share=%.4f",
            timing.pcr_pids, timing.rate, timing.accuracy_ns, ull(timing.accuracy_errors),
            static_cast<double>(timing.pcr_gap) / tstiming::kTicksPerMs, ull(timing.repetition_errors),
            ull(timing.discontinuity_errors), static_cast<double>(timing.pts_gap) / tstiming::kTicksPerMs,
            ull(timing.pts_errors), ull(timing.continuity_errors), timing.null_share());
    std::printf("\n");
    const bool sync_clean = c.sync_losses == 0 && c.sync_byte_errors == 0 && c.tei == 0;
    const bool prbs_clean = c.cc_errors == 0 && c.bit_errors == 0 && c.null_errors == 0;
    // Without -timing: a tsgen stream, error-free and, when timed, in time. With
    // it: any stream with packets, in sync, continuous and in time, and its PRBS
    // error-free if it has one.
    if (!timing_mode) return c.started && sync_clean && prbs_clean && timing.passes() ? 0 : 1;
    return c.packets > 0 && sync_clean && timing.continuity_errors == 0 && timing.passes() && (!c.started || prbs_clean)
               ? 0
               : 1;
}
