// The receiver test bench: tervane-channel against independent models (C/N from
// output minus input, the frequency response of the echo profiles, a known
// offset), tscheck on tsgen streams with injected faults, and the whole chain
// tsgen -> tervane [-> tervane-channel] -> GNU Radio's receiver -> tscheck.

#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>

#include "models.hpp"
#include "util.hpp"

namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;
namespace fs = std::filesystem;

std::vector<cf> samples(const fs::path& p) {
    const tu::Bytes b = tu::read_file(p);
    std::vector<cf> v(b.size() / 8);
    std::memcpy(v.data(), b.data(), 8 * v.size());
    return v;
}

tu::Result channel(const tu::TempDir& dir, const std::vector<std::string>& args) {
    return tu::run(dir.path, TERVANE_CHANNEL_EXE, args);
}

double power(const std::vector<cf>& v) {
    double p = 0;
    for (const cf& x : v) p += std::norm(cd(x));
    return p / static_cast<double>(v.size());
}

TEST(Channel, NoiseAtTheRequestedCnOffsetAndSeed) {
    tu::TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "in.ts", "-n", "300"}).status, 0);
    ASSERT_EQ(tu::tervane(dir.path, {"-i", "in.ts", "-o", "tx", "-d", "t", "-b", "7", "-I", "4x", "-v", "0"}).status,
              0);
    const auto x = samples(dir / "tx.bin");
    // C/N in the signal's bandwidth: 1705 carriers of 8 MHz / 2048, at a sample rate of 4 x 8 MHz.
    const auto r = channel(dir, {"-i", "tx.bin", "-o", "n.bin", "-b", "7", "-I", "4x", "-profile", "gaussian", "-cn",
                                 "12.5", "-seed", "5"});
    ASSERT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
    const auto y = samples(dir / "n.bin");
    ASSERT_EQ(y.size(), x.size());
    std::vector<cf> n(x.size());
    for (size_t k = 0; k < x.size(); ++k) n[k] = y[k] - x[k];
    const double cn = 10 * std::log10(power(x) / (power(n) * (1705.0 * 8e6 / 2048) / 32e6));
    EXPECT_NEAR(cn, 12.5, 0.1);
    const size_t at = r.out.find("achieved ");
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NEAR(std::stod(r.out.substr(at + 9)), cn, 0.01) << "the report measures what was added";
    // The data cells' C/N leaves out the boosted pilots' and the TPS's share:
    // 2k has 1512 data cells, 17 TPS cells and 176 pilots at 16/9 in 1705 carriers.
    const size_t data = r.out.find("C/N of the data cells: ");
    ASSERT_NE(data, std::string::npos) << r.out;
    EXPECT_NEAR(std::stod(r.out.substr(data + 23)), cn - 10 * std::log10((1512 + 17 + 176 * 16.0 / 9) / 1705), 0.01);
    // White, circular noise: no correlation from one sample to the next, I and Q of equal power.
    cd lag1 = 0, iq = 0;
    for (size_t k = 1; k < n.size(); ++k) lag1 += cd(n[k]) * std::conj(cd(n[k - 1]));
    for (const cf& v : n) iq += cd(v.real() * v.real() - v.imag() * v.imag(), v.real() * v.imag());
    EXPECT_LT(std::abs(lag1) / static_cast<double>(n.size()) / power(n), 0.01);
    EXPECT_LT(std::abs(iq) / static_cast<double>(n.size()) / power(n), 0.01);
    // The same seed gives the same file, another seed other noise.
    ASSERT_EQ(channel(dir, {"-i", "tx.bin", "-o", "same.bin", "-b", "7", "-I", "4x", "-profile", "gaussian", "-cn",
                            "12.5", "-seed", "5"})
                  .status,
              0);
    EXPECT_TRUE(tu::read_file(dir / "same.bin") == tu::read_file(dir / "n.bin"));
    ASSERT_EQ(channel(dir, {"-i", "tx.bin", "-o", "other.bin", "-b", "7", "-I", "4x", "-profile", "gaussian", "-cn",
                            "12.5", "-seed", "6"})
                  .status,
              0);
    EXPECT_FALSE(tu::read_file(dir / "other.bin") == tu::read_file(dir / "n.bin"));
    // A carrier offset alone: y[n] = x[n] e^(j 2 pi f n / rate).
    ASSERT_EQ(
        channel(dir, {"-i", "tx.bin", "-o", "f.bin", "-b", "7", "-I", "4x", "-profile", "gaussian", "-cfo", "-1234.5"})
            .status,
        0);
    const auto z = samples(dir / "f.bin");
    double err = 0;
    for (size_t k = 0; k < x.size(); ++k)
        err = std::max(err, std::abs(cd(z[k]) - cd(x[k]) * std::polar(1.0, -2 * std::numbers::pi * 1234.5 *
                                                                               static_cast<double>(k) / 32e6)));
    EXPECT_LT(err, 1e-5 * std::sqrt(power(x)));
}

