// The executable seen from outside: help and version, fatal input errors, the
// parameter report and its adjustments, the level of every kind of message,
// the end report's figures, the log, file names, failed writes, the hierarchical
// branches, option quirks and hostile input. Every run is bounded by `timeout`.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "util.hpp"

namespace {

using namespace tu;
namespace fs = std::filesystem;

const std::string kBanner =
    "\nDVB-T compliant software transmitter\nTervane v. 2.1b Linux   - (2006/08/03)\n"
    "Written by the tervane developers\nhttps://tervane.example.org/\nStandard: ETSI EN 300 744 V1.5.1 (2004-11)\n";

const std::string kHelp =
    "\nCurrent available options are:\n\n-i\tMPEG-2 NH transport stream file name\n-ihp\tMPEG-2 HP "
    "transport stream file name\n-ilp\tMPEG-2 LP transport stream file name\n-o\tBase output file name "
    "and extension\n-l\tLog file name\n-m\tOFDM mode {2k | 4k | 8k}\n-M\tConstellation order {4 | 16 | "
    "64}\n-a\tHierarchy and uniformity order {NH | 1 | 2 | 4}\n-D\tCircular prefix duration {1/32 | 1/16 "
    "| 1/8 | 1/4}\n-p\tPuncturing rate, NH {1/2 | 2/3 | 3/4 | 5/6 | 7/8}\n-php\tPuncturing rate, HP {1/2 "
    "| 2/3 | 3/4 | 5/6 | 7/8}\n-plp\tPuncturing rate, LP {1/2 | 2/3 | 3/4 | 5/6 | 7/8}\n-idi\tIn-depth "
    "interleaving, only for 2k and 4k modes\n-b\tChannel spacing {5 | 6 | 7 | 8}\n-cid\tCell identifier "
    "{0x0000}\n-c\tConv. interleaver initialization {0 | rand}\n-f\tFrequency mapping method {0 | BB | "
    "INV}\n-v\tVerbosity level {0 to 4}\n-V\tPrint version number and exit\n-d\tDump level "
    "{ercvpbsmft}\n  \te - Energy disperser\n  \tr - Reed-Solomon encoder\n  \tc - Convolutional "
    "interleaver\n  \tv - Convolutional encoder\n  \tp - Puncturer\n  \tb - Bit interleaver\n  \ts - Symbol "
    "interleaver\n  \tm - Mapper\n  \tf - Pre-IFFT\n  \tt - Post-IFFT (alone or with -F)\n-I\tInterpolation "
    "rate {1x | 2x | 4x}\n-F\tPost-IFFT format {std | agi | agiold}\n-g\tGain factor {4.20}\n-s\tInternal "
    "buffer base size {100}\n";

// Runs the transmitter in dir under `timeout`, and under `ulimit -f` when a
// limit is given; it must end with this status (124 is a hang, 128 + n a
// signal) and say nothing on standard error.
tu::Result transmit(const fs::path& dir, const std::vector<std::string>& args, int status = 0,
                    const std::string& limit = "") {
    std::vector<std::string> full{"-k", "5", "60"};
    if (!limit.empty()) full.insert(full.end(), {"sh", "-c", "ulimit -f " + limit + " && exec \"$0\" \"$@\""});
    full.push_back(TERVANE_EXE);
    full.insert(full.end(), args.begin(), args.end());
    const tu::Result r = tu::run(dir, "timeout", full);
    EXPECT_EQ(r.status, status) << r.out;
    EXPECT_EQ(tu::read_text(dir / "err.txt"), "");
    return r;
}

void expect_parts(const std::string& out, std::initializer_list<std::string> parts) {
    for (const std::string& part : parts) EXPECT_TRUE(contains(out, part)) << "missing: " << part << "\nin:\n" << out;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) v.push_back(l);
    return v;
}

