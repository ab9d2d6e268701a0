// Option parser: which occurrence wins per kind, values that look like options,
// integer conversion limits, string blocks and the usage table layout.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "frame/getopts.hpp"
#include "util.hpp"

namespace {

const char* const modes[] = {"2k", "4k", "8k"};

// One set of targets filled from a command line (program name added in front).
struct Parsed {
    int32_t size = -1;
    uint32_t mode = 99;
    float gain = -1.0f;
    char *in = nullptr, *out = nullptr;

    explicit Parsed(std::vector<const char*> args) {
        args.insert(args.begin(), "tervane");
        const dvbOption opts[] = {
            {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &size},
            {.name = "-m", .kind = dvbList, .nnames = 3, .names = modes, .idefault = 1, .target = &mode},
            {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &gain},
            {.name = "-i", .kind = dvbString, .sdefault = "", .target = &in},
            {.name = "-o", .kind = dvbString, .sdefault = "out", .target = &out},
        };
        EXPECT_EQ(dvbGetCommArgs(static_cast<int>(args.size()), args.data(), 5, opts), 0u);
    }
    ~Parsed() {
        std::free(in);
        std::free(out);
    }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;
};

}  // namespace

TEST(OptsParser, WhichOccurrenceWins) {
    Parsed p({"-s", "20", "-g", "1.5", "-i", "a.ts", "-s", "30", "-g", "2.5", "-i", "b.ts"});
    EXPECT_EQ(p.size, 20);
    EXPECT_EQ(p.gain, 1.5f);
    EXPECT_STREQ(p.in, "a.ts");
    EXPECT_EQ(Parsed({"-m", "8k", "-m", "2k"}).mode, 0u);
    EXPECT_EQ(Parsed({"-m", "8k", "-m", "3k"}).mode, 2u);
    // An option as the last argument keeps its default.
    Parsed trailing({"-o", "-i", "stream.ts", "-s"});
    EXPECT_EQ(trailing.size, 100);
    // A value may look like an option.
    EXPECT_STREQ(trailing.out, "-i");
    EXPECT_STREQ(trailing.in, "stream.ts");
}

TEST(OptsParser, ValuesConvertedAndKept) {
    EXPECT_EQ(Parsed({"-s", "0x10"}).size, 0);
    EXPECT_EQ(Parsed({"-s", "2147483648"}).size, INT32_MAX);
    EXPECT_EQ(Parsed({"-s", "-2147483649"}).size, INT32_MIN);
    const std::string longname = "/tmp/" + std::string(200, 'n') + ".ts";
    EXPECT_EQ(std::string(Parsed({"-i", longname.c_str()}).in), longname);
}

TEST(OptsParser, UsageTableLayout) {
    const dvbOption opts[] = {
        {.name = "-V", .kind = dvbBool, .idefault = 1, .description = "Version"},
        {.name = "-s", .kind = dvbInt, .idefault = -100, .description = "Size"},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .description = "Gain"},
        {.name = "-o", .kind = dvbString, .sdefault = "out", .description = "Output"},
        {.name = "-m", .kind = dvbList, .nnames = 3, .names = modes, .idefault = 2, .description = "Mode"},
    };
    unsigned rc = 99;
    EXPECT_EQ(tu::captured([&] { rc = dvbPrintCommArgs(5, opts); }),
              "Command line options\n====================\n"
              "\n-V\tVersion\n\t(dvbBool, default: [TRUE])\n"
              "\n-s\tSize\n\t(dvbInt, default: [-100])\n"
              "\n-g\tGain\n\t(dvbReal, default: [4.200000])\n"
              "\n-o\tOutput\n\t(dvbString, default: [out])\n"
              "\n-m\tMode\n\tdvbList, { 2k | 4k | [8k] |\b}\n"
              "\n");
    EXPECT_EQ(rc, 0u);
}
