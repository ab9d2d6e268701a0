// tervane-play against the fake SoapySDR device (driver=tervanefake), run as a
// program: the samples against tervane's own output, pacing, underflow and
// late counts, back-off and saturation, the rate check, loops, the clean end
// on SIGINT, standard input with null packets, playback and its errors.
#include "util.hpp"

#ifndef TERVANE_PLAY_EXE

TEST(Play, NeedsSoapySDR) { GTEST_SKIP() << "built without SoapySDR: tervane-play is absent"; }

#else

#include <cmath>
#include <cstring>
#include <map>
#include <sstream>

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
tu::Result play(const tu::TempDir& dir, const std::string& devargs, std::vector<std::string> args,
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

struct Scratch {
    tu::TempDir dir;
    explicit Scratch(size_t packets = 300) {
        tu::write_file(dir / "a.ts", tu::make_ts(packets, 1));
        tu::write_file(dir / "b.ts", tu::make_ts(packets, 2));
    }
    // tervane's std samples for the options.
    std::vector<float> reference(std::vector<std::string> opts) {
        opts.insert(opts.end(), {"-o", "ref", "-d", "t", "-v", "0"});
        EXPECT_EQ(tu::tervane(dir.path, opts).status, 0);
        return floats(tu::read_file(dir / "ref.bin"));
    }
};

}  // namespace