TEST(Cli, HelpAndVersionPrintExactlyAndOpenNothing) {
    TempDir dir;
    auto r = transmit(dir, {"-i", "missing.ts", "-o", "out", "-d", "ercvpbsmft", "-h", "-V", "-v", "0"});
    EXPECT_EQ(r.out, kBanner + kHelp);
    EXPECT_FALSE(fs::exists(dir / "out.bin") || fs::exists(dir / "out_ed.bin"));
    const std::string log = tu::read_text(dir / "test.log");
    EXPECT_TRUE(std::regex_search(
        log, std::regex("^Generated log information: test.log , [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d "
                        "\\d\\d:\\d\\d:\\d\\d \\d{4}\n\n")))
        << log;
    EXPECT_EQ(tu::log_body(log), kBanner + kHelp);  // no closing rule after an early end
    r = transmit(dir, {"-V", "-l", "v.log"});
    EXPECT_EQ(r.out, kBanner);
    EXPECT_EQ(tu::read_text(dir / "v.log").rfind("Generated log information: v.log , ", 0), 0u);
}

TEST(Cli, FatalErrorsInTheirOrder) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(10));
    fs::create_directory(dir / "sub");
    auto no_name = [](const std::string& which) {
        return "FATAL ERROR: no MPEG-2 TS " + which + "file name given.\nTry -h for command line parameters help.\n";
    };
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"-o", "out", "-d", "et", "-v", "0"}, no_name("")},
        {{"-i", "nothere.ts", "-o", "out", "-d", "et"}, "FATAL ERROR: Can't find \"nothere.ts\"\n"},
        {{"-i", "sub", "-o", "out", "-d", "et"}, "FATAL ERROR: Can't find \"sub\"\n"},
        {{"-a", "1", "-i", "a.ts"}, no_name("HP ")},
        {{"-a", "1", "-ihp", "x.ts"}, no_name("LP ")},
        {{"-a", "1", "-ihp", "x.ts", "-ilp", "y.ts"}, "FATAL ERROR: Can't find \"x.ts\"\n"},
        {{"-a", "1", "-ihp", "a.ts", "-ilp", "y.ts"}, "FATAL ERROR: Can't find \"y.ts\"\n"},
    };
    for (const auto& [args, message] : cases) {
        const auto r = transmit(dir, args, 1);
        EXPECT_TRUE(r.out.ends_with(message)) << r.out;
        EXPECT_FALSE(fs::exists(dir / "out.bin") || fs::exists(dir / "out_ed.bin"));
    }
    EXPECT_EQ(transmit(dir, {"-v", "0"}, 1).out, no_name(""));  // level 0 shows at -v 0
}

TEST(Cli, ReportFiguresAndAdjustments) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(250));
    auto r = transmit(dir, {"-i", "a.ts", "-o", "out.dat", "-d", "e"});
    expect_parts(
        r.out, {"\tMPEG-2 TS file name    : a.ts\n\tOutput file basename   : out.dat\n\tMode                   : 2k\n"
                "\tConstellation order    : 4QAM\n\tUniformity order       : NH\n\tPrefix duration        : 1/32\n"
                "\tPuncturing rate        : 1/2\n\tIn-depth interleaving  : no\n\tChannel spacing        : 8 MHz\n"
                "\tCell identifier        : not set\n\tConv. Interleaver init.: rand\n\tFrequency mapping      : 0 IF\n"
                "\tInterpolation rate     : 1x\n\tGain factor            : 4.2000\n",
                "\tOutput sampling rate   : 9.142857 Msps\n\tOutput sample time     : 109.375 ns\n"
                "\tUseful symbol time     : 224.000 micros\n\tGuard interval time    : 7.000 micros\n"
                "\tTotal symbol time      : 231.000 micros\n\tUseful throughput      : 6.032085 Mbps\n"
                "\tCarrier spacing        : 4.464 kHz\n\tNominal bandwidth      : 7.611607 MHz\n",
                "\tMPEG-2 packets per time: 100\n\tTotal RAM (approx.)    : 6.282 MB\n",
                "Checking MPEG-2 TS file length ... 47000 bytes\n", "Energy disperder dumping selected: out_ed.bin\n"});

    // Hierarchical QPSK runs as 16-QAM (buffers stay sized for 2 bits);
    // HP 2 bits per cell, LP the other 2; the end report adds them.
    r = transmit(dir, {"-a",   "2",  "-ihp", "a.ts", "-ilp", "a.ts", "-php", "1/2", "-plp", "3/4", "-cid", "255",
                       "-idi", "-b", "7",    "-f",   "INV",  "-I",   "2x",   "-c",  "0",    "-g",  "0.5"});
    expect_parts(
        r.out, {"\tMPEG-2 TS file name, HP: a.ts\n\tMPEG-2 TS file name, LP: a.ts\n\tOutput file basename   : NONE\n",
                "\tConstellation order    : 16QAM\n\tUniformity order       : 2\n",
                "\tPuncturing rate, HP    : 1/2\n\tPuncturing rate, LP    : 3/4\n\tIn-depth interleaving  : yes\n"
                "\tChannel spacing        : 7 MHz\n\tCell identifier        : 0x00ff\n\tConv. Interleaver init.: 0\n"
                "\tFrequency mapping      : INV IF\n\tInterpolation rate     : 2x\n\tGain factor            : 0.5000\n",
                "\tOutput sampling rate   : 16.000000 Msps\n\tOutput sample time     : 125.000 ns\n",
                "\tUseful throughput, HP  : 5.278075 Mbps\n\tUseful throughput, LP  : 7.917112 Mbps\n",
                "\tCarrier spacing        : 3.906 kHz\n", "\tTotal RAM (approx.)    : 6.282 MB\n",
                "Checking MPEG-2 TS files length ... 47000 bytes (HP) + 47000 bytes (LP)\n"});
    r = transmit(dir,
                 {"-i", "a.ts", "-m", "8k", "-idi", "-cid", "0", "-M", "64", "-D", "1/4", "-p", "7/8", "-s", "19"});
    expect_parts(r.out, {"\tIn-depth interleaving  : no\n", "\tCell identifier        : 0x0000\n",
                         "\tUseful throughput      : 26.126470 Mbps\n", "\tCarrier spacing        : 1.116 kHz\n"});
}

