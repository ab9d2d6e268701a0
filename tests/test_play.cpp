// tervane-play: its sample conversion, LO shift and ring on their own, then the
// program against the fake SoapySDR device (driver=tervanefake): the samples
// against tervane's own output, pacing, underflow and late counts, back-off,
// the rate check, loops, the clean end on SIGINT, standard input with null
// packets, playback and its errors.
#include "util.hpp"

#ifndef TERVANE_PLAY_EXE

TEST(Play, NeedsSoapySDR) { GTEST_SKIP() << "built without SoapySDR: tervane-play is absent"; }

#else

#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

#include "samples.hpp"

namespace {

using Fields = std::map<std::string, std::string>;

// "key=value" words of one line (the summary) or of a file (the fake's status).
Fields fields(const std::string& text) {
    Fields f;
    size_t p = 0;
    while (p < text.size()) {
        const size_t e = text.find_first_of(" \n", p);
        const std::string w = text.substr(p, e == std::string::npos ? std::string::npos : e - p);
        const size_t eq = w.find('=');
        if (eq != std::string::npos) f[w.substr(0, eq)] = w.substr(eq + 1);
        p = e == std::string::npos ? text.size() : e + 1;
    }
    return f;
}
double num(const Fields& f, const std::string& key) {
    const auto it = f.find(key);
    return it == f.end() ? NAN : std::stod(it->second);
}

// Runs tervane-play with the fake found by SOAPY_SDR_PLUGIN_PATH, its device
// arguments (the recording in rec.bin unless they name one) first, then args;
// prefix is put before the program in the shell command (an environment
// setting, a pipe). Long paced runs record to /dev/null: disk space is scarce.
tu::Result run_play(const tu::TempDir& dir, const std::string& devargs, std::vector<std::string> args,
                    const std::string& prefix = "env") {
    const std::string rec = tu::contains(devargs, "record=") ? "" : ",record=rec.bin";
    args.insert(args.begin(), {"SOAPY_SDR_PLUGIN_PATH=" TERVANE_SOAPY_FAKE, TERVANE_PLAY_EXE, "-dev",
                               "driver=tervanefake" + rec + (devargs.empty() ? "" : "," + devargs)});
    args.insert(args.begin(), {"-c", prefix + " \"$@\"", "sh"});
    return tu::run(dir.path, "sh", args);
}

std::vector<float> floats(const tu::Bytes& b) {
    std::vector<float> v(b.size() / 4);
    std::memcpy(v.data(), b.data(), v.size() * 4);
    return v;
}

// The scaling the player states: k = fullscale * 10^(-bo/20) / (sqrt(2) * ref / L).
double scale(uint32_t mode, double L, double fullscale, double bo) {
    return fullscale * std::pow(10.0, -bo / 20.0) / (std::sqrt(2.0) * dvbRefAmplitude(mode) / L);
}

// CF32 values recorded that differ from float(x * k) for the reference x,
// repeated as often as the recording is longer.
size_t mismatches(const std::vector<float>& got, const std::vector<float>& ref, double k) {
    size_t bad = 0;
    for (size_t i = 0; i < got.size(); ++i) bad += got[i] != static_cast<float>(ref[i % ref.size()] * k);
    return bad;
}

// tsgen's test streams (no PCR: they pass as they are), and tervane's samples
// of what the timing layer makes of them for the channel: tsadapt's output.
struct Scratch {
    tu::TempDir dir;
    explicit Scratch(size_t packets = 300) {
        EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "a.ts", "-n", std::to_string(packets)}).status, 0);
        EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "b.ts", "-n", std::to_string(packets + 100)}).status, 0);
    }
    // tervane's std samples for the options, each input first through tsadapt
    // for the channel (played `loops` times).
    std::vector<float> reference(std::vector<std::string> opts, int loops = 1) {
        std::vector<std::string> channel;
        std::vector<std::pair<std::string, std::string>> inputs;
        for (size_t i = 0; i < opts.size(); ++i) {
            if (opts[i] == "-i" || opts[i] == "-ihp" || opts[i] == "-ilp") {
                inputs.emplace_back(opts[i], opts[i + 1]);
                ++i;
            } else {
                channel.push_back(opts[i]);
            }
        }
        std::vector<std::string> args = channel;
        for (const auto& [option, name] : inputs) {
            std::vector<std::string> adapt = channel;
            adapt.insert(adapt.end(),
                         {option, name, "-o", option.substr(1) + "_adapted.ts", "-loop", std::to_string(loops)});
            EXPECT_EQ(tu::run(dir.path, TSADAPT_EXE, adapt).status, 0) << tu::read_text(dir / "err.txt");
            args.insert(args.end(), {option, option.substr(1) + "_adapted.ts"});
        }
        args.insert(args.end(), {"-o", "ref", "-d", "t", "-v", "0"});
        EXPECT_EQ(tu::tervane(dir.path, args).status, 0);
        return floats(tu::read_file(dir / "ref.bin"));
    }
};

}  // namespace