// With CF32 native samples and no pacing, the recording is tervane's std
// output times k, converted to float, for several configurations.
TEST(Play, LiveSamplesAreTervanesScaled) {
    Scratch s;
    const std::vector<std::pair<std::vector<std::string>, uint32_t>> configs = {
        {{"-i", "a.ts"}, 0},
        {{"-i", "a.ts", "-m", "8k", "-M", "64", "-D", "1/4", "-p", "2/3", "-cid", "77"}, 2},
        {{"-i", "a.ts", "-M", "16", "-I", "2x", "-b", "7", "-f", "INV"}, 0},
        {{"-a", "2", "-M", "64", "-ihp", "a.ts", "-ilp", "b.ts", "-php", "1/2", "-plp", "3/4"}, 0},
    };
    for (const auto& [opts, mode] : configs) {
        SCOPED_TRACE(opts[1] + " " + opts.back());
        const auto ref = s.reference(opts);
        ASSERT_GT(ref.size(), 0u);
        const auto r = play(s.dir, "native=CF32,pace=0", opts);
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

// -bo 0 clips, -bo 12 does not; CS16 and CS8 round and saturate as stated:
// round half away from zero, then [-fullscale, fullscale - 1].
TEST(Play, BackOffRoundingAndSaturation) {
    Scratch s;
    const auto ref = s.reference({"-i", "a.ts"});
    EXPECT_GT(num(fields(play(s.dir, "native=CF32,pace=0", {"-i", "a.ts", "-bo", "0"}).out), "clipped"), 0);
    for (const auto& [native, fs] : std::vector<std::pair<std::string, double>>{{"CS16", 2048}, {"CS8", 128}}) {
        SCOPED_TRACE(native);
        for (const double bo : {12.0, 1.0}) {
            const auto r = play(s.dir, "native=" + native + ",fullscale=" + std::to_string(int(fs)) + ",pace=0",
                                {"-i", "a.ts", "-bo", bo == 12 ? "12" : "1"});
            ASSERT_EQ(r.status, 0);
            const auto rec = tu::read_file(s.dir / "rec.bin");
            const size_t w = native == "CS8" ? 1 : 2;
            ASSERT_EQ(rec.size(), ref.size() * w);
            const double k = scale(0, 1, fs, bo);
            size_t bad = 0, clipped = 0;
            for (size_t i = 0; i < ref.size(); ++i) {
                const double y = std::round(ref[i] * k), want = std::clamp(y, -fs, fs - 1);
                clipped += y != want;
                int v = int8_t(rec[i]);
                if (w == 2) v = int16_t(uint16_t(rec[2 * i] | rec[2 * i + 1] << 8));
                bad += v != want;
            }
            EXPECT_EQ(bad, 0u);
            EXPECT_EQ(num(fields(r.out), "clipped"), clipped);
            if (bo == 12) EXPECT_EQ(clipped, 0u);
            else EXPECT_GT(clipped, 0u);
        }
    }
}

// The device settings as the fake saw them (the filter after the rate), and
// -lo: the LO tuned away, the samples turned by -lo Hz.
TEST(Play, DeviceSettingsAndLoShift) {
    Scratch s(300);
    const auto ref = s.reference({"-i", "a.ts", "-I", "2x"});
    const auto r = play(s.dir, "native=CF32,pace=0",
                        {"-i", "a.ts", "-I", "2x", "-fc", "600e6", "-lo", "2e6", "-gain", "50", "-ge", "PA=5", "-bw",
                         "8e6", "-ant", "TX"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    const Fields st = fields(tu::read_text(s.dir / "rec.bin.status"));
    EXPECT_EQ(num(st, "frequency"), 602e6);
    EXPECT_EQ(num(st, "gain_VGA"), 47);
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
// reported; a producer made slow shows as late deliveries, and the device,
// run dry, reports underflows of its own.
TEST(Play, PacingUnderflowsAndLate) {
    Scratch s;
    s.reference({"-i", "a.ts", "-b", "5"});
    auto r = play(s.dir, "buffer=2000000,record=/dev/null", {"-play", "ref.bin", "-b", "5", "-loop", "inf", "-t", "3"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    Fields f = fields(r.out);
    const double rate = dvbSampleRate(0, 0);
    EXPECT_EQ(num(f, "samples"), std::llround(3 * rate));
    EXPECT_NEAR(num(f, "rate"), rate, rate / 100);
    EXPECT_GE(num(f, "loops"), 1);
    EXPECT_TRUE(tu::contains(tu::read_text(s.dir / "err.txt"), "continuity counters jump"));

    for (const std::string report : {"underflow_report=status", "underflow_report=write", "log_underflow=1",
                                     "underflow_report=write,status_supported=0"}) {
        r = play(s.dir, "pace=0,underflow_at=100000," + report, {"-i", "a.ts"});
        EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
        EXPECT_EQ(num(fields(r.out), "underflows"), 1) << report;
    }
    r = play(s.dir, "buffer=20000,record=/dev/null", {"-i", "a.ts", "-buf", "0.01", "-t", "0.5"},
             "env TERVANE_PLAY_TEST_DELAY_US=30000");
    EXPECT_EQ(r.status, 0);
    EXPECT_GT(num(fields(r.out), "late"), 0);
    EXPECT_GT(num(fields(r.out), "underflows"), 0) << "the device ran dry as well";
}

// A rate the device cannot take is refused before anything is sent (status 3);
// -loop 3 sends what tervane makes of the file three times over.
TEST(Play, RateRefusedAndLoops) {
    Scratch s;
    auto r = play(s.dir, "master_clock=30e6", {"-i", "a.ts"});
    EXPECT_EQ(r.status, 3);
    const std::string err = tu::read_text(s.dir / "err.txt");
    EXPECT_TRUE(tu::contains(err, "10000000.000 Hz") && tu::contains(err, "master")) << err;
    EXPECT_EQ(tu::read_file(s.dir / "rec.bin").size(), 0u);
    // 36.571428 MHz / 4 is the rate within a ppm.
    EXPECT_EQ(play(s.dir, "master_clock=36571428.6,pace=0", {"-i", "a.ts", "-t", "0.1"}).status, 0);

    tu::Bytes three = tu::read_file(s.dir / "a.ts");
    const tu::Bytes one = three;
    for (int k = 0; k < 2; ++k) three.insert(three.end(), one.begin(), one.end());
    tu::write_file(s.dir / "three.ts", three);
    const auto ref = s.reference({"-i", "three.ts"});
    r = play(s.dir, "native=CF32,pace=0", {"-i", "a.ts", "-loop", "3"});
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
    const auto r = play(s.dir, "native=CS8", {"-i", "a.ts", "-b", "5", "-loop", "inf"},
                        "(sleep 1; kill -INT $(cat pid)) & echo $$ > pid; exec env");
    EXPECT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    EXPECT_GT(num(fields(r.out), "samples"), 0);
    const Fields st = fields(tu::read_text(s.dir / "rec.bin.status"));
    EXPECT_EQ(st.at("bursts_ended"), "1");
    EXPECT_EQ(st.at("closed"), "1");
    EXPECT_EQ(num(st, "samples"), num(fields(r.out), "samples"));

    const auto live = play(s.dir, "record=/dev/null", {"-i", "-", "-t", "0.5"}, "sleep 1 | env");
    EXPECT_EQ(live.status, 0);
    const Fields f = fields(live.out);
    EXPECT_EQ(num(f, "samples"), std::llround(0.5 * dvbSampleRate(3, 0)));
    EXPECT_GT(num(f, "nulls"), 100);
}

// Playback of a finished output: std samples scaled as live ones, agi codes
// through their scale; a file that is not whole superframes is warned about.
TEST(Play, Playback) {
    Scratch s;
    const auto ref = s.reference({"-i", "a.ts", "-m", "2k"});
    auto r = play(s.dir, "native=CF32,pace=0", {"-play", "ref.bin", "-loop", "2"});
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
    r = play(s.dir, "native=CF32,pace=0", {"-play", "g_agi.bin"});
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
    r = play(s.dir, "native=CF32,pace=0", {"-play", "h.bin"});
    ASSERT_EQ(r.status, 0) << tu::read_text(s.dir / "err.txt");
    EXPECT_NEAR(num(fields(r.out), "rms_dbfs"), -12, 0.3);
    EXPECT_EQ(num(fields(tu::read_text(s.dir / "rec.bin.status")), "rate"), dvbSampleRate(3, 1));
}

// The README's examples as they stand, each device's arguments replaced by
// the fake's with that device's format, full scale, rate limit, gains and
// antennas, no pacing, and the run cut short.
TEST(Play, ReadmeExamplesRunAgainstTheFake) {
    Scratch s;
    ASSERT_EQ(tu::run(s.dir.path, TSGEN_EXE, {"-o", "mux.ts", "-n", "3000"}).status, 0);
    const std::map<std::string, std::string> devices{
        {"hackrf", "native=CS8,rate_max=20e6,gains=AMP:14/VGA:47"},
        {"uhd", "master_clock="},  // the example's master_clock_rate follows
        {"bladerf", "fullscale=2048"},
        {"lime", "fullscale=32767,antennas=NONE/BAND1/BAND2"}};
    const std::string readme = tu::read_text(TERVANE_SOURCE_DIR "/README.md");
    const size_t from = readme.find("```sh", readme.find("## On air"));
    ASSERT_NE(from, std::string::npos);
    std::istringstream block(readme.substr(from + 6, readme.find("```", from + 6) - from - 6));
    int examples = 0;
    for (std::string line; std::getline(block, line);) {
        if (line.empty() || line[0] == '#') continue;
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
        {{"-i", "none.ts"}, 1},
        {{"-i", "a.ts", "-o", "x"}, 1},
        {{"-i", "a.ts", "-ge", "PA"}, 1},
        {{"-i", "a.ts", "-lo", "4e6"}, 1},
        {{"-i", "a.ts", "-ge", "LNA=3"}, 3},
    };
    for (const auto& [args, status] : cases) {
        const auto r = play(s.dir, "", args);
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
