// tervane-rx: a DVB-T receiver with soft decisions, from complex baseband
// samples to transport streams. It finds every transmission parameter by
// itself, as a television does (the frequency mapping and the channel spacing
// excepted), tracks the carrier, the clock and the channel over recordings of
// any length, and prints what it measured: the parameters, the carrier and
// clock offsets, the MER, the bit error ratios before and after the Viterbi
// decoder and the packets corrected and lost.
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <complex>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "companion.hpp"
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "frame/version.hpp"
#include "receiver/decoder.hpp"
#include "receiver/frontend.hpp"
#include "receiver/input.hpp"
#include "receiver/reference.hpp"
#include "sigmf.hpp"

namespace {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kBadInput = 1;  // usage, options, unreadable or malformed input
constexpr int kNoLock = 2;    // no DVB-T signal found in the input
constexpr int kLostLock = 3;  // the lock was lost during the run

const char kUsage[] =
    "usage: tervane-rx -i IN [-o OUT.ts] [-olp LP.ts] [-f MAP] [-b SPACING] [-I RATE] [-F FORMAT]\n"
    "                  [-format NAME] [-rate HZ] [-est pilots|static] [-ref TS] [-reflp TS]\n"
    "                  [-m MODE] [-D GUARD] [-M C] [-a ALPHA] [-p RATE | -php RATE] [-plp RATE]\n"
    "                  [-idi] [-cid N]\n"
    "  Receives the DVB-T signal in IN (a file, or - for standard input) and writes its\n"
    "  transport stream. Everything the TPS signals is found in the signal; given, an\n"
    "  option of tervane's forces its value.\n"
    "  -i IN           complex baseband samples; SigMF metadata beside them (IN.sigmf-meta)\n"
    "                  gives their format and rate\n"
    "  -o OUT.ts       the transport stream (the HP stream in hierarchical mode); - for\n"
    "                  standard output\n"
    "  -olp LP.ts      the LP stream of a hierarchical transmission\n"
    "  -f 0|BB|INV     frequency mapping of the transmission (default 0)\n"
    "  -b 5|6|7|8      channel spacing in MHz (default 8)\n"
    "  -I 1x|2x|4x     tervane's interpolation: the sample rate (default 1x)\n"
    "  -F std|agi      tervane's sample format (default std)\n"
    "  -format NAME    other recordings: cf32, cs16, cs8, cu8 (SoapySDR's names, any case)\n"
    "                  or SigMF's (cf32_le, ci16_le, ci16_be, ci8, cu8)\n"
    "  -rate HZ        their sample rate: 1, 2 or 4 times the elementary rate\n"
    "  -est pilots     channel estimate from the scattered pilots, in time and frequency\n"
    "                  (default: channels that change, and recordings of real hardware)\n"
    "  -est static     a channel fixed over the recording, from every pilot of the run\n"
    "                  (two passes: a file only)\n"
    "  -ref TS         the stream sent: bit errors after the Viterbi decoder counted exactly\n"
    "  -reflp TS       the same for the LP stream\n"
    "  -m, -D          mode and guard interval: searched only among these\n"
    "  -M, -a, -p, -php, -plp, -idi, -cid   forced over what the TPS says\n"
    "  -h, -V          this help, the version\n"
    "  The other options of tervane are accepted and ignored; any other word is an error.\n"
    "  Exit status: 0 received, 1 bad usage or input, 2 no signal found, 3 lock lost.\n";

char *g_olp, *g_est, *g_ref, *g_reflp, *g_format, *g_rate;
const dvbOption kOwnOptions[] = {
    {.name = "-olp", .kind = dvbString, .target = &g_olp},
    {.name = "-est", .kind = dvbString, .target = &g_est},
    {.name = "-ref", .kind = dvbString, .target = &g_ref},
    {.name = "-reflp", .kind = dvbString, .target = &g_reflp},
    {.name = "-format", .kind = dvbString, .target = &g_format},
    {.name = "-rate", .kind = dvbString, .target = &g_rate},
};

std::string value_of(const char* text) { return text != nullptr ? text : ""; }

struct Settings {
    std::string in, out, out_lp, ref, ref_lp;
    rx::Format format = rx::Format::cf32;
    double rate = 0;
    bool static_est = false;
    bool from_sigmf = false;
    rx::FrontEndConfig fe;
};

// The messages go to standard output, or to standard error when the stream does.
FILE* g_msg = stdout;
void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    std::vfprintf(g_msg, fmt, ap);
    va_end(ap);
}