// Each format rounds half away from zero and saturates to [-fullscale,
// fullscale - 1] (CF32 to [-fullscale, fullscale]) and to its type's range,
// counting each saturated component; a NaN goes out as full scale, counted.
TEST(Play, ConversionRoundsAndSaturatesPerFormat) {
    struct Case {
        std::string native;
        double fs;
        std::vector<std::tuple<double, double, bool>> in_out_clipped;
    };
    const std::vector<Case> cases = {
        {"CS16",
         2048,
         {{2.5, 3, false},
          {-2.5, -3, false},
          {2.4999, 2, false},
          {-0.5, -1, false},
          {0.49, 0, false},
          {2047.4, 2047, false},
          {2047.5, 2047, true},
          {-2048.49, -2048, false},
          {-2048.5, -2048, true},
          {1e300, 2047, true},
          {NAN, 2047, true}}},
        {"CS16", 0, {{32766.5, 32767, false}, {-32768.4, -32768, false}, {40000, 32767, true}, {-1e9, -32768, true}}},
        {"CS16", 1e6, {{40000, 32767, true}, {-40000, -32768, true}}},  // a full scale beyond the type
        {"CS8",
         128,
         {{126.5, 127, false}, {127.5, 127, true}, {-128.5, -128, true}, {-127.5, -128, false}, {NAN, 127, true}}},
        {"CF32",
         1,
         {{0.75, 0.75, false},
          {1.0, 1.0, false},
          {-1.0, -1.0, false},
          {1.5, 1.0, true},
          {-1.5, -1.0, true},
          {NAN, 1.0, true}}},
    };
    for (const Case& c : cases) {
        const play::Format f = play::Format::make(c.native, c.fs);
        ASSERT_EQ(f.name, c.native);
        for (const auto& [y, want, clipped] : c.in_out_clipped) {
            SCOPED_TRACE(c.native + " " + std::to_string(c.fs) + " " + std::to_string(y));
            uint8_t b[4] = {};
            bool clip = false;
            double got = 0;
            if (f.kind == play::Format::CS16) {
                clip = f.put<play::Format::CS16>(y, b);
                got = int16_t(uint16_t(b[0] | b[1] << 8));
            } else if (f.kind == play::Format::CS8) {
                clip = f.put<play::Format::CS8>(y, b);
                got = int8_t(b[0]);
            } else {
                clip = f.put<play::Format::CF32>(y, b);
                float v;
                std::memcpy(&v, b, 4);
                got = v;
            }
            EXPECT_EQ(got, want);
            EXPECT_EQ(clip, clipped);
        }
    }
}

// The LO shift turns sample n by -2 pi lo n / rate: over ten million samples,
// converted in pieces of odd sizes, the phasor stays on the exact phase.
TEST(Play, LoShiftStaysOnPhaseOverALongRun) {
    const play::Format f = play::Format::make("CF32", 1);
    const double rate = dvbSampleRate(3, 2), lo = 2.7e6;
    play::Converter conv(f, 0.5, lo, rate);
    const std::vector<dvbComplex> x(10007, dvbComplex{1.0f, 0.5f});
    std::vector<float> y(2 * x.size());
    double err = 0;
    uint64_t n0 = 0;
    for (size_t piece = 0; n0 < 10000000; ++piece) {
        const size_t n = 9001 + piece % 3 * 500;
        conv.convert(x.data(), n, reinterpret_cast<uint8_t*>(y.data()));
        for (size_t i = 0; i < n; i += 97) {
            const long double a = -2 * M_PIl * std::fmod(lo * static_cast<long double>(n0 + i) / rate, 1.0L);
            const double c = std::cos(static_cast<double>(a)), s = std::sin(static_cast<double>(a));
            err = std::max(
                {err, std::fabs(y[2 * i] - 0.5 * (c - 0.5 * s)), std::fabs(y[2 * i + 1] - 0.5 * (s + 0.5 * c))});
        }
        n0 += n;
    }
    EXPECT_LT(err, 2e-7);
    EXPECT_EQ(conv.clipped.load(), 0);
}

