// tsadapt: rewrites a transport stream for the channel that tervane's options
// describe: packets synced (188 or 204 bytes, anything else skipped), the
// input's null packets dropped, every other packet re-paced by the input's
// PCRs onto the channel's useful rate with null packets between, and every PCR
// rewritten for the place it now has. A stream without PCRs passes as it is,
// one packet a slot. A file can be played several times in a row, its PCR, PTS,
// DTS and continuity counters running on across each seam.
//
// A file is read three times: its facts (sync, counters, presentation span),
// a dry run of the schedule (an input that needs more than the channel carries
// is refused before anything is written), then the output. Standard input is
// read once; what comes too late for the channel is dropped.
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "companion.hpp"
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "frame/version.hpp"
#include "tsfile.hpp"
#include "tstiming.hpp"

namespace {

namespace tt = tstiming;
using companion::fail;

const char kUsage[] =
    "usage: tsadapt -i IN.ts|- -o OUT.ts|- [tervane options] [-loop N|inf]\n"
    "       tsadapt -a 1|2|4 -ihp IN.ts|-ilp IN.ts -o OUT.ts|- [tervane options] [-loop N|inf]\n"
    "  Rewrites a transport stream at the useful rate of the channel that tervane's\n"
    "  options describe (-m -M -a -D -p -php -plp -b; the same spellings and\n"
    "  defaults): packets re-paced by the input's PCRs with null packets between,\n"
    "  every PCR rewritten for its new place. A stream without PCRs passes as it is.\n"
    "  -i IN         input (- for standard input); -ihp or -ilp in hierarchical\n"
    "                transmission: the branch whose rate is wanted\n"
    "  -o OUT        output (- for standard output)\n"
    "  -loop N|inf   the file N times in a row (or without end), its PCR, PTS, DTS\n"
    "                and continuity counters running on across the seams\n"
    "  Prints a report ending in a key=value line, on standard output, or on standard\n"
    "  error when the stream goes to standard output.\n"
    "  Exit status: 0 done, 1 usage or input error (nothing is written for a file\n"
    "  that cannot be carried), 2 the output could not be written.\n";

constexpr size_t kChunk = 1 << 20;

struct Settings {
    std::string in, out;
    tt::Branch branch = tt::Branch::nh;
    long loops = 1;  // 0: without end
    tt::Rate rate;
    std::string channel;  // its description
    FILE* report = stdout;
};

const char* given(const char* text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }

double mbps(double bps) { return bps / 1e6; }
double seconds(int64_t ticks) { return static_cast<double>(ticks) / tt::kTicksPerSecond; }

Settings settle(char* loop) {
    Settings s;
    const char* nh = given(mpeg2ts_fname);
    const char* hp = given(mpeg2ts_hp_fname);
    const char* lp = given(mpeg2ts_lp_fname);
    if ((nh != nullptr) + (hp != nullptr) + (lp != nullptr) != 1)
        fail("name one input: -i, or -ihp or -ilp in hierarchical transmission (%s -h for usage)", companion::prog());
    settle_parms();
    if (dvbt_hierarchical() && nh != nullptr)
        fail("hierarchical transmission (-a %s): name the branch with -ihp or -ilp", dvbt_alphaname[dvbt_parms.alpha]);
    if (!dvbt_hierarchical() && nh == nullptr) fail("-ihp and -ilp need hierarchical transmission (-a 1, 2 or 4)");
    s.in = nh != nullptr ? nh : hp != nullptr ? hp : lp;
    s.branch = nh != nullptr ? tt::Branch::nh : hp != nullptr ? tt::Branch::hp : tt::Branch::lp;
    if (given(out_fname) == nullptr) fail("no output given (-o OUT.ts, or - for standard output)");
    s.out = out_fname;
    if (given(loop) != nullptr) {
        if (std::strcmp(loop, "inf") == 0) {
            s.loops = 0;
        } else {
            char* end = nullptr;
            errno = 0;
            s.loops = std::strtol(loop, &end, 10);
            if (*end != '\0' || errno != 0 || s.loops < 1 || s.loops > 1000000000)
                fail("-loop takes a number of plays (1 or more) or inf, not \"%s\"", loop);
        }
    }
    if (s.in == "-" && s.loops != 1) fail("-loop needs a file: standard input is read once");
    if (s.in != "-") {
        companion::input_size(s.in);
        if (s.out != "-") companion::check_not_input(s.out, s.in);
    }
    s.rate = tt::useful_rate(dvbt_parms, s.branch);
    s.channel = tt::describe_channel(dvbt_parms);
    if (s.branch != tt::Branch::nh) s.channel += s.branch == tt::Branch::hp ? ", HP branch" : ", LP branch";
    s.report = s.out == "-" ? stderr : stdout;
    return s;
}

// The output: a file written under a temporary name and renamed at the end,
// or standard output.
struct Output {
    std::string name, partial;
    FILE* fp = nullptr;