// Each kind of line appears exactly from its level on: 0 warnings, 1 the end
// report, 2 the parameter report, dump selections, progress and the speed
// comparison, 3 the input size, 4 one count line per stage call.
TEST(Cli, EveryMessageAtItsLevel) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(60));
    auto level_of = [](const std::string& l) {
        if (l.rfind("WARNING", 0) == 0 && l.rfind("WARNING: no DAC", 0) != 0) return 0;
        if (l.rfind("Theoretical global rate", 0) == 0 || l.rfind("Elapsed time", 0) == 0) return 1;
        if (l.rfind("Checking MPEG-2", 0) == 0) return 3;
        if (l.ends_with(" samples")) return 4;
        return 2;
    };
    // Both sides of every choice: NH and hierarchical, cell identifier set or
    // not, output name given or not.
    for (std::vector<std::string> args :
         {std::vector<std::string>{"-i", "a.ts", "-o", "nodir/x", "-d", "et", "-I", "2x", "-cid", "5"},
          {"-a", "1", "-ihp", "a.ts", "-ilp", "a.ts", "-o", "nodir/y", "-d", "erp"},
          {"-i", "a.ts", "-d", "t"}}) {
        args.emplace_back("-v");
        std::map<int, size_t> all;
        args.emplace_back("4");
        for (const std::string& l : lines(transmit(dir, args).out)) ++all[level_of(l)];
        ASSERT_EQ(all[1], 2u);
        ASSERT_GT(all[2], 30u);
        ASSERT_GT(all[4], 12u);
        for (int v = 0; v <= 3; ++v) {
            std::map<int, size_t> seen;
            args.back() = std::to_string(v);
            for (const std::string& l : lines(transmit(dir, args).out)) ++seen[level_of(l)];
            for (int level = 0; level <= 4; ++level)
                EXPECT_EQ(seen[level], level <= v ? all[level] : 0u) << args[0] << " -v " << v << ", level " << level;
        }
    }
    // The count lines name every stage, in chain order in each pass.
    const std::string out = transmit(dir, {"-i", "a.ts", "-v", "4", "-I", "2x"}).out;
    const std::string pass =
        "MPEG-2_read : 11280 samples\nEnergy+Inv. : 11280 samples\nOuter_coder : 11280 samples\n"
        "Outer_int   : 12240 samples\nInner_coder1: 12240 samples\nInner_coder2: 195840 samples\n"
        "Inner_int_b : 195804 samples\nInner_int_s : 96768 samples\nMapping     : 96768 samples\n"
        "Framing     : 96768 samples\nOFDM        : 109120 samples\nTransmission: 81600 samples\n"
        "Time dump   : 163200 samples\n";
    EXPECT_TRUE(contains(out, pass)) << out;
}