// The ring keeps the order of its samples across its wrap, between two
// threads, whatever the sizes pushed and popped; pop waits only its timeout;
// a stopped ring refuses pushes; drained means finished and empty.
TEST(Play, RingKeepsOrderAcrossItsWrap) {
    play::Ring ring(13, 4);
    std::vector<uint8_t> out(4 * 8);
    EXPECT_EQ(ring.pop(out.data(), 8, std::chrono::milliseconds(1)), 0u);
    constexpr uint32_t total = 100000;
    std::thread producer([&] {
        std::vector<uint32_t> v;
        for (uint32_t i = 0; i < total;) {
            v.clear();
            for (uint32_t k = 0; k < 1 + i % 29 && i < total; ++k) v.push_back(i++);
            ASSERT_TRUE(ring.push(reinterpret_cast<const uint8_t*>(v.data()), v.size()));
        }
        ring.finish();
    });
    uint32_t next = 0;
    size_t bad = 0;
    while (!ring.drained()) {
        const size_t got = ring.pop(out.data(), 1 + next % 8, std::chrono::milliseconds(100));
        for (size_t k = 0; k < got; ++k) {
            uint32_t v;
            std::memcpy(&v, &out[4 * k], 4);
            bad += v != next++;
        }
    }
    producer.join();
    EXPECT_EQ(next, total);
    EXPECT_EQ(bad, 0u);
    play::Ring stopped(4, 4);
    stopped.stop();
    EXPECT_FALSE(stopped.push(out.data(), 1));
    EXPECT_FALSE(stopped.drained());
}

// With CF32 native samples and no pacing, the recording is tervane's std
// output times k, converted to float, for several configurations: tervane run
// on the stream as the timing layer re-paces it (tsadapt's output).
TEST(Play, LiveSamplesAreTervanesScaled) {
    Scratch s;
    std::vector<std::pair<std::vector<std::string>, uint32_t>> configs = {
        {{"-i", "a.ts"}, 0},
        {{"-i", "a.ts", "-m", "8k", "-M", "64", "-D", "1/4", "-p", "2/3", "-cid", "77"}, 2},
        {{"-i", "a.ts", "-M", "16", "-I", "2x", "-b", "7", "-f", "INV"}, 0},
        {{"-a", "2", "-M", "64", "-ihp", "a.ts", "-ilp", "b.ts", "-php", "1/2", "-plp", "3/4"}, 0},
    };
    // A programme with PCRs at a rate of its own, re-paced for the channel.
    if (tu::have_ffmpeg()) {
        tu::make_stream(s.dir, "vbr.ts", false, 0.4);
        configs.push_back({{"-i", "vbr.ts", "-m", "8k", "-M", "64", "-D", "1/4", "-p", "2/3"}, 2});
    }
    for (const auto& [opts, mode] : configs) {
        SCOPED_TRACE(opts[1] + " " + opts.back());
        const auto ref = s.reference(opts);
        ASSERT_GT(ref.size(), 0u);
        const auto r = run_play(s.dir, "native=CF32,pace=0", opts);
        ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
        const auto got = floats(tu::read_file(s.dir / "rec.bin"));
        ASSERT_EQ(got.size(), ref.size());
        const double L = std::find(opts.begin(), opts.end(), "2x") != opts.end() ? 2.0 : 1.0;
        const double k = scale(mode, L, 1.0, 12);
        EXPECT_EQ(mismatches(got, ref, k), 0u);
        const Fields f = fields(r.out), st = fields(tu::read_text(s.dir / "rec.bin.status"));
        EXPECT_EQ(num(f, "samples"), ref.size() / 2);
        EXPECT_NEAR(num(f, "rms_dbfs"), -12, 0.3) << "the nominal RMS";
        EXPECT_EQ(num(f, "clipped"), 0);
        EXPECT_EQ(st.at("bursts_ended"), "1");
        EXPECT_EQ(st.at("closed"), "1");
    }
}