// One impulse through the F1 and P1 channels: the frequency response over the
// occupied band against the profiles' formula, to the interpolator's accuracy.
TEST(Channel, ImpulseResponseIsTheEchoProfile) {
    struct Case {
        const char *profile, *mode, *band, *interp, *map;
        double fs, rate, centre;
        int F, K;
    };
    for (const Case& c : {Case{"ricean", "8k", "8", "1x", "0", 64e6 / 7, 64e6 / 7, 0, 8192, 6817},
                          Case{"rayleigh", "2k", "8", "1x", "0", 64e6 / 7, 64e6 / 7, 0, 2048, 1705},
                          Case{"rayleigh", "2k", "7", "4x", "BB", 8e6, 32e6, 4e6, 2048, 1705}}) {
        SCOPED_TRACE(c.profile + std::string(" ") + c.mode + " " + c.interp + " " + c.map);
        tu::TempDir dir;
        const size_t n0 = 400;
        std::vector<cf> impulse(2048, cf(0, 0));
        impulse[n0] = cf(1, 0);
        tu::write_file(dir / "imp.bin",
                       tu::Bytes(reinterpret_cast<const unsigned char*>(impulse.data()),
                                 reinterpret_cast<const unsigned char*>(impulse.data() + impulse.size())));
        const auto run = channel(dir, {"-i", "imp.bin", "-o", "h.bin", "-m", c.mode, "-b", c.band, "-I", c.interp, "-f",
                                       c.map, "-profile", c.profile});
        ASSERT_EQ(run.status, 0);
        EXPECT_TRUE(tu::contains(run.out, "2048 samples")) << run.out;
        EXPECT_TRUE(tu::contains(run.out, "mean power 0.000488281\n")) << "the impulse's power, 1/2048";
        const auto h = samples(dir / "h.bin");
        ASSERT_EQ(h.size(), impulse.size());
        const bool ricean = std::string(c.profile) == "ricean";
        double worst = 0;
        for (int k = 0; k < c.K; k += 3) {
            const double f = c.centre + (k - (c.K - 1) / 2) * c.fs / c.F;
            const cd model = models::echo_response(k * c.fs / c.F, ricean);
            cd measured = 0;
            for (size_t n = 0; n < h.size(); ++n)
                measured +=
                    cd(h[n]) * std::polar(1.0, -2 * std::numbers::pi * f * (static_cast<double>(n) - n0) / c.rate);
            worst = std::max(worst, std::abs(measured - model));
        }
        EXPECT_LT(20 * std::log10(worst), -100.0);
    }
}

// A clock offset against the signal it resamples, known at every instant: a few
// tones across the band, whose output sample m must be their sum at input
// instant m / (1 + ppm 1e-6).
TEST(Channel, ClockOffsetSamplesTheSignalAtItsInstants) {
    tu::TempDir dir;
    const double tones[][3] = {{0.013, 1.0, 0.3}, {-0.21, 0.5, 1.1}, {0.37, 0.7, -2.0}, {-0.405, 0.4, 0.5}};
    auto at = [&](double t) {
        cd v = 0;
        for (const auto& [f, a, ph] : tones) v += std::polar(a, 2 * std::numbers::pi * f * t + ph);
        return v;
    };
    const size_t n = 200000;
    std::vector<cf> x(n);
    for (size_t k = 0; k < n; ++k) x[k] = cf(at(static_cast<double>(k)));
    tu::Bytes raw(8 * n);
    std::memcpy(raw.data(), x.data(), raw.size());
    tu::write_file(dir / "x.bin", raw);
    for (const double ppm : {-48.5, 310.0}) {
        const auto r =
            channel(dir, {"-i", "x.bin", "-o", "y.bin", "-profile", "gaussian", "-ppm", std::to_string(ppm)});
        ASSERT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
        const auto y = samples(dir / "y.bin");
        const double step = 1 / (1 + ppm * 1e-6);
        EXPECT_EQ(y.size(), static_cast<size_t>(std::ceil(n / step))) << "every instant within the input, no more";
        double err = 0, sig = 0;
        for (size_t m = 100; m + 100 < y.size(); ++m) {  // the ends see the zeros around the input
            const cd want = at(static_cast<double>(m) * step);
            err += std::norm(cd(y[m]) - want), sig += std::norm(want);
        }
        EXPECT_LT(10 * std::log10(err / sig), -80) << ppm;
        EXPECT_TRUE(tu::contains(r.out, "Clock offset: ")) << r.out;
    }
}