    void open(const std::string& out) {
        name = out;
        if (out == "-") {
            fp = stdout;
        } else {
            partial = out + ".part" + std::to_string(::getpid());
            fp = std::fopen(partial.c_str(), "wb");
            if (fp == nullptr) companion::fail_status(2, "can't create \"%s\": %s", out.c_str(), std::strerror(errno));
            companion::remove_on_failure(partial);
        }
        static std::vector<char> buffer(kChunk);
        std::setvbuf(fp, buffer.data(), _IOFBF, buffer.size());
    }
    void write(const tt::Packet& p) {
        if (std::fwrite(p.data(), 1, p.size(), fp) != p.size()) failed();
    }
    void close() {
        if (std::fflush(fp) != 0) failed();
        if (fp == stdout) return;
        if (std::fclose(fp) != 0) failed();
        if (std::rename(partial.c_str(), name.c_str()) != 0)
            companion::fail_status(2, "can't rename \"%s\" to \"%s\": %s", partial.c_str(), name.c_str(),
                                   std::strerror(errno));
        companion::remove_on_failure({});
    }
    [[noreturn]] void failed() const {
        companion::fail_status(2, "writing %s failed: %s",
                               name == "-" ? "standard output" : ("\"" + name + "\"").c_str(), std::strerror(errno));
    }
};

void report(const Settings& s, const tt::Scheduler& sch, const tt::FileFacts* facts, uint64_t skipped) {
    FILE* r = s.report;
    const tt::Stats& st = sch.stats;
    std::fprintf(r, "%s %s: %s -> %s\n", companion::prog(), TERVANE_VERSION, s.in.c_str(), s.out.c_str());
    std::fprintf(r, "Channel: %s: useful rate %.6f Mbit/s (%llu/%llu bit/s), %.3f ticks of 27 MHz a packet\n",
                 s.channel.c_str(), mbps(s.rate.bps()), static_cast<unsigned long long>(s.rate.num),
                 static_cast<unsigned long long>(s.rate.den), sch.clock.ticks_per_slot());
    std::string pcr_pids;
    for (const auto& g : sch.programmes.list) {
        char text[40];
        std::snprintf(text, sizeof text, "%s0x%04X", pcr_pids.empty() ? "" : ", ", g.pcr_pid);
        pcr_pids += g.known ? text : "";
    }
    std::fprintf(r, "Input: %llu packets, %llu of them null; %llu bytes skipped; %zu programme%s%s%s\n",
                 static_cast<unsigned long long>(st.in), static_cast<unsigned long long>(st.in_nulls),
                 static_cast<unsigned long long>(skipped), sch.programmes.list.size(),
                 sch.programmes.list.size() == 1 ? "" : "s", pcr_pids.empty() ? "" : ", PCR PIDs ", pcr_pids.c_str());
    if (sch.mode == tt::Mode::paced)
        std::fprintf(r, "Timing: paced by the PCRs of PID 0x%04X; null packets dropped; largest delay %.3f ms\n",
                     static_cast<unsigned>(sch.master), static_cast<double>(st.max_late) / tt::kTicksPerMs);
    else std::fprintf(r, "Timing: no PCR: passed as it is, one packet a slot, null packets included\n");
    if (facts != nullptr && s.loops != 1)
        std::fprintf(r, "Loops: %ld, each %.6f s on the input's clock (its packets span %.6f s, its streams %.6f s)\n",
                     s.loops, seconds(facts->duration), seconds(facts->span), seconds(facts->media));
    std::fprintf(r,
                 "Output: %llu packets (%.6f s): %llu from the input, %llu PCRs rewritten, %llu PCR packets inserted, "
                 "%llu null packets\n",
                 static_cast<unsigned long long>(st.out), static_cast<double>(st.out) * 1504 / s.rate.bps(),
                 static_cast<unsigned long long>(st.forwarded), static_cast<unsigned long long>(st.restamped),
                 static_cast<unsigned long long>(st.inserted), static_cast<unsigned long long>(st.out_nulls));
    if (st.dropped_late + st.dropped_full > 0)
        std::fprintf(r, "Dropped: %llu packets later than %.0f ms for the channel\n",
                     static_cast<unsigned long long>(st.dropped_late + st.dropped_full),
                     static_cast<double>(sch.cfg.max_late) / tt::kTicksPerMs);
    std::fprintf(r,
                 "in=%llu in_nulls=%llu skipped_bytes=%llu out=%llu out_nulls=%llu forwarded=%llu restamped=%llu "
                 "inserted=%llu dropped=%llu discontinuities=%llu max_delay_us=%.1f loops=%ld rate=%.0f\n",
                 static_cast<unsigned long long>(st.in), static_cast<unsigned long long>(st.in_nulls),
                 static_cast<unsigned long long>(skipped), static_cast<unsigned long long>(st.out),
                 static_cast<unsigned long long>(st.out_nulls), static_cast<unsigned long long>(st.forwarded),
                 static_cast<unsigned long long>(st.restamped), static_cast<unsigned long long>(st.inserted),
                 static_cast<unsigned long long>(st.dropped_late + st.dropped_full),
                 static_cast<unsigned long long>(st.unsignalled), static_cast<double>(st.max_late) / 27.0, s.loops,
                 s.rate.bps());
}

}  // namespace