Settings settle() {
    using companion::fail;
    Settings s;
    const dvbt_parms_t& p = dvbt_parms;
    s.in = value_of(mpeg2ts_fname);
    s.out = value_of(out_fname);
    s.out_lp = value_of(g_olp);
    s.ref = value_of(g_ref);
    s.ref_lp = value_of(g_reflp);
    if (s.in.empty()) fail("no input given (-i IN, - for standard input; %s -h for usage)", companion::prog());
    const std::string est = value_of(g_est);
    if (!est.empty() && est != "pilots" && est != "static")
        fail("-est takes pilots or static, not \"%s\"", est.c_str());
    s.static_est = est == "static";
    if (s.static_est && s.in == "-") fail("-est static reads the input twice: it needs a file, not standard input");
    if (s.in != "-") companion::input_size(s.in);
    for (const std::string& o : {s.out, s.out_lp})
        if (!o.empty() && o != "-" && s.in != "-") companion::check_not_input(o, s.in);
    if (s.out == "-" && s.out_lp == "-") fail("only one stream can go to standard output");
    if (s.out == "-" || s.out_lp == "-") g_msg = stderr;

    // Format and rate: the options of other recordings, else SigMF, else tervane's.
    const double fs = dvbSampleRate(p.band, 0);
    if (p.dumpformat == 2) fail("-F agiold writes two files (I and Q): convert them to agi or std first");
    s.format = p.dumpformat == 1 ? rx::Format::ci16_be : rx::Format::cf32;
    s.rate = dvbSampleRate(p.band, p.interp);
    if (s.in != "-") {
        if (const auto meta = companion::read_sigmf(s.in)) {
            const auto f = rx::format_of(meta->datatype);
            if (!f)
                fail("%s: the datatype \"%s\" is not one this receiver reads", meta->meta.c_str(),
                     meta->datatype.c_str());
            s.format = *f;
            if (meta->sample_rate) s.rate = *meta->sample_rate;
            s.from_sigmf = true;
        }
    }
    if (const std::string f = value_of(g_format); !f.empty()) {
        const auto fmt = rx::format_of(f);
        if (!fmt)
            fail("-format takes cf32, cs16, cs8, cu8, cf32_le, ci16_le, ci16_be, ci8 or std, agi; not \"%s\"",
                 f.c_str());
        s.format = *fmt;
    }
    if (const std::string r = value_of(g_rate); !r.empty()) {
        errno = 0;
        char* end = nullptr;
        const double v = std::strtod(r.c_str(), &end);
        if (end == r.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v) || !(v > 0))
            fail("-rate takes a sample rate in Hz, not \"%s\"", r.c_str());
        s.rate = v;
    }
    int interp = -1;
    for (int i = 0; i < 3; ++i)
        if (std::fabs(s.rate - fs * (1 << i)) <= 1e-6 * s.rate) interp = i;
    if (s.rate < fs * (1 - 1e-6))
        fail("the sample rate %.6f MHz lies below the %s MHz channel's elementary rate, %.6f MHz", s.rate / 1e6,
             dvbt_bandname[p.band], fs / 1e6);
    s.fe.band = p.band;
    s.fe.mapping = p.ifftmm;
    s.fe.interp = static_cast<uint32_t>(std::max(interp, 0));
    if (interp < 0) s.fe.rate = s.rate;  // resampled to the elementary rate
    if (companion::option_given("-m")) s.fe.mode = static_cast<int>(p.mode);
    if (companion::option_given("-D")) s.fe.delta = static_cast<int>(p.delta);
    return s;
}