// The device's own format and full scale, end to end: CS8 samples are
// tervane's scaled for the back-off, rounded and saturated, the clipped
// values counted; at -bo 12 nothing clips.
TEST(Play, BackOffInTheDevicesFormat) {
    Scratch s;
    const auto ref = s.reference({"-i", "a.ts"});
    EXPECT_EQ(num(fields(run_play(s.dir, "native=CF32,pace=0", {"-i", "a.ts"}).out), "clipped"), 0);
    const double fs = 100;
    const auto r = run_play(s.dir, "native=CS8,fullscale=100,pace=0", {"-i", "a.ts", "-bo", "1"});
    ASSERT_EQ(r.status, 0);
    const auto rec = tu::read_file(s.dir / "rec.bin");
    ASSERT_EQ(rec.size(), ref.size());
    const double k = scale(0, 1, fs, 1);
    size_t bad = 0, clipped = 0;
    for (size_t i = 0; i < ref.size(); ++i) {
        const double y = std::round(ref[i] * k), want = std::clamp(y, -fs, fs - 1);
        clipped += y != want;
        bad += int8_t(rec[i]) != want;
    }
    EXPECT_EQ(bad, 0u);
    EXPECT_GT(clipped, 0u);
    EXPECT_EQ(num(fields(r.out), "clipped"), clipped);
}