int main(int argc, char** argv) {
    companion::start("tsadapt");
    int32_t verbosity_arg = 0;
    const auto options = tervane_options(&verbosity_arg);
    static char* loop = nullptr;
    const dvbOption own[] = {{.name = "-loop", .kind = dvbString, .target = &loop}};
    companion::parse_options(argc, argv, {std::span<const dvbOption>(options), std::span<const dvbOption>(own)});
    if (help != 0) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (version != 0) {
        companion::print_version();
        return 0;
    }
    const Settings s = settle(loop);
    const tt::SlotClock clock(s.rate);

    if (s.in == "-") {
        tt::Scheduler sch(tt::file_config(s.rate, nullptr));
        Output out;
        out.open(s.out);
        const uint64_t skipped =
            tt::run_schedule(s.in, sch, nullptr, 1, [&](const tt::Packet& p, const tt::Scheduler&) { out.write(p); });
        out.close();
        const uint64_t dropped = sch.stats.dropped_late + sch.stats.dropped_full;
        if (dropped > 0)
            std::fprintf(stderr, "%s: warning: %llu packets dropped: they came too late for the channel's rate\n",
                         companion::prog(), static_cast<unsigned long long>(dropped));
        report(s, sch, nullptr, skipped);
        return 0;
    }

    // The file's facts, and a dry run of its schedule: refused before anything is written.
    const tt::FileFacts facts = tt::check_file(s.in, s.rate, s.loops, s.channel);
    tt::Scheduler sch(tt::file_config(s.rate, &facts));
    Output out;
    out.open(s.out);
    const uint64_t skipped =
        tt::run_schedule(s.in, sch, &facts, s.loops, [&](const tt::Packet& p, const tt::Scheduler&) { out.write(p); });
    out.close();
    report(s, sch, &facts, skipped);
    return 0;
}