// The TPS's parameters with the user's forced ones over them.
rx::Transmission forced(rx::Transmission t) {
    const dvbt_parms_t& p = dvbt_parms;
    if (companion::option_given("-M")) t.M = p.M;
    if (companion::option_given("-a")) t.alpha = p.alpha;
    if (companion::option_given("-p")) t.rate_hp = p.rate;
    if (companion::option_given("-php")) t.rate_hp = p.rate_hp;
    if (companion::option_given("-plp")) t.rate_lp = p.rate_lp;
    if (companion::option_given("-idi")) t.idi = p.idi;
    if (companion::option_given("-cid")) t.cid = p.cid;
    return t;
}

// An output stream: a file or standard output, every write checked.
struct Output {
    std::string name;
    FILE* fp = nullptr;
    uint64_t bytes = 0;
    bool own = false;
    void open(const std::string& n) {
        name = n;
        if (n.empty()) return;
        if (n == "-") {
            fp = stdout;
            return;
        }
        fp = std::fopen(n.c_str(), "wb"), own = true;
        if (fp == nullptr) companion::fail("can't create \"%s\": %s", n.c_str(), std::strerror(errno));
    }
    void write(std::span<const uint8_t> b) {
        if (fp == nullptr) return;
        if (std::fwrite(b.data(), 1, b.size(), fp) != b.size())
            companion::fail("writing \"%s\" failed after %llu bytes: %s", name.c_str(),
                            static_cast<unsigned long long>(bytes), std::strerror(errno));
        bytes += b.size();
    }
    void close() {
        if (fp != nullptr && (std::fflush(fp) != 0 || (own && std::fclose(fp) != 0)))
            companion::fail("writing \"%s\" failed: %s", name.c_str(), std::strerror(errno));
        fp = nullptr;
    }
};

// The stream sent, read whole, for the exact count of -ref.
rx::ReferencePtr load_reference(const std::string& name) {
    if (name.empty()) return nullptr;
    const uint64_t size = companion::input_size(name);
    if (size < 188) companion::fail("\"%s\" holds no whole transport packet", name.c_str());
    std::vector<uint8_t> ts(static_cast<size_t>(size));
    FILE* fp = std::fopen(name.c_str(), "rb");
    if (fp == nullptr || std::fread(ts.data(), 1, ts.size(), fp) != ts.size())
        companion::fail("can't read \"%s\": %s", name.c_str(), std::strerror(errno));
    std::fclose(fp);
    return rx::reference_create(ts);
}

bool same_transmission(const rx::Transmission& a, const rx::Transmission& b) {
    return a.mode == b.mode && a.M == b.M && a.alpha == b.alpha && a.delta == b.delta && a.rate_hp == b.rate_hp &&
           a.rate_lp == b.rate_lp && a.idi == b.idi;
}

void add(rx::DecoderCounts& sum, const rx::DecoderCounts& c) {
    sum.packets += c.packets, sum.corrected += c.corrected, sum.uncorrectable += c.uncorrectable;
    sum.bits_before_viterbi += c.bits_before_viterbi, sum.errors_before_viterbi += c.errors_before_viterbi;
    sum.bits_after_viterbi += c.bits_after_viterbi, sum.errors_after_viterbi += c.errors_after_viterbi;
}

double ratio(uint64_t a, uint64_t b) { return b > 0 ? static_cast<double>(a) / static_cast<double>(b) : 0.0; }

// Processor seconds of the process so far.
double cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

const char* constellation_name(uint32_t M) { return M == 0 ? "QPSK" : M == 1 ? "16-QAM" : "64-QAM"; }

