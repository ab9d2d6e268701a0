#include "producer.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "companion.hpp"
#include "frame/chain.hpp"
#include "frame/params.hpp"
#include "outer/mpeg2.hpp"
#include "tsfile.hpp"

namespace play {
namespace {

namespace tt = tstiming;

// Bytes read from an input at a time.
constexpr size_t kChunk = 65536;
// Skipping more than this before the first packet: standard input is not a transport stream.
constexpr uint64_t kNoSyncLimit = 1 << 20;

dvbComplex cf32le(const uint8_t* p) {
    uint32_t u[2];
    for (int c = 0; c < 2; ++c)
        u[c] = uint32_t{p[4 * c]} | uint32_t{p[4 * c + 1]} << 8 | uint32_t{p[4 * c + 2]} << 16 |
               uint32_t{p[4 * c + 3]} << 24;
    dvbComplex v;
    std::memcpy(&v.re, &u[0], 4);
    std::memcpy(&v.im, &u[1], 4);
    return v;
}

dvbComplex agi(const uint8_t* p, double sf) {
    const auto i = static_cast<int16_t>(uint16_t(p[0] << 8 | p[1]));
    const auto q = static_cast<int16_t>(uint16_t(p[2] << 8 | p[3]));
    return {static_cast<float>(i / sf), static_cast<float>(q / sf)};
}

// Waits at most the timeout (ms) for standard input to have something; true when it has.
bool input_waiting(int timeout_ms) {
    pollfd p{STDIN_FILENO, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) > 0;
}

FILE* open_file(const std::string& name) {
    FILE* fp = std::fopen(name.c_str(), "rb");
    if (fp == nullptr) companion::fail("can't read \"%s\": %s", name.c_str(), std::strerror(errno));
    return fp;
}

}  // namespace

Inputs::~Inputs() {
    for (Source& src : sources)
        if (src.fp != nullptr) std::fclose(src.fp);
    if (play != nullptr && !play_live) std::fclose(play);
    if (!sources.empty()) chain_destroy();
}

double level_scale(const Settings& s, double fullscale) {
    const double nominal = std::sqrt(2.0) * dvbRefAmplitude(dvbt_parms.mode) / s.L;
    return fullscale * std::pow(10.0, -s.backoff / 20.0) / nominal;
}

void open_inputs(const Settings& s, Inputs& in) {
    const bool hier = dvbt_hierarchical();
    if (s.play == "-") {
        if (s.loops != 1) companion::fail("-loop needs a file input");
        in.play = stdin;
        in.play_live = true;
    } else if (!s.play.empty()) {
        const uint64_t bytes = companion::input_size(s.play);
        const uint64_t width = s.agi ? 4 : 8;  // bytes a sample in the file
        in.play = open_file(s.play);
        const uint64_t n = bytes / width;
        if (n == 0) companion::fail("\"%s\" holds no samples", s.play.c_str());
        const auto F = static_cast<uint64_t>(dvbt_fftsize[dvbt_parms.mode]);
        const uint64_t superframe =
            static_cast<uint64_t>(dvbt_superframe_symbols) *
            (F + static_cast<uint64_t>(static_cast<float>(F) * dvbt_guardfrac[dvbt_parms.delta])) *
            static_cast<uint64_t>(s.L);
        if (n % superframe != 0 || bytes % width != 0)
            std::fprintf(stderr,
                         "%s: warning: \"%s\" is not a whole number of superframes (%llu samples each): "
                         "the seam of a loop is not clean\n",
                         companion::prog(), s.play.c_str(), static_cast<unsigned long long>(superframe));
    } else {
        chain_set_lengths();
        if (packnum < chain_min_packnum(s.requested_M))
            companion::fail("-s %d is too small for this mode (use -s %d or more)", packnum,
                            chain_min_packnum(s.requested_M));
        const std::vector<const char*> names = hier ? std::vector<const char*>{mpeg2ts_hp_fname, mpeg2ts_lp_fname}
                                                    : std::vector<const char*>{mpeg2ts_fname};
        const std::string channel = tt::describe_channel(dvbt_parms);
        for (size_t b = 0; b < names.size(); ++b) {
            const char* name = names[b];
            if (name == nullptr || name[0] == '\0')
                companion::fail(hier ? "-ihp and -ilp name the inputs" : "no input: -i FILE, -i - or -play FILE");
            const tt::Rate rate = tt::useful_rate(dvbt_parms, !hier    ? tt::Branch::nh
                                                              : b == 0 ? tt::Branch::hp
                                                                       : tt::Branch::lp);
            Source& src = in.sources.emplace_back();
            src.name = name;
            if (src.name == "-") {
                if (hier) companion::fail("hierarchical inputs must be files");
                if (s.loops != 1) companion::fail("-loop needs a file input");
                src.live = true;
                tt::Config c;
                c.rate = rate;
                c.live = true;
                src.sched = std::make_unique<tt::Scheduler>(c);
            } else {
                companion::input_size(src.name);
                src.facts =
                    tt::check_file(src.name, rate, s.loops, hier ? channel + (b == 0 ? ", HP" : ", LP") : channel);
                src.fp = open_file(src.name);
                src.sched = std::make_unique<tt::Scheduler>(tt::file_config(rate, &src.facts));
            }
        }
        chain_create();
    }
    const double band = B_n;
    if (s.lo != 0 && std::fabs(s.lo) + band / 2 > s.rate / 2)
        companion::fail(
            "-lo %.0f: the shifted channel (%.0f Hz wide) leaves the %.0f Hz band; use a higher "
            "interpolation (-I 2x or 4x) or a smaller offset",
            s.lo, band, s.rate);
}

void Producer::run() {
    if (in_.play != nullptr) run_playback();
    else run_live();
    ring_.finish();
}

void Producer::run_live() {
    std::vector<uint8_t> out;
    uint64_t produced = 0;
    std::vector<Source>& sources = in_.sources;
    while (produced < limit.load()) {
        bool fed = false;
        for (size_t b = 0; b < sources.size(); ++b) fed = feed(sources[b], chain_input(b == 1)) || fed;
        bool moved = chain_pass_to_samples();
        dvbVect* s = chain_samples();
        while (s->fill > 0) {
            const uint32_t n = dvbRingRun(s, s->head, s->fill);
            out.resize(size_t{n} * elem_);
            conv_.convert(dvbCplx(s) + s->head, n, out.data());
            dvbRingConsume(s, n);
            if (!ring_.push(out.data(), n)) return;
            produced += n;
            moved = true;
        }
        // The chain stalls once either branch's input has ended.
        const bool ended = std::any_of(sources.begin(), sources.end(), [](const Source& x) { return x.done; });
        if (!moved && !fed && ended) break;
        if (!moved && !fed && sources[0].live) input_waiting(5);
    }
}

// Up to the given bytes of samples to play: from a file, or from standard
// input as they come, waiting no longer than a short while at a time so that
// a stop is seen; 0 at the end of the input or on a stop.
size_t Producer::read_samples(uint8_t* dst, size_t bytes) {
    if (!in_.play_live) return std::fread(dst, 1, bytes, in_.play);
    size_t got = 0;
    while (got < bytes && !ring_.stopped()) {
        if (!input_waiting(100)) {
            if (got > 0) break;
            continue;
        }
        const ssize_t r = ::read(STDIN_FILENO, dst + got, bytes - got);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
    }
    return got;
}

void Producer::run_playback() {
    const double sf = s_.agi ? dvbIntegerScale(1, dvbt_parms.mode, dvbt_parms.gain) : 1.0;
    const size_t width = s_.agi ? 4 : 8;  // bytes a sample in the input
    std::vector<dvbComplex> x(8192);
    std::vector<uint8_t> raw(x.size() * width), out;
    size_t have = 0;  // bytes in raw
    uint64_t produced = 0;
    long plays = 0;
    while (produced < limit.load()) {
        const size_t got = read_samples(raw.data() + have, raw.size() - have);
        have += got;
        const size_t n = have / width;
        if (got == 0 && n == 0) {
            if (in_.play_live || ring_.stopped() || (s_.loops != 0 && plays + 1 >= s_.loops)) break;
            ++plays;
            loops.fetch_add(1);
            std::rewind(in_.play);
            have = 0;
            continue;
        }
        for (size_t i = 0; i < n; ++i) x[i] = s_.agi ? agi(&raw[4 * i], sf) : cf32le(&raw[8 * i]);
        out.resize(n * elem_);
        conv_.convert(x.data(), n, out.data());
        if (!ring_.push(out.data(), n)) return;
        produced += n;
        have -= n * width;
        std::memmove(raw.data(), raw.data() + n * width, have);
    }
}

// Fills the free part of the chain's input ring with the scheduler's packets,
// one a slot; returns whether it took anything.
bool Producer::feed(Source& src, dvbVect* in) {
    if (src.done) return false;
    if (src.live && !read_live(src)) return false;
    bool took = false;
    tt::Packet p;
    while (in->len - in->fill >= TS_PACKET) {
        const tt::Pull r = src.sched->pull(p);
        if (r == tt::Pull::done) {
            src.done = true;
            break;
        }
        if (r == tt::Pull::need_input) {
            if (!read_file(src)) break;
            continue;
        }
        dvbRingPut(in, dvbRingWritePos(in), p.data(), TS_PACKET);
        in->fill += TS_PACKET;
        took = true;
    }
    count(src);
    return took;
}

// The next piece of the file into the scheduler; at its end the next pass, or
// the end of the input. Returns whether there is more to read.
bool Producer::read_file(Source& src) {
    if (src.ended) return false;
    std::vector<uint8_t> buf(kChunk);
    const tt::Looper looper{&src.facts, src.pass};
    const auto take = [&](const uint8_t* q) {
        tt::Packet p;
        std::memcpy(p.data(), q, tt::kPacket);
        looper.apply(p.data());
        src.sched->push(p.data());
    };
    const size_t got = std::fread(buf.data(), 1, buf.size(), src.fp);
    if (got > 0) src.sync.feed(std::span<const uint8_t>(buf.data(), got), take);
    if (got == buf.size()) return true;
    if (std::ferror(src.fp)) companion::fail("reading \"%s\" failed", src.name.c_str());
    src.sync.finish(take);
    src.sync = tt::Sync{};
    ++src.pass;
    if (s_.loops != 0 && src.pass >= s_.loops) {
        src.sched->end();
        src.ended = true;
        return true;  // what the scheduler holds still goes
    }
    if (&src == &in_.sources[0]) loops.fetch_add(1);
    std::rewind(src.fp);
    return true;
}

// What standard input has brought, without waiting, into the scheduler (its
// skipped bytes warned about as they end); at its end, the end of the input.
// Returns false while no packet has come yet: nothing is sent before the
// input shows itself a transport stream, and an input that never does is an
// error.
bool Producer::read_live(Source& src) {
    uint8_t buf[kChunk];
    const auto take = [&](const uint8_t* q) { src.sched->push(q); };
    while (!src.ended && input_waiting(0)) {
        const ssize_t r = ::read(STDIN_FILENO, buf, sizeof buf);
        if (r < 0 && errno == EINTR) continue;
        if (r > 0) {
            src.sync.feed(std::span<const uint8_t>(buf, static_cast<size_t>(r)), take);
            if (src.sync.packets == 0 && src.sync.skipped > kNoSyncLimit) break;
            continue;
        }
        src.sync.finish(take);
        src.sched->end();
        src.ended = true;
    }
    for (; src.stretches_told < src.sync.stretches.size(); ++src.stretches_told)
        std::fprintf(stderr,
                     "%s: warning: %llu bytes of standard input that are not transport stream packets skipped at byte "
                     "%llu\n",
                     companion::prog(), static_cast<unsigned long long>(src.sync.stretches[src.stretches_told].bytes),
                     static_cast<unsigned long long>(src.sync.stretches[src.stretches_told].at));
    if (src.sync.packets > 0) return true;
    if (src.ended || src.sync.skipped > kNoSyncLimit) {
        error = "standard input is not a transport stream: no packet sync in its " + std::to_string(src.sync.skipped) +
                " bytes";
        src.ended = src.done = true;
    }
    return false;
}

// The scheduler's figures for the summary: the null packets put in (a stream
// without PCRs passes its own), the packets dropped, the bytes skipped.
void Producer::count(Source& src) {
    const tt::Stats& st = src.sched->stats;
    if (&src == &in_.sources[0])
        nulls = static_cast<long>(st.filled);
    const uint64_t lost = st.dropped_late + st.dropped_full;
    if (src.live) {
        dropped = static_cast<long>(lost);
        skipped = src.sync.skipped;
    }
    if (lost > 0 && !std::exchange(src.told_dropped, true))
        std::fprintf(stderr,
                     "%s: warning: packets of standard input dropped: they came too late for the channel's rate "
                     "(counted in the summary)\n",
                     companion::prog());
}

}  // namespace play
