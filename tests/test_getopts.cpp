// Option parser: defaults, which occurrence wins per kind, values that look like
// options, integer conversion limits, string blocks and the usage table layout.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/getopts.hpp"

namespace {

const char* const modes[] = {"2k", "4k", "8k"};

// One set of targets filled from a command line (program name added in front).
struct Parsed {
    int32_t size = -1, verb = -1, idi = -1;
    uint32_t mode = 99;
    float gain = -1.0f;
    char *in = nullptr, *out = nullptr, *log = nullptr;

    explicit Parsed(std::vector<const char*> args) {
        args.insert(args.begin(), "tervane");
        const dvbOption opts[] = {
            {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &size},
            {.name = "-v", .kind = dvbInt, .idefault = 3, .target = &verb},
            {.name = "-idi", .kind = dvbBool, .idefault = 0, .target = &idi},
            {.name = "-m", .kind = dvbList, .nnames = 3, .names = modes, .idefault = 1, .target = &mode},
            {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &gain},
            {.name = "-i", .kind = dvbString, .sdefault = "", .target = &in},
            {.name = "-o", .kind = dvbString, .sdefault = "out", .target = &out},
            {.name = "-l", .kind = dvbString, .sdefault = "out", .target = &log},
        };
        EXPECT_EQ(dvbGetCommArgs(static_cast<int>(args.size()), args.data(), 8, opts), 0u);
    }
    ~Parsed() {
        std::free(in);
        std::free(out);
        std::free(log);
    }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;
};

}  // namespace

TEST(OptsParser, NoArgumentsGiveDefaultsAndOwnStringBlocks) {
    Parsed p({});
    EXPECT_EQ(p.size, 100);
    EXPECT_EQ(p.verb, 3);
    EXPECT_EQ(p.idi, 0);
    EXPECT_EQ(p.mode, 1u);
    EXPECT_EQ(p.gain, 4.2f);
    ASSERT_NE(p.in, nullptr);
    ASSERT_NE(p.out, nullptr);
    ASSERT_NE(p.log, nullptr);
    EXPECT_STREQ(p.in, "");
    EXPECT_STREQ(p.out, "out");
    EXPECT_STREQ(p.log, "out");
    EXPECT_NE(p.out, p.log);
    // Each block takes a value of 119 characters without touching the other.
    std::memset(p.out, 'x', 119);
    p.out[119] = '\0';
    EXPECT_STREQ(p.log, "out");
}

TEST(OptsParser, FirstOccurrenceWinsExceptForLists) {
    Parsed p({"-s", "20", "-g", "1.5", "-i", "a.ts", "-s", "30", "-g", "2.5", "-i", "b.ts"});
    EXPECT_EQ(p.size, 20);
    EXPECT_EQ(p.gain, 1.5f);
    EXPECT_STREQ(p.in, "a.ts");

    Parsed last({"-m", "8k", "-m", "2k"});
    EXPECT_EQ(last.mode, 0u);
    Parsed invalid({"-m", "8k", "-m", "3k"});
    EXPECT_EQ(invalid.mode, 2u);
    Parsed only_invalid({"-m", "16k"});
    EXPECT_EQ(only_invalid.mode, 1u);
    // The scan goes on after a list value, so "-m" as a value is not an occurrence.
    Parsed value_skipped({"-m", "-m", "2k"});
    EXPECT_EQ(value_skipped.mode, 1u);
}

TEST(OptsParser, OptionAsLastArgumentKeepsDefault) {
    for (const char* name : {"-s", "-m", "-g", "-o"}) {
        Parsed p({"-idi", name});
        EXPECT_EQ(p.size, 100) << name;
        EXPECT_EQ(p.mode, 1u) << name;
        EXPECT_EQ(p.gain, 4.2f) << name;
        EXPECT_STREQ(p.out, "out") << name;
        EXPECT_EQ(p.idi, 1) << name;
    }
    Parsed later({"-s", "7", "-s"});
    EXPECT_EQ(later.size, 7);
}

TEST(OptsParser, ValueMayLookLikeAnOption) {
    Parsed p({"-o", "-i", "stream.ts", "-x", "-s", "-5"});
    EXPECT_STREQ(p.out, "-i");
    EXPECT_STREQ(p.in, "stream.ts");
    EXPECT_EQ(p.size, -5);
}

TEST(OptsParser, NumberConversion) {
    EXPECT_EQ(Parsed({"-v", "0x10"}).verb, 0);
    EXPECT_EQ(Parsed({"-v", "  +12abc"}).verb, 12);
    EXPECT_EQ(Parsed({"-v", "abc"}).verb, 0);
    EXPECT_EQ(Parsed({"-s", "2147483647"}).size, INT32_MAX);
    EXPECT_EQ(Parsed({"-s", "2147483648"}).size, INT32_MAX);
    EXPECT_EQ(Parsed({"-s", "99999999999999999999999"}).size, INT32_MAX);
    EXPECT_EQ(Parsed({"-s", "-2147483649"}).size, INT32_MIN);
    EXPECT_EQ(Parsed({"-g", "2.5e-1"}).gain, 0.25f);
    EXPECT_EQ(Parsed({"-g", "gain"}).gain, 0.0f);
    EXPECT_EQ(Parsed({"-g", "0.1"}).gain, 0.1f);
}

TEST(OptsParser, FlagTwiceIsOne) {
    Parsed p({"-idi", "-idi"});
    EXPECT_EQ(p.idi, 1);
    EXPECT_EQ(Parsed({"-IDI", "-id"}).idi, 0);
}

TEST(OptsParser, LongStringValueKeptWhole) {
    const std::string longname = "/tmp/" + std::string(200, 'n') + ".ts";
    Parsed p({"-i", longname.c_str(), "-o", std::string(119, 'o').c_str()});
    EXPECT_EQ(std::string(p.in), longname);
    EXPECT_EQ(std::string(p.out), std::string(119, 'o'));
}

TEST(OptsParser, UsageTableLayout) {
    const dvbOption opts[] = {
        {.name = "-V", .kind = dvbBool, .idefault = 1, .description = "Version"},
        {.name = "-s", .kind = dvbInt, .idefault = -100, .description = "Size"},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .description = "Gain"},
        {.name = "-o", .kind = dvbString, .sdefault = "out", .description = "Output"},
        {.name = "-m", .kind = dvbList, .nnames = 3, .names = modes, .idefault = 2, .description = "Mode"},
        {.name = "-idi", .kind = dvbBool, .idefault = 0, .description = "Depth"},
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvbPrintCommArgs(6, opts), 0u);
    const std::string got = testing::internal::GetCapturedStdout();
    EXPECT_EQ(got,
              "Command line options\n====================\n"
              "\n-V\tVersion\n\t(dvbBool, default: [TRUE])\n"
              "\n-s\tSize\n\t(dvbInt, default: [-100])\n"
              "\n-g\tGain\n\t(dvbReal, default: [4.200000])\n"
              "\n-o\tOutput\n\t(dvbString, default: [out])\n"
              "\n-m\tMode\n\tdvbList, { 2k | 4k | [8k] |\b}\n"
              "\n-idi\tDepth\n\t(dvbBool, default: [FALSE])\n"
              "\n");
}