// The device settings as the fake saw them (the filter after the rate), and
// -lo: the LO tuned away, the samples turned by -lo Hz.
TEST(Play, DeviceSettingsAndLoShift) {
    Scratch s(300);
    const auto ref = s.reference({"-i", "a.ts", "-I", "2x"});
    const auto r = run_play(s.dir, "native=CF32,pace=0",
                            {"-i", "a.ts", "-I", "2x", "-fc", "600e6", "-lo", "2e6", "-gain", "50", "-ge", "PA=5",
                             "-bw", "8e6", "-ge", "VGA=20", "-ant", "TX"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    const Fields st = fields(tu::read_text(s.dir / "rec.bin.status"));
    EXPECT_EQ(num(st, "frequency"), 602e6);
    EXPECT_EQ(num(st, "gain_VGA"), 20) << "each -ge in turn";
    EXPECT_EQ(num(st, "gain_PA"), 5);
    EXPECT_EQ(num(st, "bandwidth"), 8e6);
    EXPECT_EQ(st.at("bandwidth_after_rate"), "1");
    const auto got = floats(tu::read_file(s.dir / "rec.bin"));
    ASSERT_EQ(got.size(), ref.size());
    const double k = scale(0, 2, 1, 12), rate = dvbSampleRate(3, 1);
    double err = 0;
    for (size_t n = 0; n < ref.size() / 2; ++n) {
        const double a = -2 * M_PI * std::fmod(2e6 * double(n) / rate, 1.0);
        const double re = ref[2 * n] * k, im = ref[2 * n + 1] * k;
        err = std::max({err, std::fabs(got[2 * n] - (re * std::cos(a) - im * std::sin(a))),
                        std::fabs(got[2 * n + 1] - (re * std::sin(a) + im * std::cos(a)))});
    }
    EXPECT_LT(err, 1e-5);
}

// The fake paces in real time: the achieved rate over a few seconds is the
// sample rate within 1 %; an injected underflow counts once however it is
// reported; input that stalls shows as late deliveries, and the device, run
// dry, reports underflows of its own.
TEST(Play, PacingUnderflowsAndLate) {
    Scratch s;
    s.reference({"-i", "a.ts", "-b", "5"});
    auto r =
        run_play(s.dir, "buffer=2000000,record=/dev/null", {"-play", "ref.bin", "-b", "5", "-loop", "inf", "-t", "3"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    Fields f = fields(r.out);
    const double rate = dvbSampleRate(0, 0);
    EXPECT_EQ(num(f, "samples"), std::llround(3 * rate));
    EXPECT_NEAR(num(f, "rate"), rate, rate / 100);
    EXPECT_GE(num(f, "loops"), 1);
    EXPECT_FALSE(tu::contains(tu::read_text(s.dir / "err.txt"), "jump")) << "no seam is said to jump";

    for (const std::string report : {"underflow_report=status", "underflow_report=write", "log_underflow=1",
                                     "underflow_report=write,status_supported=0"}) {
        r = run_play(s.dir, "pace=0,underflow_at=100000," + report, {"-i", "a.ts"});
        EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
        EXPECT_EQ(num(fields(r.out), "underflows"), 1) << report;
    }
    // Samples from a pipe that stalls for half a second once the stream runs.
    r = run_play(s.dir, "buffer=20000,record=/dev/null", {"-play", "-", "-b", "5", "-buf", "0.01"},
                 "(head -c 1000000 ref.bin; sleep 0.5; cat ref.bin) | env");
    EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    EXPECT_EQ(num(fields(r.out), "samples"), (1000000 + tu::read_file(s.dir / "ref.bin").size()) / 8)
        << "every sample of the pipe, across the stall";
    EXPECT_GT(num(fields(r.out), "late"), 0);
    EXPECT_GT(num(fields(r.out), "underflows"), 0) << "the device ran dry as well";
}

// A rate the device cannot take is refused before anything is sent (status 3);
// -loop 3 sends what tervane makes of the file three times over.
TEST(Play, RateRefusedAndLoops) {
    Scratch s;
    auto r = run_play(s.dir, "master_clock=30e6", {"-i", "a.ts"});
    EXPECT_EQ(r.status, 3);
    const std::string err = tu::read_text(s.dir / "err.txt");
    EXPECT_TRUE(tu::contains(err, "10000000.000 Hz") && tu::contains(err, "master")) << err;
    EXPECT_EQ(tu::read_file(s.dir / "rec.bin").size(), 0u);
    // 36.571428 MHz / 4 is the rate within a ppm.
    EXPECT_EQ(run_play(s.dir, "master_clock=36571428.6,pace=0", {"-i", "a.ts", "-t", "0.1"}).status, 0);

    // Three plays, the counters running on across the seams as tsadapt runs them.
    const auto ref = s.reference({"-i", "a.ts"}, 3);
    r = run_play(s.dir, "native=CF32,pace=0", {"-i", "a.ts", "-loop", "3"});
    ASSERT_EQ(r.status, 0);
    const auto got = floats(tu::read_file(s.dir / "rec.bin"));
    ASSERT_EQ(got.size(), ref.size());
    const double k = scale(0, 1, 1, 12);
    EXPECT_EQ(mismatches(got, ref, k), 0u);
    EXPECT_EQ(num(fields(r.out), "loops"), 2);
}

// SIGINT ends cleanly: end of burst, stream closed, the summary, status 0.
// Standard input that brings nothing is filled with null packets, on air.
TEST(Play, SignalEndAndLiveInput) {
    Scratch s;
    const auto r = run_play(s.dir, "native=CS8", {"-i", "a.ts", "-b", "5", "-loop", "inf"},
                            "(sleep 1; kill -INT $(cat pid)) & echo $$ > pid; exec env");
    EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    EXPECT_GT(num(fields(r.out), "samples"), 0);
    const Fields st = fields(tu::read_text(s.dir / "rec.bin.status"));
    EXPECT_EQ(st.at("bursts_ended"), "1");
    EXPECT_EQ(st.at("closed"), "1");
    EXPECT_EQ(num(st, "samples"), num(fields(r.out), "samples"));

    // Standard input that stalls after a few packets: null packets keep the air going.
    const auto live =
        run_play(s.dir, "record=/dev/null", {"-i", "-", "-t", "0.5"}, "(head -c 18800 a.ts; sleep 1) | env");
    EXPECT_EQ(live.status, 0) << tu::read_text(s.dir / "err.txt");
    const Fields f = fields(live.out);
    EXPECT_EQ(num(f, "samples"), std::llround(0.5 * dvbSampleRate(3, 0)));
    EXPECT_GT(num(f, "nulls"), 100);
    // Garbage in the middle of standard input: skipped, counted and warned about, the packets around it sent.
    const auto garbage = run_play(s.dir, "record=/dev/null,pace=0", {"-i", "-"},
                                  "(head -c 18800 a.ts; printf 'not a packet at all'; cat a.ts) | env");
    EXPECT_EQ(garbage.status, 0);
    EXPECT_EQ(num(fields(garbage.out), "skipped"), 19);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "warning: 19 bytes of standard input that are not"));
    // Bytes that are not a transport stream: nothing is sent, status 1.
    const auto noise = run_play(s.dir, "", {"-i", "-"}, "head -c 3000000 /dev/urandom | env");
    EXPECT_EQ(noise.status, 1);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "standard input is not a transport stream"));
    EXPECT_EQ(tu::read_file(s.dir / "rec.bin").size(), 0u);
}