// The end report (the log mirrors it, see the failed writes): the theoretical
// rate, from its formula (NH and hierarchical); elapsed time times the measured rate
// is the payload that the written symbols carry; the comparison is their
// ratio; the last progress line names the last symbol and the share of input.
TEST(Cli, EndReportAndProgress) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(2000));
    struct Run {
        std::vector<std::string> args;
        double symbol_samples, bits_per_symbol, rate_kbps;
    };
    const double fs = 64e6 / 7, rs = 188.0 / 204;
    for (const Run& run : {Run{{"-i", "a.ts", "-p", "2/3"},
                               2112,
                               1512 * 2 * 2 / 3.0,
                               fs / (1 + 1 / 32.) * 1512 / 2048 * 2 * 2 / 3 * rs / 1000},
                           Run{{"-a",   "2",   "-M",   "64",  "-m", "8k",  "-ihp", "a.ts", "-ilp", "a.ts",
                                "-php", "1/2", "-plp", "3/4", "-D", "1/8", "-I",   "4x",   "-s",   "19"},
                               4 * 9216,
                               6048 * (2 * 0.5 + 4 * 0.75),
                               fs / 1.125 * 6048 / 8192 * (2 * 0.5 + 4 * 0.75) * rs / 1000}}) {
        std::vector<std::string> args = run.args;
        args.insert(args.end(), {"-o", "o", "-d", "t", "-v", "2"});
        const std::string out = transmit(dir, args).out;
        double theory = 0, t = 0, x = 0, ratio = 0, percent = 0;
        int s = 0, f = 0, sf = 0;
        const size_t at = out.find("Theoretical global rate = "), last = out.rfind("% done (S");
        ASSERT_TRUE(at != std::string::npos && last != std::string::npos) << out;
        ASSERT_EQ(std::sscanf(out.c_str() + at,
                              "Theoretical global rate = %lf kbps\nElapsed time = %lf s. Approx. %lf kbps.\n", &theory,
                              &t, &x),
                  3);
        ASSERT_EQ(
            std::sscanf(out.c_str() + out.rfind('\n', last) + 1, "%lf%% done (S%d,F%d,SF%d)", &percent, &s, &f, &sf),
            4);
        const double symbols = static_cast<double>(fs::file_size(dir / "o.bin")) / 8 / run.symbol_samples;
        const double payload_bits = symbols * run.bits_per_symbol * rs;
        EXPECT_NEAR(theory, run.rate_kbps, 0.002);
        EXPECT_NEAR(s + 68 * f + 272 * sf, symbols, 1.0);
        EXPECT_NEAR(percent, payload_bits / 8 * 100 / (2000 * 188.0 * (args[0] == "-a" ? 2 : 1)), 0.05);
        ASSERT_GT(t, 0.0);
        EXPECT_NEAR(x * t / (payload_bits / 1000), 1.0, 0.01);
        ASSERT_EQ(std::sscanf(out.c_str() + out.find("This is "), "This is %lf times", &ratio), 1);
        EXPECT_TRUE(
            contains(out, x > theory ? " times faster than real-time ;=)\n" : " times slower than real-time :=(\n"));
        EXPECT_NEAR(ratio, x > theory ? x / theory : theory / x, 0.051 * ratio);
    }
}

// Values as the parser takes them: decimal integers clamped to 32 bits, the
// first occurrence of a number or a name, the last valid one of a list, a value
// that looks like an option, an option without a value at the end; then the
// batch size clamped, the verbosity kept modulo 65536, odd values shown as they are.
TEST(Cli, OptionValues) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(10));
    for (auto [value, shown] : std::vector<std::pair<const char*, const char*>>{
             {"0", "5"}, {"0x10", "5"}, {"-7", "5"}, {"abc", "5"}, {"1001", "1000"}})
        EXPECT_TRUE(
            contains(transmit(dir, {"-i", "a.ts", "-s", value}).out, std::string("packets per time: ") + shown + "\n"))
            << value;
    EXPECT_TRUE(contains(transmit(dir, {"-i", "a.ts", "-v", "-1"}).out, "MPEG-2_read : 1880 samples\n"));
    EXPECT_EQ(transmit(dir, {"-i", "a.ts", "-v", "65536"}).out, "");
    EXPECT_EQ(transmit(dir, {"-i", "a.ts", "-v", "-2147483649"}).out, "");  // -2^31, 0 modulo 65536
    expect_parts(
        transmit(dir, {"-o", "-i", "a.ts", "-g", "nan", "-g", "2",  "-cid", "99999999999", "-s",  "20", "-s",   "30",
                       "-m", "8k", "-m",   "4k", "-m",  "3k", "-D", "1/4",  "-D",          "1/5", "-i", "b.ts", "-c"})
            .out,
        {"\tMPEG-2 TS file name    : a.ts\n\tOutput file basename   : -i\n\tMode                   : 4k\n",
         "\tPrefix duration        : 1/4\n", "\tConv. Interleaver init.: rand\n", "Gain factor            : nan\n",
         "Cell identifier        : 0x7fffffff\n", "packets per time: 20\n"});
    const std::string name(200, 'n');  // kept whole
    EXPECT_TRUE(contains(transmit(dir, {"-i", name + ".ts"}, 1).out, "FATAL ERROR: Can't find \"" + name + ".ts\"\n"));
}

