// The option parser's usage table (how tervane takes values is checked from
// outside, in the command-line tests).

#include "frame/getopts.hpp"
#include "util.hpp"

TEST(OptsParser, UsageTableLayout) {
    const char* const modes[] = {"2k", "4k", "8k"};
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