// Every fault ends on its own, in bounded time (a watchdog kills the player
// four seconds after the start, which fails the status check), with the summary
// line: a device lost mid-stream (status 3, the driver's error named), a
// device that stops taking samples (status 3 after -stall, no underflow
// counted), and SIGINT, SIGTERM or SIGHUP in any state, the write to a stalled
// device and the wait for the end of the burst included (status 0).
TEST(Play, EveryFaultEndsInBoundedTime) {
    Scratch s;
    const auto guarded = [&](const std::string& devargs, const std::vector<std::string>& args,
                             const std::string& signal = "") {
        std::string prefix = "echo $$ > pid; exec timeout -s KILL 4 env";
        if (!signal.empty()) prefix = "(sleep 0.5; kill -" + signal + " $(cat pid)) >/dev/null 2>&1 & " + prefix;
        const auto r = run_play(s.dir, devargs, args, prefix);
        EXPECT_TRUE(tu::contains(r.out, "samples=")) << "the summary line";
        return r;
    };
    auto r = guarded("pace=0,lose_at=100000", {"-i", "a.ts", "-loop", "inf", "-buf", "0.05"});
    EXPECT_EQ(r.status, 3);
    const std::string err = tu::read_text(s.dir / "err.txt");
    EXPECT_TRUE(tu::contains(err, "[driver] tervanefake: device lost") && tu::contains(err, "STREAM_ERROR")) << err;
    EXPECT_EQ(num(fields(r.out), "samples"), 100000);

    r = guarded("pace=0,stall_at=50000,record=/dev/null",
                {"-i", "a.ts", "-loop", "inf", "-buf", "0.05", "-stall", "0.5"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "device stalled: it took no sample for 0.5 s"));
    EXPECT_EQ(num(fields(r.out), "samples"), 50000);
    EXPECT_EQ(num(fields(r.out), "underflows"), 0) << "timeouts are not underflows";

    for (const std::string sig : {"INT", "TERM", "HUP"}) {
        SCOPED_TRACE(sig);
        EXPECT_EQ(guarded("pace=0,stall_at=50000,record=/dev/null", {"-i", "a.ts", "-loop", "inf"}, sig).status, 0);
        // Played out by the clock: without the signal the wait would last the 5 s sent.
        EXPECT_EQ(guarded("pace=0,status_supported=0,record=/dev/null", {"-i", "a.ts", "-loop", "inf", "-t", "5"}, sig)
                      .status,
                  0);
    }
}