TEST(Channel, BadInputRefusedInOneLine) {
    tu::TempDir dir;
    tu::write_file(dir / "in.bin", tu::Bytes(800, 1));
    tu::write_file(dir / "odd.bin", tu::Bytes(801, 1));
    tu::write_file(dir / "empty.bin", {});
    const std::vector<std::string> ok{"-i", "in.bin", "-o", "out.bin", "-profile", "gaussian"};
    auto with = [&](std::vector<std::string> extra) {
        extra.insert(extra.begin(), ok.begin(), ok.end());
        return extra;
    };
    for (const auto& args : {std::vector<std::string>{},
                             {"-o", "out.bin", "-profile", "gaussian"},
                             {"-i", "in.bin", "-profile", "ricean"},
                             {"-i", "in.bin", "-o", "out.bin"},
                             {"-i", "in.bin", "-o", "out.bin", "-profile", "urban"},
                             {"-i", "odd.bin", "-o", "out.bin", "-profile", "gaussian"},
                             {"-i", "empty.bin", "-o", "out.bin", "-profile", "gaussian"},
                             {"-i", "none.bin", "-o", "out.bin", "-profile", "gaussian"},
                             {"-i", "in.bin", "-o", "./in.bin", "-profile", "rayleigh"},
                             with({"-cn"}),
                             with({"-cn", "12dB"}),
                             with({"-cn", "400"}),
                             with({"-seed", "-3"}),
                             with({"-cfo", "5e6"}),
                             with({"-cfo"}),
                             with({"-ppm", "1500"}),
                             with({"-ppm", "fast"}),
                             with({"-F", "agi"}),
                             with({"-zz"}),
                             with({"-m", "3k"}),
                             with({"-s", "ten"}),
                             with({"-g", "inf"})}) {
        EXPECT_EQ(channel(dir, args).status, 1) << args.size();
        const std::string err = tu::read_text(dir / "err.txt");
        EXPECT_TRUE(err.rfind("tervane-channel: ", 0) == 0 && err.find('\n') == err.size() - 1) << err;
    }
    // A write that fails (a file-size limit here) is an error, and leaves no file behind.
    tu::write_file(dir / "big.bin", tu::Bytes(16000, 1));
    const std::string limited =
        "ulimit -f 4 && exec " + std::string(TERVANE_CHANNEL_EXE) + " -i big.bin -o lim.bin -profile gaussian";
    EXPECT_EQ(tu::run(dir.path, "bash", {"-c", limited}).status, 1);
    EXPECT_EQ(tu::read_text(dir / "err.txt"), "tervane-channel: writing \"lim.bin\" failed: File too large\n");
    EXPECT_EQ(tu::read_file(dir / "in.bin"), tu::Bytes(800, 1));
    size_t files = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir.path)) ++files;
    EXPECT_EQ(files, 5u) << "no output, no temporary file";
}

