#include "tsfile.hpp"

#include <cerrno>
#include <cstdio>
#include <vector>

#include "companion.hpp"

namespace tstiming {
namespace {

constexpr size_t kChunk = 1 << 20;
// Skipping more than this before the first packet is found: not a transport stream.
constexpr uint64_t kNoSyncLimit = 1 << 20;

double mbps(double bps) { return bps / 1e6; }
double seconds(int64_t ticks) { return static_cast<double>(ticks) / kTicksPerSecond; }

// The refusal of an input whose payload the channel cannot carry in time.
[[noreturn]] void too_fast(Rate rate, const std::string& channel, const Scheduler& sch) {
    const Stats& st = sch.stats;
    const double slot = sch.clock.ticks_per_slot();
    const double carried = static_cast<double>(st.busy_until - st.busy_from) + slot;
    const double due = static_cast<double>(st.busy_due - st.busy_from) + slot;
    companion::fail(
        "the input needs %.6f Mbit/s for its packets over %.3f s (from %.3f s on), more than the channel's useful "
        "rate of %.6f Mbit/s (%s): they would leave more than %.0f ms late",
        mbps(rate.bps() * carried / due), due / kTicksPerSecond, seconds(st.busy_from), mbps(rate.bps()),
        channel.c_str(), static_cast<double>(sch.cfg.max_late) / kTicksPerMs);
}

}  // namespace

void read_packets(const std::string& name, Sync& sync, const std::function<void(const uint8_t*)>& take) {
    FILE* fp = name == "-" ? stdin : std::fopen(name.c_str(), "rb");
    if (fp == nullptr) companion::fail("can't read \"%s\": %s", name.c_str(), std::strerror(errno));
    std::vector<uint8_t> buf(kChunk);
    const char* shown = name == "-" ? "standard input" : name.c_str();
    for (;;) {
        const size_t got = std::fread(buf.data(), 1, buf.size(), fp);
        if (got > 0) sync.feed(std::span<const uint8_t>(buf.data(), got), take);
        if (sync.packets == 0 && sync.skipped > kNoSyncLimit)
            companion::fail("%s is not a transport stream: no packet sync in its first %llu bytes", shown,
                            static_cast<unsigned long long>(sync.skipped));
        if (got < buf.size()) {
            if (std::ferror(fp)) companion::fail("reading %s failed: %s", shown, std::strerror(errno));
            if (std::feof(fp)) break;
        }
    }
    sync.finish(take);
    if (fp != stdin) std::fclose(fp);
    if (sync.packets == 0)
        companion::fail("%s is not a transport stream: no packet sync in its %llu bytes", shown,
                        static_cast<unsigned long long>(sync.skipped));
}

void warn_skipped(const Sync& sync) {
    for (const auto& st : sync.stretches)
        std::fprintf(stderr, "%s: warning: %llu bytes that are not transport stream packets skipped at byte %llu\n",
                     companion::prog(), static_cast<unsigned long long>(st.bytes),
                     static_cast<unsigned long long>(st.at));
    if (sync.skipped > 0 && sync.stretches.size() == Sync::kStretchesKept)
        std::fprintf(stderr, "%s: warning: %llu bytes skipped in all\n", companion::prog(),
                     static_cast<unsigned long long>(sync.skipped));
}

Config file_config(Rate rate, const FileFacts* facts) {
    Config c;
    c.rate = rate;
    c.live = false;
    c.drop_late = facts == nullptr;  // a file has been checked beforehand
    if (facts != nullptr) c.start = facts->any_pcr ? Mode::paced : Mode::passed;
    return c;
}

FileFacts check_file(const std::string& name, Rate rate, long loops, const std::string& channel) {
    FileFacts facts;
    Sync sync;
    read_packets(name, sync, [&](const uint8_t* p) { facts.packet(p); });
    facts.finish(SlotClock(rate));
    warn_skipped(sync);

    // A dry run: does every packet leave in time?
    Scheduler dry(file_config(rate, &facts));
    const long plays = loops == 0 || loops > kDryLoops ? kDryLoops : loops;
    run_schedule(name, dry, &facts, plays, [&](const Packet&, const Scheduler& sch) {
        if (sch.stats.max_late > sch.cfg.max_late) too_fast(rate, channel, sch);
    });
    // Played more often: the packets of a play must fit in its duration (a
    // stream without PCRs goes one packet a slot, and always fits).
    const uint64_t carried = facts.packets - facts.nulls + dry.stats.inserted / static_cast<uint64_t>(plays);
    const double needed = static_cast<double>(carried) * 1504 / seconds(facts.duration);
    if ((loops == 0 || loops > kDryLoops) && facts.any_pcr && needed > rate.bps())
        companion::fail(
            "the input needs %.6f Mbit/s for its packets over its %.3f s, more than the channel's useful rate of "
            "%.6f Mbit/s (%s): played again and again it would fall behind",
            mbps(needed), seconds(facts.duration), mbps(rate.bps()), channel.c_str());
    return facts;
}

std::string describe_channel(const dvbt_parms_t& p) {
    std::string d =
        std::string(dvbt_modename[p.mode]) + ", " + (p.M == 0 ? "QPSK" : std::string(dvbt_Mname[p.M]) + "-QAM");
    if (p.alpha != 0)
        d += std::string(", hierarchy ") + dvbt_alphaname[p.alpha] + ", code rates " + dvbt_ratename[p.rate_hp] +
             " HP " + dvbt_ratename[p.rate_lp] + " LP";
    else d += std::string(", code rate ") + dvbt_ratename[p.rate];
    return d + ", guard " + dvbt_deltaname[p.delta] + ", " + dvbt_bandname[p.band] + " MHz";
}

}  // namespace tstiming