// A programme at a rate of its own, made by ffmpeg without -muxrate, on air
// through the player (three plays, 8k 64-QAM 2/3 1/4), recorded by the fake
// device and received back by tervane-rx: tscheck finds every PCR within
// 500 ns, the rate the channel's and no timing or continuity error; every
// packet but the nulls is tsadapt's for the same stream, in order and whole,
// from where the receiver locked to where the transmission ended (at least a
// whole play), and ffprobe counts at least a play's frames in it.
TEST(Play, ProgrammeOnAirReceivedBackWithItsClock) {
#ifndef TERVANE_RX_EXE
    GTEST_SKIP() << "tervane-rx is not built (it needs Debian's libfftw3-dev and nlohmann-json3-dev)";
#endif
    if (!tu::have_ffmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are not installed (Debian's ffmpeg package)";
    Scratch s;
    tu::make_stream(s.dir, "vbr.ts", false, 1.5);
    const std::vector<std::string> channel = {"-m", "8k", "-M", "64", "-D", "1/4", "-p", "2/3"};
    std::vector<std::string> args = {"-i", "vbr.ts", "-loop", "3"};
    args.insert(args.end(), channel.begin(), channel.end());
    ASSERT_EQ(run_play(s.dir, "native=CF32,pace=0,record=rec.cf32", args).status, 0)
        << tu::read_text(s.dir / "err.txt");
    args.insert(args.end(), {"-o", "adapted.ts"});
    ASSERT_EQ(tu::run(s.dir.path, TSADAPT_EXE, args).status, 0);
#ifdef TERVANE_RX_EXE
    const auto rx = tu::run(s.dir.path, TERVANE_RX_EXE,
                            {"-i", "rec.cf32", "-format", "cf32", "-rate", "9142857.142857143", "-o", "rx.ts"});
    ASSERT_EQ(rx.status, 0) << tu::read_text(s.dir / "err.txt");
#endif
    const auto check = tu::run(s.dir.path, TSCHECK_EXE, {"-timing", "rx.ts"});
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_TRUE(tu::contains(check.out, " rate=19905882 pcr_accuracy_ns=0.0 pcr_accuracy_errors=0 ")) << check.out;

    const auto non_null = [&](const std::string& name) {
        const tu::Bytes b = tu::read_file(s.dir / name);
        std::vector<std::vector<uint8_t>> v;
        for (size_t i = 0; i + 188 <= b.size(); i += 188)
            if (((b[i + 1] & 0x1F) << 8 | b[i + 2]) != 0x1FFF) v.emplace_back(b.begin() + i, b.begin() + i + 188);
        return v;
    };
    const auto sent = non_null("adapted.ts"), got = non_null("rx.ts"), one_play = non_null("vbr.ts");
    ASSERT_FALSE(got.empty());
    const auto from = std::find(sent.begin(), sent.end(), got.front());
    ASSERT_NE(from, sent.end()) << "the first packet received was sent";
    const size_t after = static_cast<size_t>(sent.end() - from);
    EXPECT_LE(got.size(), after);
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + static_cast<std::ptrdiff_t>(std::min(got.size(), after)), from))
        << "the packets after it are the packets sent, in order";
    EXPECT_GT(got.size(), one_play.size());
    const auto frames = tu::decode(s.dir, "rx.ts").first, play_frames = tu::decode(s.dir, "vbr.ts").first;
    EXPECT_GE(frames, play_frames);
}