// tscheck on a tsgen stream of 600 packets (12 PAT and PMT, 588 null packets;
// the first null packet finds the PRBS, 587 are checked) and on copies with faults.
TEST(Tscheck, FaultsInjectedIntoATsgenStream) {
    tu::TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "s.ts", "-n", "600"}).status, 0);
    const tu::Bytes clean = tu::read_file(dir / "s.ts");
    auto check = [&](const tu::Bytes& ts, int status, const std::string& summary) {
        tu::write_file(dir / "f.ts", ts);
        const auto r = tu::run(dir.path, TSCHECK_EXE, {"f.ts"});
        EXPECT_EQ(r.status, status) << r.out;
        EXPECT_EQ(r.out.substr(r.out.rfind('\n', r.out.size() - 2) + 1), summary + "\n") << r.out;
        return r.out;
    };
    check(clean, 0, "packets=600 sync_losses=0 tei=0 cc_errors=0 prbs_bits=864064 bit_errors=0 ber=0 per=0");
    tu::Bytes t = clean;  // three bits flipped in two null packets
    t[50 * 188 + 100] ^= 0x10, t[51 * 188 + 20] ^= 0x03;
    check(t, 1, "packets=600 sync_losses=0 tei=0 cc_errors=0 prbs_bits=864064 bit_errors=3 ber=3.47e-06 per=0.00341");
    t = clean;  // null packet 302 dropped: the PRBS is lost in the next one and found again in it
    t.erase(t.begin() + 302 * 188, t.begin() + 303 * 188);
    EXPECT_TRUE(tu::contains(
        check(t, 1, "packets=599 sync_losses=0 tei=0 cc_errors=1 prbs_bits=861120 bit_errors=0 ber=0 per=0.00171"),
        "PRBS lost in packet 302 (745 of 1472 bits differ); found again in it"));
    t = clean;  // the transport error indicator of packet 400
    t[400 * 188 + 1] |= 0x80;
    check(t, 1, "packets=600 sync_losses=0 tei=1 cc_errors=0 prbs_bits=864064 bit_errors=0 ber=0 per=0");
    t = clean;  // the null packets' counter jumps by 3 from packet 200 on
    for (size_t k = 200; k < 600; ++k)
        if ((t[k * 188 + 1] & 0x1F) == 0x1F)
            t[k * 188 + 3] = static_cast<unsigned char>(0x10 | ((t[k * 188 + 3] + 3) & 0x0F));
    check(t, 1, "packets=600 sync_losses=0 tei=0 cc_errors=1 prbs_bits=864064 bit_errors=0 ber=0 per=0");
    t = clean;  // 100 bytes inserted after packet 250: the packet sync is lost and found again
    t.insert(t.begin() + 251 * 188, 100, 0x00);
    check(t, 1, "packets=600 sync_losses=1 tei=0 cc_errors=0 prbs_bits=864064 bit_errors=0 ber=0 per=0");
    // A receiver's start-up: garbage, then packets that are not the PRBS, then the stream.
    tu::Bytes start(333);
    for (size_t i = 0; i < start.size(); ++i) start[i] = static_cast<unsigned char>(i % 7 == 0 ? 0x47 : i * 37 + 11);
    const tu::Bytes junk = tu::make_ts(3, 9);
    start.insert(start.end(), junk.begin(), junk.end());
    start.insert(start.end(), clean.begin(), clean.end());
    EXPECT_TRUE(tu::contains(
        check(start, 0, "packets=603 sync_losses=0 tei=0 cc_errors=0 prbs_bits=864064 bit_errors=0 ber=0 per=0"),
        "PRBS: found in packet 5; the 5 packets before it are not checked"));
    check(tu::make_ts(50, 3), 1, "packets=50 sync_losses=0 tei=0 cc_errors=0 prbs_bits=0 bit_errors=0 ber=0 per=0");
    EXPECT_EQ(tu::run(dir.path, TSCHECK_EXE, {}).status, 2);
    EXPECT_EQ(tu::run(dir.path, TSCHECK_EXE, {"none.ts"}).status, 2);
}