// Runs the front end over the whole input; returns the samples read.
uint64_t run_pass(rx::SampleReader& in, const Settings& s, rx::FrontEnd& fe, const rx::CellSink& sink) {
    std::vector<std::complex<float>> block(1 << 16);
    size_t n;
    while ((n = rx::reader_read(in, block)) > 0) {
        rx::frontend_push(fe, std::span<const std::complex<float>>(block.data(), n), sink);
    }
    if (in.error) companion::fail("reading \"%s\" failed: %s", s.in.c_str(), std::strerror(errno));
    const rx::FrontEndStatus st = rx::frontend_status(fe);
    if (st.not_finite > 0)
        companion::fail("sample %llu of \"%s\" is not a finite number (%llu values in all)",
                        static_cast<unsigned long long>(st.first_not_finite), s.in.c_str(),
                        static_cast<unsigned long long>(st.not_finite));
    return in.samples;
}

}  // namespace

int main(int argc, char** argv) {
    companion::start("tervane-rx");
    int32_t verbosity_arg = 0;
    const auto tervane = tervane_options(&verbosity_arg);
    companion::parse_options(argc, argv, {tervane, kOwnOptions});
    if (help) {
        std::fputs(kUsage, stdout);
        return kOk;
    }
    if (version) {
        companion::print_version();
        return kOk;
    }
    const Settings s = settle();
    rx::SampleReader in;
    if (!rx::reader_open(in, s.in, s.format))
        companion::fail("can't read \"%s\": %s", s.in.c_str(), std::strerror(errno));

    say("%s %s: %s, %s at %.6f MHz (%s of the %s MHz channel), mapping %s%s\n", companion::prog(), TERVANE_VERSION,
        s.in == "-" ? "standard input" : s.in.c_str(), rx::format_name(s.format), s.rate / 1e6,
        s.fe.rate > 0 ? "resampled to 1x" : dvbt_interpname[s.fe.interp], dvbt_bandname[s.fe.band],
        dvbt_ifftmmname[s.fe.mapping], s.from_sigmf ? " (SigMF)" : "");

    const double start_s = cpu_seconds();
    std::optional<rx::StaticChannel> fixed;
    if (s.static_est) {
        rx::FrontEndConfig c = s.fe;
        c.collect_static = true;
        auto first = rx::frontend_create(c);
        run_pass(in, s, *first, [](const rx::Transmission&, const rx::SymbolCells&) {});
        fixed = rx::frontend_static(*first);
        if (!rx::reader_rewind(in)) companion::fail("can't read \"%s\" again: %s", s.in.c_str(), std::strerror(errno));
    }
    auto fe = rx::frontend_create(s.fe, fixed && !fixed->h.empty() ? &*fixed : nullptr);
    Output hp, lp;
    hp.open(s.out);
    lp.open(s.out_lp);
    rx::ReferencePtr ref_hp = load_reference(s.ref), ref_lp = load_reference(s.ref_lp);
    uint64_t cells = 0, packets_hp = 0, packets_lp = 0;
    rx::Transmission current;
    rx::DecoderPtr dec;
    double decoder_s = 0;      // processor time in the decoder (and the writing of its packets)
    rx::DecoderCounts counts;  // of the decoders before the current one
    rx::DecoderCounts mine;    // the packets out, counted from the first decoded
    std::vector<uint8_t> packet(188);
    // Each stream starts at its first packet decoded (before it: the deinterleaver's start).
    bool started[2] = {false, false};
    auto on_packet = [&](const rx::Packet& p) {
        bool& on = started[p.lp ? 1 : 0];
        on = on || p.ok;
        if (!on) return;
        ++mine.packets;
        if (p.ok) {
            mine.bits_after_viterbi += 204 * 8, mine.errors_after_viterbi += static_cast<uint64_t>(p.corrected_bits);
            if (p.corrected_bytes > 0) ++mine.corrected;
        } else {
            ++mine.uncorrectable;
        }
        std::copy(p.ts.begin(), p.ts.end(), packet.begin());
        if (!p.ok) packet[1] |= 0x80;  // transport error indicator: a packet the decoder could not correct
        (p.lp ? lp : hp).write(packet);
        ++(p.lp ? packets_lp : packets_hp);
        if (rx::Reference* r = (p.lp ? ref_lp : ref_hp).get()) rx::reference_compare(*r, p);
    };
    int last_symbol = -1;  // frame * 68 + symbol of the last symbol decoded
    auto sink = [&](const rx::Transmission& tps, const rx::SymbolCells& sc) {
        const rx::Transmission t = forced(tps);
        // A symbol that does not follow the last (symbols lost, the lock lost and
        // found again): the decoder starts again, and so do the streams.
        const int at = static_cast<int>(sc.frame * 68 + sc.symbol);
        if (last_symbol >= 0 && at != (last_symbol + 1) % 272) started[0] = started[1] = false;
        last_symbol = at;
        if (!dec || !same_transmission(t, current)) {
            if (dec) add(counts, rx::decoder_counts(*dec));
            dec = rx::decoder_create(t);
            current = t;
        }
        cells += sc.cells.size();
        const double t0 = cpu_seconds();
        rx::decoder_push(*dec, sc, on_packet);
        decoder_s += cpu_seconds() - t0;
    };
    const uint64_t samples = run_pass(in, s, *fe, sink);
    const double total_s = cpu_seconds() - start_s;
    const double signal_s = static_cast<double>(samples) / s.rate;
    if (in.partial_end)
        companion::fail("\"%s\" ends inside a sample: not %s samples", s.in.c_str(), rx::format_name(s.format));
    if (samples == 0) companion::fail("\"%s\" holds no samples", s.in.c_str());

    hp.close(), lp.close();
    if (dec) add(counts, rx::decoder_counts(*dec));
    counts.packets = mine.packets, counts.corrected = mine.corrected, counts.uncorrectable = mine.uncorrectable;
    counts.bits_after_viterbi = mine.bits_after_viterbi, counts.errors_after_viterbi = mine.errors_after_viterbi;
    const rx::FrontEndStatus st = rx::frontend_status(*fe);
    say("Input: %llu samples (%.6f s)\n", static_cast<unsigned long long>(samples), samples / s.rate);
    if (!st.ever_locked) {
        say("Lock: none: no DVB-T signal found\n");
        say("status=nolock samples=%llu\n", static_cast<unsigned long long>(samples));
        return kNoLock;
    }
    const rx::Transmission t = forced(st.tps);
    const double fs = dvbSampleRate(s.fe.band, s.fe.interp);
    const double lock_s = static_cast<double>(st.lock_sample) / fs;  // fs: the rate the front end works at
    say("Lock: %s, guard %s, at %.6f s (input sample %llu)%s\n", dvbt_modename[t.mode], dvbt_deltaname[t.delta], lock_s,
        static_cast<unsigned long long>(lock_s * s.rate),
        st.losses ? (", lost " + std::to_string(st.losses) + " time(s)").c_str() : "");
    char cid[32];
    if (t.cid >= 0) std::snprintf(cid, sizeof cid, "0x%04X", static_cast<unsigned>(t.cid));
    else std::snprintf(cid, sizeof cid, "none");
    if (t.alpha == 0)
        say("Transmission: %s, %s, non-hierarchical, code rate %s, guard %s, %s interleaving, cell id %s\n",
            dvbt_modename[t.mode], constellation_name(t.M), dvbt_ratename[t.rate_hp], dvbt_deltaname[t.delta],
            t.idi ? "in-depth" : "native", cid);
    else
        say("Transmission: %s, %s, hierarchical alpha %s, code rates HP %s LP %s, guard %s, %s interleaving, cell id "
            "%s\n",
            dvbt_modename[t.mode], constellation_name(t.M), dvbt_alphaname[t.alpha], dvbt_ratename[t.rate_hp],
            dvbt_ratename[t.rate_lp], dvbt_deltaname[t.delta], t.idi ? "in-depth" : "native", cid);
    say("Carrier offset: %.1f Hz\n", st.offset_hz);
    char taken[64] = "";
    if (st.corrected_ppm != 0)
        std::snprintf(taken, sizeof taken, " (%.2f ppm of it taken out by resampling)", st.corrected_ppm);
    say("Clock offset: %.2f ppm%s\n", st.clock_ppm, taken);
    say("MER: %.2f dB over %llu data cells (%llu symbols); pilots' C/N %.2f dB\n", st.mer_db,
        static_cast<unsigned long long>(cells), static_cast<unsigned long long>(st.symbols), st.snr_db);
    say("BER before Viterbi: %.3e (%llu errors in %llu bits, hard decisions against the re-encoded output)\n",
        ratio(counts.errors_before_viterbi, counts.bits_before_viterbi),
        static_cast<unsigned long long>(counts.errors_before_viterbi),
        static_cast<unsigned long long>(counts.bits_before_viterbi));
    double ber_after = ratio(counts.errors_after_viterbi, counts.bits_after_viterbi);
    say("BER after Viterbi: %.3e (%llu bits corrected in %llu bits of packets decoded)\n", ber_after,
        static_cast<unsigned long long>(counts.errors_after_viterbi),
        static_cast<unsigned long long>(counts.bits_after_viterbi));
    uint64_t ref_bits = 0, ref_errors = 0, ref_unplaced = 0, ref_events = 0;
    for (rx::Reference* r : {ref_hp.get(), ref_lp.get()}) {
        if (r == nullptr) continue;
        const rx::ReferenceCounts& c = rx::reference_counts(*r);
        ref_bits += c.bits, ref_errors += c.errors, ref_unplaced += c.unplaced, ref_events += c.events;
    }
    if (ref_hp || ref_lp) {
        ber_after = ratio(ref_errors, ref_bits);
        say("BER after Viterbi, against the stream sent: %.3e (%llu errors in %llu error events, %llu bits; %llu "
            "packets not found in it)\n",
            ber_after, static_cast<unsigned long long>(ref_errors), static_cast<unsigned long long>(ref_events),
            static_cast<unsigned long long>(ref_bits), static_cast<unsigned long long>(ref_unplaced));
    }
    say("Packets: %llu (HP or NH %llu, LP %llu), %llu corrected, %llu uncorrectable\n",
        static_cast<unsigned long long>(counts.packets), static_cast<unsigned long long>(packets_hp),
        static_cast<unsigned long long>(packets_lp), static_cast<unsigned long long>(counts.corrected),
        static_cast<unsigned long long>(counts.uncorrectable));
    say("Processor time: %.3f s, front end %.3f s, decoder %.3f s: %.1f x real time\n", total_s, total_s - decoder_s,
        decoder_s, total_s > 0 ? signal_s / total_s : 0.0);
    say("status=%s samples=%llu mode=%s M=%s alpha=%s guard=%s rate_hp=%s rate_lp=%s idi=%u cid=%d "
        "offset_hz=%.1f clock_ppm=%.3f mer_db=%.2f symbols=%llu packets=%llu packets_lp=%llu corrected=%llu "
        "uncorrectable=%llu ber_before_viterbi=%.6e ber_after_viterbi=%.6e events_after_viterbi=%lld losses=%d "
        "signal_s=%.6f cpu_s=%.6f "
        "frontend_s=%.6f decoder_s=%.6f\n",
        st.losses ? "lost" : "ok", static_cast<unsigned long long>(samples), dvbt_modename[t.mode], dvbt_Mname[t.M],
        dvbt_alphaname[t.alpha], dvbt_deltaname[t.delta], dvbt_ratename[t.rate_hp], dvbt_ratename[t.rate_lp], t.idi,
        t.cid, st.offset_hz, st.clock_ppm, st.mer_db, static_cast<unsigned long long>(st.symbols),
        static_cast<unsigned long long>(packets_hp), static_cast<unsigned long long>(packets_lp),
        static_cast<unsigned long long>(counts.corrected), static_cast<unsigned long long>(counts.uncorrectable),
        ratio(counts.errors_before_viterbi, counts.bits_before_viterbi), ber_after,
        ref_hp || ref_lp ? static_cast<long long>(ref_events) : -1LL, st.losses, signal_s, total_s, total_s - decoder_s,
        decoder_s);
    return st.losses ? kLostLock : kOk;
}