// Playback of a finished output: std samples scaled as live ones, agi codes
// through their scale; a file that is not whole superframes is warned about.
TEST(Play, Playback) {
    Scratch s;
    const auto ref = s.reference({"-i", "a.ts", "-m", "2k"});
    auto r = run_play(s.dir, "native=CF32,pace=0", {"-play", "ref.bin", "-loop", "2"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    auto got = floats(tu::read_file(s.dir / "rec.bin"));
    ASSERT_EQ(got.size(), 2 * ref.size());
    const double k = scale(0, 1, 1, 12);
    EXPECT_EQ(mismatches(got, ref, k), 0u);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "not a whole number of superframes"));

    ASSERT_EQ(tu::tervane(s.dir.path, {"-i", "a.ts", "-o", "g", "-d", "t", "-F", "agi", "-v", "0"}).status, 0);
    // The format and rate from SigMF metadata beside the file, as tervane-view writes it.
    std::ofstream(s.dir / "g_agi.sigmf-meta") << "{\"global\": {\"core:datatype\": \"ci16_be\", "
                                                 "\"core:sample_rate\": 9142857.142857143}}\n";
    r = run_play(s.dir, "native=CF32,pace=0", {"-play", "g_agi.bin"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    got = floats(tu::read_file(s.dir / "rec.bin"));
    ASSERT_EQ(got.size(), ref.size());
    const double sf = dvbIntegerScale(1, 0, 4.2f);
    double err = 0;
    for (size_t i = 0; i < got.size(); ++i)
        if (std::fabs(ref[i] * sf) < 32767) err = std::max(err, std::fabs(got[i] - ref[i] * k));
    EXPECT_LT(err, 1.01 * k / sf) << "agi codes are truncated sample values";

    // A 2x file played without -I: the metadata's rate gives the interpolation, and so the level.
    ASSERT_EQ(tu::tervane(s.dir.path, {"-i", "a.ts", "-o", "h", "-d", "t", "-I", "2x", "-v", "0"}).status, 0);
    std::ofstream(s.dir / "h.sigmf-meta") << "{\"global\": {\"core:datatype\": \"cf32_le\", "
                                             "\"core:sample_rate\": 18285714.285714287}}\n";
    r = run_play(s.dir, "native=CF32,pace=0", {"-play", "h.bin"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    EXPECT_NEAR(num(fields(r.out), "rms_dbfs"), -12, 0.3);
    EXPECT_EQ(num(fields(tu::read_text(s.dir / "rec.bin.status")), "rate"), dvbSampleRate(3, 1));
}

// The manual page's examples as they stand, each device's arguments replaced
// by the fake's with that device's format, full scale, rate limit, gains and
// antennas, no pacing, and the run cut short.
TEST(Play, ManualExamplesRunAgainstTheFake) {
    Scratch s;
    ASSERT_EQ(tu::run(s.dir.path, TSGEN_EXE, {"-o", "mux.ts", "-n", "3000"}).status, 0);
    const std::map<std::string, std::string> devices{
        {"hackrf", "native=CS8,rate_max=20e6,gains=AMP:14/VGA:47"},
        {"uhd", "master_clock="},  // the example's master_clock_rate follows
        {"bladerf", "fullscale=2048"},
        {"lime", "fullscale=32767,antennas=NONE/BAND1/BAND2"}};
    int examples = 0;
    for (const std::string& line : tu::manual_examples(TERVANE_SOURCE_DIR "/companions/tervane-play/tervane-play.1")) {
        SCOPED_TRACE(line);
        std::istringstream words(line);
        std::string cmd = "env SOAPY_SDR_PLUGIN_PATH=" TERVANE_SOAPY_FAKE;
        for (std::string w; words >> w;) {
            if (w == "some-encoder") w = "cat mux.ts";
            if (w == "|") w = "| env SOAPY_SDR_PLUGIN_PATH=" TERVANE_SOAPY_FAKE;
            if (w == "tervane-play") w = TERVANE_PLAY_EXE;
            if (w.rfind("driver=", 0) == 0) {
                const std::string driver = w.substr(7, w.find(',') - 7);
                ASSERT_TRUE(devices.count(driver)) << driver;
                std::string fake = "driver=tervanefake,pace=0,record=/dev/null," + devices.at(driver);
                const size_t clock = w.find("master_clock_rate=");
                if (clock != std::string::npos) fake += w.substr(clock + 18, w.find(',', clock) - clock - 18);
                w = fake;
            }
            cmd += " " + w;
        }
        const auto r = tu::run(s.dir.path, "sh", {"-c", cmd + " -t 0.05"});
        EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
        EXPECT_GT(num(fields(r.out), "samples"), 0);
        ++examples;
    }
    EXPECT_EQ(examples, 5);
}

// Bad options and a missing device: one clear line each, nothing sent.
TEST(Play, Errors) {
    Scratch s;
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{"-i", "a.ts", "-bogus", "1"}, 1},
        {{"-i", "a.ts", "-bo", "x"}, 1},
        {{"-i", "a.ts", "-M", "32"}, 1},
        {{"-i", "a.ts", "-loop", "0"}, 1},
        {{"-i", "a.ts", "-t", "0"}, 1},
        {{"-i", "none.ts"}, 1},
        {{"-i", "a.ts", "-o", "x"}, 1},
        {{"-i", "a.ts", "-ge", "PA"}, 1},
        {{"-i", "a.ts", "-lo", "4e6"}, 1},
        {{"-i", "a.ts", "-ge", "LNA=3"}, 3},
    };
    for (const auto& [args, status] : cases) {
        const auto r = run_play(s.dir, "", args);
        const std::string err = tu::read_text(s.dir / "err.txt");
        EXPECT_EQ(r.status, status) << args[2] << ": " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_TRUE(err.starts_with("tervane-play: ")) << err;
        EXPECT_EQ(r.out, "");
    }
    const auto r = tu::run(
        s.dir.path, "env",
        {"SOAPY_SDR_PLUGIN_PATH=" TERVANE_SOAPY_FAKE, TERVANE_PLAY_EXE, "-dev", "driver=nosuchdevice", "-i", "a.ts"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "can't open the device"));
}

#endif