// The whole chain with GNU Radio's receiver, tsgen -> tervane -> [tervane-channel]
// -> tervane-rx-gnuradio -> tscheck. Without a channel: both modes the receiver has, every
// constellation, guard interval and code rate, batch sizes that divide nothing in
// the chain. Through the Gaussian and Ricean channels at 30 dB (one with a carrier
// offset). Each gives the stream back without a bit or counter error, all of it
// but the receiver's start (about one superframe after locking) and the end (the
// depth of both outer interleavers). At 5 dB, or decoded at the wrong code rate,
// errors are reported.
TEST(BenchChain, ReceiverDecodesTheStream) {
    if (std::system("/usr/bin/python3 -c 'import gnuradio.dtv' >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "/usr/bin/python3 cannot import gnuradio.dtv (install Debian's gnuradio package)";
    struct Run {
        const char *mode, *M, *guard, *rate, *batch, *profile, *cn, *cfo, *rx_rate;
        int superframes, status;
    };
    for (const Run& c : {Run{"2k", "4", "1/32", "1/2", "5", nullptr, "", "", "1/2", 10, 0},
                         Run{"2k", "16", "1/4", "3/4", "37", "gaussian", "30", "0", "3/4", 8, 0},
                         Run{"2k", "16", "1/32", "3/4", "100", "ricean", "30", "3000", "3/4", 6, 0},
                         Run{"2k", "64", "1/8", "7/8", "100", nullptr, "", "", "7/8", 8, 0},
                         Run{"8k", "4", "1/8", "7/8", "7", nullptr, "", "", "7/8", 8, 0},
                         Run{"8k", "64", "1/4", "2/3", "37", "gaussian", "30", "0", "2/3", 8, 0},
                         Run{"8k", "64", "1/4", "2/3", "19", "ricean", "30", "0", "2/3", 3, 0},
                         Run{"8k", "16", "1/16", "5/6", "13", nullptr, "", "", "5/6", 8, 0},
                         Run{"8k", "64", "1/4", "2/3", "100", "gaussian", "5", "0", "2/3", 3, 1},
                         Run{"2k", "4", "1/32", "1/2", "100", nullptr, "", "", "2/3", 3, 1}}) {
        SCOPED_TRACE(c.mode + std::string(" ") + c.M + "-QAM " + c.rate + " " + (c.profile ? c.profile : "no channel") +
                     " " + c.cn);
        tu::TempDir dir;
        const int bits = c.M[0] == '4' ? 2 : c.M[0] == '1' ? 4 : 6;
        const int per_superframe =
            (std::string(c.mode) == "2k" ? 252 : 1008) * bits * (c.rate[0] - '0') / (c.rate[2] - '0');
        const int packets = c.superframes * per_superframe;
        const std::vector<std::string> tx{"-m", c.mode, "-M", c.M, "-D", c.guard};
        auto with = [&](std::vector<std::string> a) {
            a.insert(a.end(), tx.begin(), tx.end());
            return a;
        };
        ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "in.ts", "-n", std::to_string(packets)}).status, 0);
        ASSERT_EQ(
            tu::tervane(dir.path, with({"-i", "in.ts", "-o", "tx", "-d", "t", "-v", "0", "-p", c.rate, "-s", c.batch}))
                .status,
            0);
        std::string signal = "tx.bin";
        if (c.profile != nullptr) {
            const auto ch =
                channel(dir, with({"-i", "tx.bin", "-o", "ch.bin", "-profile", c.profile, "-cn", c.cn, "-cfo", c.cfo}));
            ASSERT_EQ(ch.status, 0) << tu::read_text(dir / "err.txt");
            signal = "ch.bin";
        }
        auto receive = [&](const std::string& out) {
            return tu::run(dir.path, "/usr/bin/timeout",
                           with({"300", TERVANE_RX_GNURADIO_EXE, "-i", signal, "-o", out, "-p", c.rx_rate}));
        };
        const auto rx = receive("rx.ts");
        ASSERT_EQ(rx.status, 0) << tu::read_text(dir / "err.txt");
        const auto r = tu::run(dir.path, TSCHECK_EXE, {"rx.ts"});
        EXPECT_EQ(r.status, c.status) << r.out;
        if (c.status == 0) {  // all but two superframes of the null packets' PRBS bits (2 % are tables)
            const double bits_back = std::stod(r.out.substr(r.out.find("prbs_bits=") + 10));
            EXPECT_GT(bits_back, (c.superframes - 2) * per_superframe * 0.98 * 1472) << r.out;
        }
        if (c.cfo == std::string("3000")) {  // a full disk stops the receiver with a message, not a hang
            std::filesystem::create_symlink("/dev/full", dir / "full.ts");
            EXPECT_EQ(receive("full.ts").status, 1);
            EXPECT_EQ(tu::read_text(dir / "err.txt"),
                      "tervane-rx-gnuradio: writing \"full.ts\" failed after 0 bytes: No space left on device\n");
        }
    }
}

}  // namespace