TEST(Cli, FileNamesWarningsAndRefusals) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(40));
    auto r = transmit(dir, {"-i", "a.ts", "-o", "a.b.c", "-d", "rcEq"});
    EXPECT_TRUE(contains(
        r.out,
        "Reed-Solomon encoder dumping selected: a_rs.bin\nConvolutional interleaver dumping selected: a_ci.bin\n"));
    EXPECT_FALSE(contains(r.out, "Energy disperder"));
    r = transmit(dir, {"-a", "4", "-ihp", "a.ts", "-ilp", "a.ts", "-o", "h", "-d", "erpvbsmfc"});
    expect_parts(
        r.out,
        {"Energy disperder HP dumping selected: h_edhp.bin\nEnergy disperder LP dumping selected: h_edlp.bin\n"
         "Reed-Solomon HP encoder dumping selected: h_rshp.bin\nReed-Solomon LP encoder dumping selected: h_rslp.bin\n"
         "Convolutional HP interleaver dumping selected: h_cihp.bin\nConvolutional LP interleaver dumping selected: "
         "h_cilp.bin\n"
         "Convolutional HP encoder dumping selected: h_vehp.bin\nConvolutional LP encoder dumping selected: "
         "h_velp.bin\n"
         "HP Puncturer dumping selected: h_puhp.bin\nLP Puncturer dumping selected: h_pulp.bin\n"
         "Bit interleaver dumping selected: h_bi.bin\nSymbol interleaver stream dumping selected\n"
         "Mapper stream dumping selected\nfrequency domain dumping selected: h_fd.bin\n"});
    EXPECT_TRUE(contains(transmit(dir, {"-i", "a.ts", "-d", "t"}).out,
                         "WARNING: no DAC stream file name given -> using tervane.bin\n"));
    EXPECT_TRUE(fs::exists(dir / "tervane.bin"));
    EXPECT_TRUE(contains(transmit(dir, {"-i", "a.ts", "-o", "out", "-d", "t", "-F", "agiold"}).out,
                         "Time domain dumping selected - Old Agilent format: _I & _Q\n"));
    EXPECT_TRUE(contains(transmit(dir, {"-i", "a.ts", "-o", "g", "-d", "t", "-F", "agi"}).out,
                         "Time domain dumping selected - Agilent format: g_agi.bin\n"));
    // Not creatable, too long for the name buffer (126 characters), or one of the inputs: skipped.
    r = transmit(dir, {"-i", "a.ts", "-o", "missing/out", "-d", "et"});
    expect_parts(r.out, {"WARNING: Can't open \"missing/out_ed.bin\" -> skipping ...\n",
                         "WARNING: Can't open \"missing/out.bin\" -> skipping ...\n"});
    const std::string stem(122, 's');
    r = transmit(dir, {"-i", "a.ts", "-o", stem + ".ext", "-d", "te"});
    EXPECT_TRUE(fs::exists(dir / (stem + ".bin")));
    EXPECT_TRUE(contains(r.out, "WARNING: file name too long (129 characters, at most 126)")) << r.out;
    const auto ts = tu::read_file(dir / "a.ts");
    tu::write_file(dir / "x.bin", ts);
    r = transmit(dir, {"-i", "x.bin", "-o", "x", "-d", "te"});
    EXPECT_TRUE(contains(r.out, "WARNING: \"x.bin\" is an input file and would be overwritten -> skipping ...\n"));
    EXPECT_EQ(tu::read_file(dir / "x.bin"), ts);
    EXPECT_EQ(fs::file_size(dir / "x_ed.bin"), ts.size());
    // A batch too small for one OFDM symbol is said, and no sample comes out.
    r = transmit(dir, {"-i", "a.ts", "-o", "o", "-d", "t", "-m", "8k", "-M", "64", "-D", "1/4", "-s", "18"});
    EXPECT_TRUE(contains(r.out,
                         "WARNING: -s 18 is too small for this mode: no OFDM symbol fits the buffers, so no "
                         "samples will be produced (use -s 19 or more)\n"));
    EXPECT_EQ(fs::file_size(dir / "o.bin"), 0u);
}

