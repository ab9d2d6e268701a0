// The transport-stream timing layer and the programs on it: the PCR and PTS
// fields, the exact channel rate against the report's, packet sync, the
// scheduler's restamping against the formula PCR_out = PCR_in + t_out - t_in,
// a live feed on a clock some ppm off, tscheck's timing figures on streams with
// known faults, and tsadapt end to end on streams ffmpeg makes.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "tstiming.hpp"
#include "util.hpp"

namespace {

namespace tt = tstiming;
using Packets = std::vector<tt::Packet>;

// A constant-rate stream: packet n of the input is at tick t0 + n x tpp.
// PID 0x100 carries a payload in every packet but the nulls (every other
// packet when with_nulls), a PCR in every pcr_every-th of its packets and a PES
// start with its PTS in every 25th; PID 0x200, a second programme, a PCR on
// its own clock (offset by `other`) in every 50th packet of the stream.
struct Synth {
    int64_t t0 = 0, tpp = 5000;
    int pcr_every = 10;
    bool with_nulls = true;
    int64_t other = -1;  // none
    Packets make(size_t n) const {
        Packets out;
        int cc = 0, count = 0;
        for (size_t i = 0; i < n; ++i) {
            const int64_t t = t0 + static_cast<int64_t>(i) * tpp;
            tt::Packet p{};
            p.fill(0x5A);
            p[0] = tt::kSync;
            if (with_nulls && i % 2 == 1) {
                out.push_back(tt::null_packet());
                continue;
            }
            if (other >= 0 && i % 50 == 0) {
                p[1] = 0x02, p[2] = 0x00, p[3] = 0x20, p[4] = 183, p[5] = 0x10;
                tt::set_pcr(p.data(), t + other);
                out.push_back(p);
                continue;
            }
            p[1] = 0x01, p[2] = 0x00, p[3] = static_cast<uint8_t>(0x10 | (cc++ & 0x0F));
            if (count % pcr_every == 0) {
                p[3] |= 0x20, p[4] = 7, p[5] = 0x10;
                tt::set_pcr(p.data(), t);
            }
            if (count % 25 == 0 && count % pcr_every != 0) {  // a PES header with a PTS
                p[1] |= 0x40;
                const uint8_t pes[14] = {0, 0, 1, 0xE0, 0, 0, 0x80, 0x80, 5, 0x21, 0, 1, 0, 1};
                std::memcpy(p.data() + 4, pes, sizeof pes);
                tt::set_stamp(p.data() + 13, t / 300);
            }
            ++count;
            out.push_back(p);
        }
        return out;
    }
};

tu::Bytes bytes(const Packets& ps) {
    tu::Bytes b;
    for (const auto& p : ps) b.insert(b.end(), p.begin(), p.end());
    return b;
}

// Runs the scheduler over the input as a file or pipe would; the output slots.
Packets adapt(tt::Scheduler& s, const Packets& in) {
    Packets out;
    tt::Packet o;
    auto drain = [&] {
        while (s.pull(o) == tt::Pull::packet) out.push_back(o);
    };
    for (const auto& p : in) s.push(p.data()), drain();
    s.end();
    drain();
    return out;
}

tt::Config config(uint32_t mode, uint32_t M, uint32_t rate, uint32_t delta) {
    tu::set_parms([&](dvbt_parms_t& p) { p.mode = mode, p.M = M, p.rate = rate, p.delta = delta; });
    tt::Config c;
    c.rate = tt::useful_rate(dvbt_parms, tt::Branch::nh);
    return c;
}

TEST(TsTiming, FieldsKnownAnswersAndWrap) {
    tt::Packet p{};
    p[3] = 0x30, p[4] = 7, p[5] = 0x10, p[10] = 0x7E;  // reserved bits set
    tt::set_pcr(p.data(), tt::kPcrWrap - 1);           // base 2^33 - 1, extension 299
    EXPECT_EQ(std::vector<int>(p.begin() + 6, p.begin() + 12), (std::vector<int>{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x2B}));
    EXPECT_EQ(tt::get_pcr(p.data()), tt::kPcrWrap - 1);
    tt::set_pcr(p.data(), tt::kPcrWrap + 301);  // wraps to base 1, extension 1; reserved bits kept
    EXPECT_EQ(std::vector<int>(p.begin() + 6, p.begin() + 12), (std::vector<int>{0, 0, 0, 0, 0xFE, 0x01}));
    // A PTS field '0010' + 33 bits with its three marker bits; the markers stay.
    uint8_t f[5] = {0x21, 0x00, 0x01, 0x00, 0x01};
    tt::set_stamp(f, tt::kPtsWrap + 0x1F2345678);
    EXPECT_EQ(tt::get_stamp(f), 0x1F2345678);
    EXPECT_EQ(std::vector<int>(f, f + 5), (std::vector<int>{0x2F, 0xC8, 0xD1, 0xAC, 0xF1}));
    EXPECT_EQ(tt::wrap_diff(5, tt::kPcrWrap - 5, tt::kPcrWrap), 10);
    // An adaptation field of length 0 has no flags: the byte after it is payload.
    p[4] = 0, p[5] = 0x90;
    EXPECT_FALSE(tt::discontinuity(p.data()) || tt::has_pcr(p.data()));
}

// The exact rate against the report's single-precision one, in every configuration.
TEST(TsTiming, ExactRateIsTheReports) {
    for (uint32_t band = 0; band < 4; ++band)
        for (uint32_t mode = 0; mode < 3; ++mode)
            for (uint32_t M = 0; M < 3; ++M)
                for (uint32_t delta = 0; delta < 4; ++delta)
                    for (uint32_t rate = 0; rate < 5; ++rate) {
                        tu::set_parms([&](dvbt_parms_t& p) {
                            p.band = band, p.mode = mode, p.M = M, p.delta = delta, p.rate = rate, p.alpha = 2;
                            p.rate_hp = rate, p.rate_lp = 4 - rate;
                        });
                        settle_parms();
                        compute_rates();
                        for (auto [b, want] : {std::pair{tt::Branch::nh, r_u}, std::pair{tt::Branch::hp, r_uhp},
                                               std::pair{tt::Branch::lp, r_ulp}})
                            ASSERT_NEAR(tt::useful_rate(dvbt_parms, b).bps() / want, 1.0, 2e-7);
                    }
    const tt::Config c = config(2, 2, 1, 0);  // 8k 64-QAM 2/3 1/4: 338400000/17 bit/s, 2040 ticks a packet
    EXPECT_EQ(c.rate.num, 338400000u);
    EXPECT_EQ(c.rate.den, 17u);
    const tt::SlotClock k(c.rate);
    EXPECT_EQ(k.num, 2040u);
    EXPECT_EQ(k.den, 1u);
}

TEST(TsTiming, SyncSkipsGarbageAndParity) {
    const tu::Bytes ts = tu::make_ts(40, 4);
    auto packets = [](const tu::Bytes& in, size_t chunk, tt::Sync& s) {
        tu::Bytes got;
        auto take = [&](const uint8_t* p) { got.insert(got.end(), p, p + 188); };
        for (size_t i = 0; i < in.size(); i += chunk)
            s.feed(std::span<const uint8_t>(in.data() + i, std::min(chunk, in.size() - i)), take);
        s.finish(take);
        return got;
    };
    tu::Bytes g = ts;  // 77 bytes before, 300 in the middle (one a sync byte), 100 of a cut packet at the end
    g.insert(g.begin() + 20 * 188, 300, 0x11);
    g[20 * 188 + 150] = tt::kSync;
    g.insert(g.begin(), 77, 0x47 ^ 0xFF);
    g.insert(g.end(), ts.begin(), ts.begin() + 100);
    for (size_t chunk : {size_t{1}, size_t{187}, g.size()}) {
        tt::Sync s;
        EXPECT_EQ(packets(g, chunk, s), ts);
        EXPECT_EQ(s.skipped, 477u);
        ASSERT_EQ(s.stretches.size(), 3u);
        EXPECT_EQ(s.stretches[1].at, 77u + 20 * 188);
        EXPECT_EQ(s.stretches[1].bytes, 300u);
    }
    tu::Bytes p204;  // 204-byte packets: the parity goes
    for (size_t k = 0; k < 40; ++k) {
        p204.insert(p204.end(), ts.begin() + 188 * k, ts.begin() + 188 * (k + 1));
        p204.insert(p204.end(), 16, static_cast<uint8_t>(k));
    }
    tt::Sync s204;
    EXPECT_EQ(packets(p204, 1000, s204), ts);
    EXPECT_EQ(s204.size, 204u);
    tt::Sync two, noise;  // two whole packets that end the input lock; random bytes never
    EXPECT_EQ(packets(tu::Bytes(ts.begin(), ts.begin() + 376), 376, two).size(), 376u);
    tu::Bytes rnd(50000);
    uint32_t x = 7;
    for (auto& b : rnd) x = x * 1664525u + 1013904223u, b = static_cast<uint8_t>(x >> 24);
    EXPECT_TRUE(packets(rnd, 4096, noise).empty());
    EXPECT_EQ(noise.skipped, rnd.size());
}

// Every PCR leaves with PCR_in + (t_out - t_in): t_in the input's time from its
// PCRs (here exact: t0 + n x tpp), mapped so that the first packet is in slot
// 0, t_out the slot's time; each packet in the first slot at or after its time.
// Across the 33-bit wrap, a signalled discontinuity, and a second programme.
TEST(TsTiming, RestampsEveryPcrForItsSlot) {
    tt::Config c = config(0, 0, 0, 3);  // 2k QPSK 1/2 1/32: 6732 ticks a slot
    Synth in;
    in.t0 = tt::kPcrWrap - 27000000 / 2, in.other = 12345;
    Packets src = in.make(3000);
    // From packet 2000 on, PID 0x100's PCRs follow a new time base, announced.
    bool first = true;
    for (size_t i = 2000; i < src.size(); ++i)
        if (tt::pid(src[i].data()) == 0x100 && tt::has_pcr(src[i].data())) {
            tt::set_pcr(src[i].data(), tt::get_pcr(src[i].data()) + 1000000007);
            if (first) tt::set_discontinuity(src[i].data()), first = false;
        }
    tt::Scheduler s(c);
    const Packets out = adapt(s, src);
    const tt::SlotClock k(c.rate);
    size_t i = 0, pcrs = 0;
    const auto in_pcrs = static_cast<size_t>(
        std::count_if(src.begin(), src.end(), [](const tt::Packet& p) { return tt::has_pcr(p.data()); }));
    for (size_t slot = 0; slot < out.size(); ++slot) {
        const uint8_t* o = out[slot].data();
        if (tt::pid(o) == tt::kNullPid) continue;
        if ((o[3] & 0x30) == 0x20 && tt::pid(o) == 0x100 && tt::has_pcr(o)) continue;  // inserted
        while (tt::pid(src[i].data()) == tt::kNullPid) ++i;
        const int64_t t_in = static_cast<int64_t>(i) * in.tpp;  // the first packet is at time 0
        ASSERT_EQ(slot, static_cast<size_t>((t_in * k.den + k.num - 1) / k.num)) << "packet " << i;
        tt::Packet want = src[i];
        if (tt::has_pcr(want.data())) {
            tt::set_pcr(want.data(), tt::get_pcr(want.data()) + k.nearest(slot) - t_in);
            ++pcrs;
        }
        ASSERT_EQ(out[slot], want) << "packet " << i;
        ++i;
    }
    EXPECT_EQ(i, src.size() - 1);
    EXPECT_EQ(pcrs, in_pcrs);
    EXPECT_EQ(s.stats.restamped, pcrs);
    EXPECT_EQ(s.stats.jumps, 1u);
    EXPECT_LT(s.stats.max_late, k.floor(1)) << "less than a slot late";
}

// The inserted PCR-only packets: adaptation only, the counter of the last
// packet of the PID, and a PCR on the same line as the real ones.
TEST(TsTiming, InsertsPcrsWhereTheInputHasTooFew) {
    tt::Config c = config(2, 2, 1, 0);
    Synth in;
    in.pcr_every = 200, in.tpp = 20000;  // 74 ms between PCRs
    tt::Scheduler s(c);
    const Packets out = adapt(s, in.make(4000));
    const tt::SlotClock k(c.rate);
    int64_t base = -1, last = -1;
    int cc = -1, gaps = 0;
    for (size_t slot = 0; slot < out.size(); ++slot) {
        const uint8_t* o = out[slot].data();
        if (tt::pid(o) != 0x100) continue;
        if (tt::has_payload(o)) cc = tt::cc(o);
        if (!tt::has_pcr(o)) continue;
        if ((o[3] & 0x30) == 0x20) {
            EXPECT_EQ(static_cast<int>(tt::cc(o)), cc);
        }
        const int64_t line = tt::get_pcr(o) - k.nearest(slot);
        if (base < 0) base = line;
        EXPECT_EQ(line, base);
        if (last >= 0) gaps = std::max(gaps, static_cast<int>(static_cast<int64_t>(slot) - last));
        last = static_cast<int64_t>(slot);
    }
    EXPECT_GT(s.stats.inserted, 2 * s.stats.restamped);
    EXPECT_LE(gaps * 2040, c.pcr_gap + 2040);
}

// Live, on an output clock 1000 ppm off the input's: the packets wait
// `latency` at first; the drift takes latency / 1000 ppm (faster input) or
// (latency + max_late) / 1000 ppm (slower) to reach the slip, which moves the
// mapping back to `latency` and announces a discontinuity on the next PCR.
// No packet is lost; between slips the PCRs lie on one line.
TEST(TsTiming, LiveAbsorbsAClockOffsetThenSlips) {
    for (const int ppm : {1000, -1000}) {
        tt::Config c = config(0, 0, 0, 3);
        c.live = true, c.latency = 20 * tt::kTicksPerMs, c.max_late = 10 * tt::kTicksPerMs;
        Synth in;
        in.tpp = 12000;
        const Packets src = in.make(45 * 27000000 / 12000);  // 45 s
        tt::Scheduler s(c);
        const tt::SlotClock k(c.rate);
        size_t next = 0, got = 0;
        int64_t line = INT64_MIN;
        double first_slip = 0;
        tt::Packet o;
        for (uint64_t slot = 0;; ++slot) {
            const int64_t now = k.floor(slot);
            // Packet n arrives at n x tpp on the input's clock, 1 + ppm / 1e6 times as long on the output's.
            while (next < src.size() && static_cast<double>(next * in.tpp) * (1 + ppm * 1e-6) <= now)
                s.push(src[next++].data());
            if (next == src.size()) s.end();
            const tt::Pull r = s.pull(o);
            if (r == tt::Pull::done) break;
            ASSERT_EQ(r, tt::Pull::packet);
            if (tt::pid(o.data()) != 0x100) continue;
            got += (o[3] & 0x30) != 0x20;
            if (!tt::has_pcr(o.data())) continue;
            const int64_t l = tt::get_pcr(o.data()) - k.nearest(slot);
            if (tt::discontinuity(o.data())) {
                if (first_slip == 0) first_slip = static_cast<double>(now) / tt::kTicksPerSecond;
                line = l;
            }
            if (line == INT64_MIN) line = l;
            ASSERT_EQ(l, line) << "slot " << slot;
        }
        const double expect = (ppm > 0 ? 30.0 : 20.0) / 1000 / (std::abs(ppm) * 1e-6);
        EXPECT_NEAR(first_slip, expect, 0.2) << ppm;
        EXPECT_EQ(s.stats.slips, ppm > 0 ? 1u : 2u) << ppm;
        EXPECT_EQ(got, src.size() / 2) << "every packet of PID 0x100";
        EXPECT_EQ(s.stats.dropped_late + s.stats.dropped_full, 0u) << s.stats.dropped_late << " " << ppm;
    }
}

// ---------------------------------------------------------------- the programs

tu::Result tscheck(const tu::TempDir& dir, const std::string& file) {
    return tu::run(dir.path, TSCHECK_EXE, {"-timing", file});
}

// The value of key=... on the last line.
double figure(const std::string& out, const std::string& key) {
    const size_t at = out.rfind(' ' + key + '=');
    return at == std::string::npos ? NAN : std::stod(out.substr(at + key.size() + 2));
}

TEST(TscheckTiming, FaultsInAConstantRateStream) {
    tu::TempDir dir;
    Synth in;
    in.tpp = int64_t{27000000} * 1504 / 4000000;  // 4 Mbit/s
    const Packets clean = in.make(6000);
    auto check = [&](const Packets& ps, int status) {
        tu::write_file(dir / "t.ts", bytes(ps));
        const auto r = tscheck(dir, "t.ts");
        EXPECT_EQ(r.status, status) << r.out;
        return r.out;
    };
    std::string out = check(clean, 0);
    EXPECT_EQ(figure(out, "rate"), 4000000);
    EXPECT_EQ(figure(out, "pcr_accuracy_ns"), 0);
    EXPECT_NEAR(figure(out, "pcr_gap_ms"), 20 * in.tpp / 27000.0, 1e-3);
    EXPECT_NEAR(figure(out, "pts_gap_ms"), 100 * in.tpp / 27000.0, 1e-3);
    EXPECT_EQ(figure(out, "null_share"), 0.5);
    // Without -timing the stream is not a tsgen one: status 1, but the figures are there.
    EXPECT_EQ(tu::run(dir.path, TSCHECK_EXE, {"t.ts"}).status, 1);
    Packets t = clean;  // one PCR 1 us off: 1 us less its share of the fit
    auto pcr_at = [&](size_t n) {
        for (size_t i = n;; ++i)
            if (tt::pid(t[i].data()) == 0x100 && tt::has_pcr(t[i].data())) return t[i].data();
    };
    tt::set_pcr(pcr_at(3000), tt::get_pcr(pcr_at(3000)) + 27);
    out = check(t, 1);
    EXPECT_EQ(figure(out, "pcr_accuracy_errors"), 1);
    EXPECT_NEAR(figure(out, "pcr_accuracy_ns"), 1000 * (1 - 1.0 / 300), 5);
    t = clean;  // PCRs 53 ms apart: the six between gone
    for (size_t i = 2000, gone = 0; gone < 6; ++i)
        if (tt::pid(t[i].data()) == 0x100 && tt::has_pcr(t[i].data())) t[i][5] = 0, ++gone;
    out = check(t, 1);
    EXPECT_EQ(figure(out, "pcr_repetition_errors"), 1);
    EXPECT_NEAR(figure(out, "pcr_gap_ms"), 140 * in.tpp / 27000.0, 1e-3);
    t = clean;  // the clock steps 200 ms ahead from packet 4000: unannounced, then announced
    for (size_t i = 4000; i < t.size(); ++i)
        if (tt::pid(t[i].data()) == 0x100 && tt::has_pcr(t[i].data()))
            tt::set_pcr(t[i].data(), tt::get_pcr(t[i].data()) + 200 * 27000);
    out = check(t, 1);
    EXPECT_EQ(figure(out, "pcr_discontinuity_errors"), 1);
    EXPECT_EQ(figure(out, "pcr_accuracy_ns"), 0) << "a time base of its own";
    tt::set_discontinuity(pcr_at(4000));
    out = check(t, 0);
    EXPECT_EQ(figure(out, "pcr_discontinuity_errors"), 0);
    t = clean;  // a PES header 0.8 s without another; a counter off in one packet (it and the next are errors)
    for (size_t i = 1000; i < static_cast<size_t>(1000 + 800 * 27000 / in.tpp); ++i) t[i][1] &= ~0x40;
    t[5000][3] ^= 0x04;
    out = check(t, 1);
    EXPECT_EQ(figure(out, "pts_errors"), 1);
    EXPECT_EQ(figure(out, "continuity_errors"), 2);
}

// Out: the input's packets in order, PCRs aside, with inserted PCR-only packets
// and nulls between; returns the number inserted.
size_t check_order(const tu::Bytes& in, const tu::Bytes& out) {
    size_t i = 0, inserted = 0;
    auto masked = [](const uint8_t* p) {
        tt::Packet q;
        std::memcpy(q.data(), p, 188);
        if (tt::has_pcr(q.data())) std::fill(q.begin() + 6, q.begin() + 12, 0);
        return q;
    };
    for (size_t o = 0; o < out.size(); o += 188) {
        const uint8_t* p = &out[o];
        if (tt::pid(p) == tt::kNullPid) continue;
        while (i < in.size() && tt::pid(&in[i]) == tt::kNullPid) i += 188;
        if (i < in.size() && masked(p) == masked(&in[i])) {
            i += 188;
            continue;
        }
        EXPECT_TRUE((p[3] & 0x30) == 0x20 && tt::has_pcr(p)) << "output packet " << o / 188;
        ++inserted;
    }
    EXPECT_EQ(i, in.size()) << "every input packet is out";
    return inserted;
}

TEST(Tsadapt, VariableRateStreamAtTheChannelsRate) {
    if (!tu::have_ffmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are not installed (Debian's ffmpeg package)";
    tu::TempDir dir;
    tu::make_stream(dir, "in.ts", false);
    const std::vector<std::string> channel{"-m", "8k", "-M", "64", "-p", "2/3", "-D", "1/4"};
    auto adapt = [&](std::vector<std::string> args) {
        args.insert(args.end(), channel.begin(), channel.end());
        return tu::run(dir.path, TSADAPT_EXE, args);
    };
    const auto r = adapt({"-i", "in.ts", "-o", "out.ts"});
    ASSERT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
    const tu::Bytes in = tu::read_file(dir / "in.ts"), out = tu::read_file(dir / "out.ts");
    EXPECT_EQ(check_order(in, out), figure(r.out, "inserted"));
    EXPECT_EQ(out.size(), 188 * figure(r.out, "out"));
    const auto t = tscheck(dir, "out.ts");
    EXPECT_EQ(t.status, 0) << t.out;
    EXPECT_EQ(figure(t.out, "rate"), 19905882) << "338400000/17 bit/s";
    EXPECT_EQ(figure(t.out, "pcr_accuracy_ns"), 0) << "2040 ticks a packet: no rounding at all";
    EXPECT_LE(figure(t.out, "pcr_gap_ms"), 40);
    const int frames = tu::decode(dir, "in.ts").first;
    EXPECT_EQ(frames, 75);
    EXPECT_EQ(tu::decode(dir, "out.ts"), std::make_pair(frames, std::string()));
    // The same through pipes, from 204-byte packets with garbage in the middle.
    tu::Bytes odd;
    for (size_t k = 0; k < in.size(); k += 188) {
        if (k == 400 * 188) odd.insert(odd.end(), 1000, 0x47 ^ 0x10);
        odd.insert(odd.end(), in.begin() + static_cast<long>(k), in.begin() + static_cast<long>(k) + 188);
        odd.insert(odd.end(), 16, 0xAA);
    }
    tu::write_file(dir / "odd.ts", odd);
    const auto p = tu::run(dir.path, "bash",
                           {"-c", std::string(TSADAPT_EXE) + " -i - -o - -m 8k -M 64 -p 2/3 -D 1/4 "
                                                             "<odd.ts >piped.ts"});
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(tu::read_file(dir / "piped.ts"), out);
    EXPECT_TRUE(tu::contains(tu::read_text(dir / "err.txt"),
                             "tsadapt: warning: 1000 bytes that are not transport stream packets skipped at byte " +
                                 std::to_string(400 * 204)));
    // Three times in a row: one programme three times as long.
    const auto l = adapt({"-i", "in.ts", "-o", "loop.ts", "-loop", "3"});
    ASSERT_EQ(l.status, 0) << tu::read_text(dir / "err.txt");
    EXPECT_TRUE(tu::contains(l.out, "Loops: 3, each 3.000000 s")) << l.out;
    const auto tl = tscheck(dir, "loop.ts");
    EXPECT_EQ(tl.status, 0) << tl.out;
    EXPECT_EQ(tu::decode(dir, "loop.ts"), std::make_pair(3 * frames, std::string()));
}

TEST(Tsadapt, ProgrammesRefusalsAndStreamsWithoutPcr) {
    if (!tu::have_ffmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are not installed (Debian's ffmpeg package)";
    tu::TempDir dir;
    tu::make_stream(dir, "two.ts", true);
    const auto r = tu::run(dir.path, TSADAPT_EXE, {"-i", "two.ts", "-o", "two-out.ts", "-b", "7", "-M", "64"});
    ASSERT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
    // The programmes and their PCR PIDs as the PAT and PMTs give them, against ffprobe's.
    const auto probe = tu::run(dir.path, "ffprobe", {"-v", "error", "-show_entries", "program=pcr_pid", "-of",
                                                     "csv=p=0", "two.ts"});
    std::string pids;
    std::istringstream words(probe.out);
    for (int pid; words >> pid; words.ignore(8, '\n')) {
        char text[16];
        std::snprintf(text, sizeof text, "%s0x%04X", pids.empty() ? "" : ", ", static_cast<unsigned>(pid));
        pids += text;
    }
    EXPECT_TRUE(tu::contains(r.out, "; 2 programmes, PCR PIDs " + pids + "\n")) << r.out << probe.out;
    const auto t = tscheck(dir, "two-out.ts");
    EXPECT_EQ(t.status, 0) << t.out;
    EXPECT_EQ(figure(t.out, "pcr_pids"), 2);
    EXPECT_LE(figure(t.out, "pcr_accuracy_ns"), 18.6 + 0.5) << "the tick's quantisation and the fit's";
    EXPECT_EQ(tu::decode(dir, "two-out.ts").second, "");
    // 2 Mbit/s of video into a channel of 4.98: fine; at 6 Mbit/s refused, naming both rates.
    ASSERT_EQ(tu::run(dir.path, "bash",
                      {"-c",
                       "ffmpeg -v error -y -f lavfi -i testsrc=size=640x480:rate=25 -t 2 -c:v mpeg2video -b:v "
                       "6M -minrate 6M -maxrate 6M -bufsize 1M -f mpegts fast.ts"})
                  .status,
              0);
    EXPECT_EQ(tu::run(dir.path, TSADAPT_EXE, {"-i", "fast.ts", "-o", "f.ts", "-D", "1/4"}).status, 1);
    const std::string err = tu::read_text(dir / "err.txt");
    EXPECT_TRUE(err.rfind("tsadapt: the input needs ", 0) == 0 &&
                tu::contains(err, "more than the channel's useful rate of 4.976471 Mbit/s"))
        << err;
    EXPECT_FALSE(std::filesystem::exists(dir / "f.ts"));
    // Through a pipe what comes too late is dropped instead, warned about and counted.
    const auto dropping = tu::run(dir.path, "bash", {"-c", std::string(TSADAPT_EXE) + " -i - -o f.ts -D 1/4 <fast.ts"});
    EXPECT_EQ(dropping.status, 0);
    EXPECT_GT(figure(dropping.out, "dropped"), 0) << dropping.out;
    EXPECT_TRUE(tu::contains(tu::read_text(dir / "err.txt"), "packets dropped: they came too late"));
    // Random bytes: status 1, nothing written, from a file or a pipe.
    tu::Bytes rnd = tu::make_ts(300, 5);
    for (size_t k = 0; k < rnd.size(); k += 188) rnd[k] = 0x48;
    tu::write_file(dir / "rnd.bin", rnd);
    EXPECT_EQ(tu::run(dir.path, TSADAPT_EXE, {"-i", "rnd.bin", "-o", "r.ts"}).status, 1);
    EXPECT_EQ(tu::read_text(dir / "err.txt"),
              "tsadapt: rnd.bin is not a transport stream: no packet sync in its 56400 bytes\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "r.ts"));
    const auto piped = tu::run(dir.path, "bash", {"-c", std::string(TSADAPT_EXE) + " -i - -o - <rnd.bin"});
    EXPECT_EQ(piped.status, 1);
    EXPECT_EQ(piped.out, "");
    // A tsgen stream has no PCR: it passes as it is, and looped its counters run on.
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "g.ts", "-n", "1000"}).status, 0);
    ASSERT_EQ(tu::run(dir.path, TSADAPT_EXE, {"-i", "g.ts", "-o", "g-out.ts", "-loop", "2"}).status, 0);
    tu::Bytes twice = tu::read_file(dir / "g.ts"), once = twice;
    twice.insert(twice.end(), once.begin(), once.end());
    const tu::Bytes got = tu::read_file(dir / "g-out.ts");
    ASSERT_EQ(got.size(), twice.size());
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + static_cast<long>(once.size()), once.begin()));
    const auto gt = tscheck(dir, "g-out.ts");
    EXPECT_EQ(figure(gt.out, "continuity_errors"), 0) << gt.out;
    // Usage errors: one line, status 1.
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"-o", "x.ts"},
                                               {"-i", "g.ts"},
                                               {"-i", "-", "-o", "x.ts", "-loop", "2"},
                                               {"-i", "g.ts", "-o", "g.ts"},
                                               {"-i", "g.ts", "-o", "x.ts", "-loop", "0"},
                                               {"-ihp", "g.ts", "-o", "x.ts"},
                                               {"-i", "g.ts", "-o", "x.ts", "-a", "2"},
                                               {"-i", "g.ts", "-o", "x.ts", "-z"}}) {
        EXPECT_EQ(tu::run(dir.path, TSADAPT_EXE, args).status, 1) << args.back();
        const std::string e = tu::read_text(dir / "err.txt");
        EXPECT_TRUE(e.rfind("tsadapt: ", 0) == 0 && e.find('\n') == e.size() - 1) << e;
    }
}

}  // namespace
