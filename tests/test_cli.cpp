// End-to-end tests of the executable's frame: help, version, fatal input errors,
// the parameter report, the log, option quirks and the energy-dispersal dump.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "cli_util.hpp"

namespace {

using cli::TempDir;

const std::string kBanner =
    "\nDVB-T compliant software transmitter\n"
    "Tervane v. 2.1b Linux   - (2006/08/03)\n"
    "Written by the tervane developers\n"
    "https://tervane.example.org/\n"
    "Standard: ETSI EN 300 744 V1.5.1 (2004-11)\n";

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

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(CliHelp, HelpAndVersionPrintExactlyAndOpenNothing) {
    TempDir dir;
    // -h wins over everything else, even a missing input and requested dumps.
    auto r = cli::tervane(dir.path, {"-i", "missing.ts", "-o", "out", "-d", "ercvpbsmft", "-h", "-V"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kBanner + kHelp);
    EXPECT_FALSE(std::filesystem::exists(dir / "out.bin"));
    EXPECT_FALSE(std::filesystem::exists(dir / "out_ed.bin"));
    const std::string log = cli::read_text(dir / "test.log");
    EXPECT_EQ(log.rfind("Generated log information: test.log , ", 0), 0u);
    EXPECT_EQ(cli::log_body(log), kBanner + kHelp);  // no closing rule after an early end

    r = cli::tervane(dir.path, {"-V", "-l", "v.log"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kBanner);
    EXPECT_EQ(cli::read_text(dir / "v.log").rfind("Generated log information: v.log , ", 0), 0u);
}

TEST(CliInput, FatalErrorsInTheirOrder) {
    TempDir dir;
    cli::write_file(dir / "a.ts", cli::make_ts(10));
    const std::string no_name = "FATAL ERROR: no MPEG-2 TS file name given.\nTry -h for command line parameters help.\n";
    auto r = cli::tervane(dir.path, {"-o", "out", "-d", "e"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with(no_name)) << r.out;

    r = cli::tervane(dir.path, {"-i", "nothere.ts", "-o", "out", "-d", "et"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: Can't find \"nothere.ts\"\n")) << r.out;
    EXPECT_FALSE(std::filesystem::exists(dir / "out_ed.bin"));
    EXPECT_FALSE(std::filesystem::exists(dir / "out.bin"));

    // A directory is not a readable input.
    std::filesystem::create_directory(dir / "sub");
    r = cli::tervane(dir.path, {"-i", "sub"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: Can't find \"sub\"\n"));

    // Hierarchical: HP name, then LP name, then the HP file, then the LP file.
    r = cli::tervane(dir.path, {"-a", "1", "-i", "a.ts"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: no MPEG-2 TS HP file name given.\nTry -h for command line parameters help.\n"));
    r = cli::tervane(dir.path, {"-a", "1", "-ihp", "x.ts"});
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: no MPEG-2 TS LP file name given.\nTry -h for command line parameters help.\n"));
    r = cli::tervane(dir.path, {"-a", "1", "-ihp", "x.ts", "-ilp", "y.ts"});
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: Can't find \"x.ts\"\n"));
    r = cli::tervane(dir.path, {"-a", "1", "-ihp", "a.ts", "-ilp", "y.ts"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.ends_with("FATAL ERROR: Can't find \"y.ts\"\n"));

    // Level 0 messages show even at verbosity 0.
    r = cli::tervane(dir.path, {"-v", "0"});
    EXPECT_EQ(r.out, no_name);
}

TEST(CliReport, DefaultFiguresAndLogMirrorsScreen) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(250));
    auto r = cli::tervane(dir.path, {"-i", "in.ts", "-o", "out.dat", "-d", "e"});
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char* line : {
             "\tMPEG-2 TS file name    : in.ts\n", "\tOutput file basename   : out.dat\n",
             "\tMode                   : 2k\n", "\tConstellation order    : 4QAM\n",
             "\tPrefix duration        : 1/32\n", "\tCell identifier        : not set\n",
             "\tOutput sampling rate   : 9.142857 Msps\n", "\tOutput sample time     : 109.375 ns\n",
             "\tUseful symbol time     : 224.000 micros\n", "\tGuard interval time    : 7.000 micros\n",
             "\tTotal symbol time      : 231.000 micros\n", "\tUseful throughput      : 6.032085 Mbps\n",
             "\tCarrier spacing        : 4.464 kHz\n", "\tNominal bandwidth      : 7.611607 MHz\n",
             "\tMPEG-2 packets per time: 100\n", "\tTotal RAM (approx.)    : 6.282 MB\n",
             "Checking MPEG-2 TS file length ... 47000 bytes\n",
             "Energy disperder dumping selected: out_ed.bin\n", "Theoretical global rate = 6032.08"}) {
        EXPECT_TRUE(contains(r.out, line)) << "missing: " << line;
    }
    const std::string log = cli::read_text(dir / "test.log");
    const std::string rule = "________________________________________________\n\n";
    EXPECT_EQ(cli::log_body(log), r.out + rule);
}

TEST(CliReport, AdjustmentsHierarchyInDepthAndCellId) {
    TempDir dir;
    cli::write_file(dir / "a.ts", cli::make_ts(10));
    // Hierarchical QPSK runs as 16-QAM; HP gets 2 bits per cell, LP the other 2.
    auto r = cli::tervane(dir.path, {"-a", "2", "-ihp", "a.ts", "-ilp", "a.ts", "-php", "1/2", "-plp", "3/4",
                                     "-cid", "255", "-idi"});
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(contains(r.out, "\tConstellation order    : 16QAM\n"));
    EXPECT_TRUE(contains(r.out, "\tMPEG-2 TS file name, HP: a.ts\n\tMPEG-2 TS file name, LP: a.ts\n"));
    EXPECT_TRUE(contains(r.out, "\tPuncturing rate, HP    : 1/2\n\tPuncturing rate, LP    : 3/4\n"));
    EXPECT_TRUE(contains(r.out, "\tUseful throughput, HP  : 6.032085 Mbps\n"));
    EXPECT_TRUE(contains(r.out, "\tUseful throughput, LP  : 9.048128 Mbps\n"));
    EXPECT_TRUE(contains(r.out, "\tIn-depth interleaving  : yes\n"));
    EXPECT_TRUE(contains(r.out, "\tCell identifier        : 0x00ff\n"));
    EXPECT_TRUE(contains(r.out, "Checking MPEG-2 TS files length ... 1880 bytes (HP) + 1880 bytes (LP)\n"));
    // Buffers stay sized for the QPSK request: 2 bits per cell.
    EXPECT_TRUE(contains(r.out, "\tTotal RAM (approx.)    : 6.282 MB\n"));
    EXPECT_TRUE(contains(r.out, "Theoretical global rate = 15080.2"));

    r = cli::tervane(dir.path, {"-i", "a.ts", "-m", "8k", "-idi", "-cid", "0", "-M", "64", "-D", "1/4", "-p", "7/8"});
    ASSERT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "\tIn-depth interleaving  : no\n"));
    EXPECT_TRUE(contains(r.out, "\tCell identifier        : 0x0000\n"));
    EXPECT_TRUE(contains(r.out, "\tUseful throughput      : 26.126470 Mbps\n"));
    EXPECT_TRUE(contains(r.out, "\tCarrier spacing        : 1.116 kHz\n"));
}

TEST(CliOptions, ParserQuirksSeenFromOutside) {
    TempDir dir;
    cli::write_file(dir / "a.ts", cli::make_ts(10));
    // First occurrence of an integer wins; last valid occurrence of a list wins.
    auto r = cli::tervane(dir.path, {"-i", "a.ts", "-s", "20", "-s", "30", "-m", "8k", "-m", "2k", "-b", "9"});
    EXPECT_TRUE(contains(r.out, "packets per time: 20\n"));
    EXPECT_TRUE(contains(r.out, "Mode                   : 2k\n"));
    EXPECT_TRUE(contains(r.out, "Channel spacing        : 8 MHz\n"));
    r = cli::tervane(dir.path, {"-i", "a.ts", "-m", "8k", "-m", "16k"});
    EXPECT_TRUE(contains(r.out, "Mode                   : 8k\n"));
    // -s is clamped silently to 5..1000.
    for (auto [value, shown] : std::array<std::pair<const char*, const char*>, 4>{
             {{"0", "5"}, {"-7", "5"}, {"abc", "5"}, {"100000", "1000"}}}) {
        r = cli::tervane(dir.path, {"-i", "a.ts", "-s", value});
        EXPECT_TRUE(contains(r.out, std::string("packets per time: ") + shown + "\n")) << value;
    }
    // -v -1 shows every level, the per-stage counts included; -v 65536 is 0.
    r = cli::tervane(dir.path, {"-i", "a.ts", "-v", "-1"});
    EXPECT_TRUE(contains(r.out, "MPEG-2_read : 1880 samples\n"));
    EXPECT_TRUE(contains(r.out, "Energy+Inv. : 1880 samples\n"));
    EXPECT_TRUE(contains(r.out, "MPEG-2_read : 0 samples\n"));
    r = cli::tervane(dir.path, {"-i", "a.ts", "-v", "65536"});
    EXPECT_EQ(r.out, "");
    // -v 1 hides the report but keeps the end report.
    r = cli::tervane(dir.path, {"-i", "a.ts", "-v", "1"});
    EXPECT_FALSE(contains(r.out, "DVB-T Exciter parameters"));
    EXPECT_TRUE(contains(r.out, "Theoretical global rate"));
    // "-o" followed by "-i": -i finds its value, -o receives the text "-i".
    r = cli::tervane(dir.path, {"-o", "-i", "a.ts"});
    EXPECT_TRUE(contains(r.out, "\tOutput file basename   : -i\n"));
    EXPECT_TRUE(contains(r.out, "\tMPEG-2 TS file name    : a.ts\n"));
}

TEST(CliDumps, FileNamesAndMessages) {
    TempDir dir;
    cli::write_file(dir / "a.ts", cli::make_ts(10));
    auto r = cli::tervane(dir.path, {"-i", "a.ts", "-o", "a.b.c", "-d", "rcEq"});
    EXPECT_TRUE(contains(r.out, "Reed-Solomon encoder dumping selected: a_rs.bin\nConvolutional interleaver dumping selected: a_ci.bin\n"));
    EXPECT_FALSE(contains(r.out, "Energy disperder"));
    r = cli::tervane(dir.path, {"-a", "4", "-ihp", "a.ts", "-ilp", "a.ts", "-o", "h", "-d", "r"});
    EXPECT_TRUE(contains(r.out, "Reed-Solomon HP encoder dumping selected: h_rshp.bin\nReed-Solomon LP encoder dumping selected: h_rslp.bin\n"));
    EXPECT_TRUE(std::filesystem::exists(dir / "h_rshp.bin"));
    EXPECT_TRUE(std::filesystem::exists(dir / "h_rslp.bin"));
    r = cli::tervane(dir.path, {"-i", "a.ts", "-d", "t"});
    EXPECT_TRUE(contains(r.out, "WARNING: no DAC stream file name given -> using tervane.bin\n"));
    r = cli::tervane(dir.path, {"-i", "a.ts", "-o", "out", "-d", "t", "-F", "agiold"});
    EXPECT_TRUE(contains(r.out, "Time domain dumping selected - Old Agilent format: _I & _Q\n"));
    EXPECT_TRUE(std::filesystem::exists(dir / "out_I.bin"));
    EXPECT_TRUE(std::filesystem::exists(dir / "out_Q.bin"));
    // A dump in a missing directory is skipped with a warning; the run goes on.
    r = cli::tervane(dir.path, {"-i", "a.ts", "-o", "nodir/x", "-d", "e"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"nodir/x_ed.bin\" -> skipping ...\n"));
    // A name longer than the name buffer is refused, not cut.
    const std::string longstem(130, 'L');
    r = cli::tervane(dir.path, {"-i", "a.ts", "-o", longstem, "-d", "e"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "WARNING: file name too long"));
}

// Energy dispersal sequence computed bit by bit: 1 + x^14 + x^15, register
// loaded with 100101010000000 (stages 1..15).
std::vector<unsigned char> dispersal_bytes() {
    std::array<int, 15> reg{1, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0};
    std::vector<unsigned char> bytes(1504, 0);
    for (int i = 0; i < 12032; ++i) {
        const int fb = reg[13] ^ reg[14];
        for (int k = 14; k > 0; --k) reg[k] = reg[k - 1];
        reg[0] = fb;
        bytes[i / 8] = static_cast<unsigned char>(bytes[i / 8] | (fb << (7 - i % 8)));
    }
    return bytes;
}

TEST(CliEnergy, DumpIsTheDispersedStreamForAnyBatchSize) {
    TempDir dir;
    const auto ts = cli::make_ts(83, 7);  // not a multiple of 8 packets nor of any batch
    cli::write_file(dir / "in.ts", ts);
    const auto seq = dispersal_bytes();
    ASSERT_EQ(seq[0], 0x03);
    ASSERT_EQ(seq[1], 0xF6);

    auto r = cli::tervane(dir.path, {"-i", "in.ts", "-o", "s100", "-d", "e"});
    ASSERT_EQ(r.status, 0);
    const auto dump = cli::read_file(dir / "s100_ed.bin");
    ASSERT_EQ(dump.size(), ts.size());
    for (size_t i = 0; i < ts.size(); ++i) {
        const size_t p = i % 1504;
        unsigned char expect;
        if (p == 0) expect = static_cast<unsigned char>(~ts[i]);
        else if (p % 188 == 0) expect = ts[i];
        else expect = ts[i] ^ seq[p - 1];
        ASSERT_EQ(dump[i], expect) << "byte " << i;
    }
    EXPECT_EQ(dump[0], 0xB8);
    for (const char* s : {"5", "7", "13"}) {
        const std::string stem = std::string("s") + s;
        r = cli::tervane(dir.path, {"-i", "in.ts", "-o", stem, "-d", "e", "-s", s});
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(cli::read_file(dir / (stem + "_ed.bin")), dump) << "-s " << s;
    }
}

}  // namespace

namespace {

TEST(CliBatch, TooSmallForOneSymbolIsSaidAndWritesNothing) {
    TempDir dir;
    cli::write_file(dir / "a.ts", cli::make_ts(400));
    // 8k, 64-QAM, guard 1/4: a symbol is 10240 samples; 544 per packet of batch.
    auto r = cli::tervane(dir.path, {"-i", "a.ts", "-o", "o", "-d", "t", "-m", "8k", "-M", "64", "-D", "1/4", "-s", "18"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "WARNING: -s 18 is too small for this mode"));
    EXPECT_TRUE(contains(r.out, "(use -s 19 or more)"));
    EXPECT_EQ(std::filesystem::file_size(dir / "o.bin"), 0u);
    r = cli::tervane(dir.path, {"-i", "a.ts", "-o", "o", "-d", "t", "-m", "8k", "-M", "64", "-D", "1/4", "-s", "19"});
    EXPECT_FALSE(contains(r.out, "WARNING"));
    EXPECT_GT(std::filesystem::file_size(dir / "o.bin"), 0u);
    EXPECT_EQ(std::filesystem::file_size(dir / "o.bin") % (10240 * 8), 0u);
}

}  // namespace

namespace {

TEST(CliDumps, AnOutputNamedLikeAnInputIsRefused) {
    TempDir dir;
    const auto ts = cli::make_ts(40);
    cli::write_file(dir / "x.bin", ts);
    const auto r = cli::tervane(dir.path, {"-i", "x.bin", "-o", "x", "-d", "te"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "WARNING: \"x.bin\" is an input file and would be overwritten -> skipping ...\n"));
    EXPECT_EQ(cli::read_file(dir / "x.bin"), ts);  // the input is intact
    EXPECT_EQ(std::filesystem::file_size(dir / "x_ed.bin"), ts.size());  // the other dumps still run
}

}  // namespace