// The stem ends at the first "." of the name's last component: the output and
// every dump land in the folder named, and nowhere else.
TEST(Cli, OutputsLandWhereTheNamePoints) {
    TempDir dir;
    for (const char* sub : {"w/a.b", "x"}) fs::create_directories(dir / sub);
    tu::write_file(dir / "a.ts", tu::make_ts(40));
    for (const auto& [name, folder] :
         {std::pair{"./out", "w"}, {"../x/out.dat", "x"}, {"a.b/out", "w/a.b"}, {"out.dat", "w"}}) {
        transmit(dir / "w", {"-i", "../a.ts", "-o", name, "-d", "ercvpbsmft", "-v", "0"});
        std::set<std::string> made, expected;
        for (const char* suffix : {"", "_ed", "_rs", "_ci", "_ve", "_pu", "_bi", "_si", "_ma", "_fd"})
            expected.insert(std::string(folder) + "/out" + suffix + ".bin");
        for (const auto& e : fs::recursive_directory_iterator(dir.path))
            if (e.path().string().ends_with(".bin")) made.insert(fs::relative(e.path(), dir.path).string());
        EXPECT_EQ(made, expected) << name;
        for (const std::string& f : made) fs::remove(dir / f);
    }
}

// A failed write is told once per file with what the file holds and the
// system's reason; the run goes on to its end report and exits with 2, and the
// other files are whole. The log's own failure is told on the screen only.
TEST(Cli, FailedWritesAreToldAndEndWithStatus2) {
    TempDir dir;
    tu::write_file(dir / "a.ts", tu::make_ts(200));
    tu::write_file(dir / "small.ts", tu::make_ts(10));
    for (const char* name : {"o.bin", "d_ed.bin", "c_ed.bin", "f_Q.bin", "full.log"})
        fs::create_symlink("/dev/full", dir / name);
    const std::string full = "No space left on device";
    auto warned = [](const std::string& out, const std::string& warning) {
        EXPECT_TRUE(contains(out, warning + "\n")) << out;
        EXPECT_EQ(out.find("WARNING: writing"), out.rfind("WARNING: writing")) << out;
    };
    transmit(dir, {"-i", "a.ts", "-o", "ref", "-d", "et"});
    auto r = transmit(dir, {"-i", "a.ts", "-o", "o", "-d", "et"}, 2);
    warned(r.out, "WARNING: writing \"o.bin\" failed after 0 samples: " + full);
    EXPECT_TRUE(contains(r.out, "Theoretical global rate = "));
    EXPECT_EQ(tu::log_body(tu::read_text(dir / "test.log")), r.out + std::string(48, '_') + "\n\n");
    EXPECT_EQ(tu::read_file(dir / "o_ed.bin"), tu::read_file(dir / "ref_ed.bin"));
    warned(transmit(dir, {"-i", "a.ts", "-o", "d", "-d", "et"}, 2).out,
           "WARNING: writing \"d_ed.bin\" failed after 0 bytes: " + full);
    EXPECT_EQ(tu::read_file(dir / "d.bin"), tu::read_file(dir / "ref.bin"));
    // A dump that fits the stream's buffer fails when it is flushed at the end.
    warned(transmit(dir, {"-i", "small.ts", "-o", "c", "-d", "e", "-s", "5"}, 2).out,
           "WARNING: writing \"c_ed.bin\" failed after 0 bytes: " + full);
    // Q on a full device: I, written first, is cut to as many codes, none.
    warned(transmit(dir, {"-i", "a.ts", "-o", "f", "-d", "t", "-F", "agiold"}, 2).out,
           "WARNING: writing \"f_Q.bin\" failed after 0 samples: " + full + "; \"f_I.bin\" kept at the same 0 samples");
    EXPECT_EQ(fs::file_size(dir / "f_I.bin"), 0u);
    r = transmit(dir, {"-i", "a.ts", "-o", "g", "-d", "t", "-l", "full.log"});
    EXPECT_TRUE(r.out.ends_with("real-time ;=)\nWARNING: writing \"full.log\" failed after 0 bytes: " + full + "\n"))
        << r.out;
    EXPECT_EQ(tu::read_file(dir / "g.bin"), tu::read_file(dir / "ref.bin"));

    // Under a file-size limit each format stops part-way: the files hold the
    // counted whole samples, the start of the complete output (I and Q alike).
    const std::regex limited(
        "WARNING: writing \"l(\\w*)\\.bin\" failed after (\\d+) samples: File too large"
        "(?:; \"l_Q\\.bin\" kept at the same (\\d+) samples)?\n");
    for (const auto& [format, suffixes, bytes] :
         {std::tuple{"std", std::vector<std::string>{""}, 8u}, {"agi", {"_agi"}, 4u}, {"agiold", {"_I", "_Q"}, 2u}}) {
        transmit(dir, {"-i", "a.ts", "-o", "whole", "-d", "t", "-F", format});
        r = transmit(dir, {"-i", "a.ts", "-o", "l", "-d", "t", "-F", format}, 2, "64");
        std::smatch m;
        ASSERT_TRUE(std::regex_search(r.out, m, limited)) << r.out;
        warned(r.out, m.str(0).substr(0, m.length(0) - 1));
        EXPECT_EQ(m.str(1), suffixes[0]);
        EXPECT_EQ(m.str(3), suffixes.size() == 2 ? m.str(2) : "");
        for (const std::string& suffix : suffixes) {
            const tu::Bytes part = tu::read_file(dir / ("l" + suffix + ".bin"));
            const tu::Bytes whole = tu::read_file(dir / ("whole" + suffix + ".bin"));
            EXPECT_EQ(part.size(), std::stoull(m.str(2)) * bytes) << format;
            ASSERT_TRUE(!part.empty() && part.size() < whole.size()) << format;
            EXPECT_TRUE(std::equal(part.begin(), part.end(), whole.begin())) << format << suffix;
        }
    }
}

// Degenerate and malformed streams end normally with whole symbols of finite samples.
TEST(Cli, HostileStreams) {
    TempDir dir;
    auto symbols = [&](const std::string& name) {  // whole 2k symbols of finite samples
        const auto b = tu::read_file(dir / name);
        std::vector<float> f(b.size() / 4);
        if (!f.empty()) std::memcpy(f.data(), b.data(), 4 * f.size());
        EXPECT_TRUE(b.size() % (2112 * 8) == 0 &&
                    std::all_of(f.begin(), f.end(), [](float x) { return std::isfinite(x); }))
            << name;
        return b.size() / (2112 * 8);
    };
    tu::write_file(dir / "empty.ts", {});
    EXPECT_FALSE(contains(transmit(dir, {"-i", "empty.ts", "-o", "e", "-d", "et"}).out, "% done"));
    EXPECT_EQ(symbols("e.bin"), 0u);
    // Starting inside a packet and ending with part of one: coded by position alone.
    auto in = tu::make_ts(60, 7);
    in.erase(in.begin(), in.begin() + 5);
    tu::write_file(dir / "unsync.ts", in);
    transmit(dir, {"-i", "unsync.ts", "-o", "u", "-d", "et"});
    EXPECT_EQ(tu::read_file(dir / "u_ed.bin")[0], static_cast<unsigned char>(~in[0]));
    EXPECT_GT(symbols("u.bin"), 40u);
    // Streams of very different lengths: the shorter one bounds the output.
    tu::write_file(dir / "short.ts", tu::make_ts(10, 1));
    tu::write_file(dir / "long.ts", tu::make_ts(2000, 2));
    for (const auto& [hp, lp] : {std::pair{"short.ts", "long.ts"}, std::pair{"long.ts", "short.ts"}}) {
        transmit(dir, {"-a", "2", "-M", "16", "-ihp", hp, "-ilp", lp, "-o", "h", "-d", "t"});
        EXPECT_EQ(symbols("h.bin"), 10u) << hp;
    }
}

}  // namespace
