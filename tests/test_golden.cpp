// Output stability: whole runs of the executable over a spread of configurations
// (modes, constellations, hierarchy, frequency mappings, interpolation, the three
// sample formats, odd batch sizes), every dump selected. Each file becomes a line
// of its name, size and 64-bit FNV-1a digest; the listing's own digest is
// compared, and a failure prints the listing. The digests were taken from the
// transmitter whose output GNU Radio's receiver decodes back to the input
// packets: any change to one output byte of any stage shows up here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "util.hpp"

namespace {

namespace fs = std::filesystem;

uint64_t fnv1a(const std::vector<unsigned char>& data) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : data) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

// "name size digest" for every output file of the run, sorted by name.
std::string digest_outputs(const fs::path& dir, const std::vector<std::string>& inputs) {
    std::vector<std::string> lines;
    for (const auto& e : fs::directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        if (std::find(inputs.begin(), inputs.end(), name) != inputs.end() || name == "test.log" ||
            name == "err.txt")
            continue;
        const auto data = tu::read_file(e.path());
        char buf[128];
        std::snprintf(buf, sizeof buf, "%s %zu %016" PRIx64 "\n", name.c_str(), data.size(), fnv1a(data));
        lines.emplace_back(buf);
    }
    std::sort(lines.begin(), lines.end());
    std::string all;
    for (const auto& l : lines) all += l;
    return all;
}

struct GoldenCase {
    const char* name;
    std::vector<std::string> args;  // after the input options
    bool hierarchical;
    uint64_t expected;  // digest of the listing of every file
};

void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.name; }

class Golden : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(Golden, EveryFileOfTheRunIsUnchanged) {
    const GoldenCase& c = GetParam();
    tu::TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "hp.ts", "-n", "400"}).status, 0);
    std::vector<std::string> args;
    std::vector<std::string> inputs{"hp.ts"};
    if (c.hierarchical) {
        tu::write_file(dir / "lp.ts", tu::make_ts(260, 7));
        inputs.emplace_back("lp.ts");
        args = {"-ihp", "hp.ts", "-ilp", "lp.ts"};
    } else {
        args = {"-i", "hp.ts"};
    }
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", "out", "-d", "ercvpbsmft", "-v", "1"});
    ASSERT_EQ(tu::tervane(dir.path, args).status, 0);
    const std::string listing = digest_outputs(dir.path, inputs);
    EXPECT_EQ(fnv1a(tu::Bytes(listing.begin(), listing.end())), c.expected) << listing;
}

const GoldenCase kCases[] = {
    {"Default2kQpsk", {}, false, 0x97172afa22aeaeebull},
    {"Mode8k64QamBB", {"-m", "8k", "-M", "64", "-p", "2/3", "-D", "1/4", "-f", "BB", "-s", "37"}, false, 0x00801503288635d7ull},
    {"Mode4k16QamIdiInv2xAgi", {"-m", "4k", "-M", "16", "-p", "3/4", "-D", "1/8", "-idi", "-f", "INV", "-I", "2x", "-F", "agi", "-s", "13", "-cid", "255"}, false, 0xa573a4aa1480f40eull},
    {"Mode2k64Qam7_8Band5Agi", {"-M", "64", "-p", "7/8", "-D", "1/16", "-b", "5", "-F", "agi", "-g", "2.5", "-s", "5"}, false, 0x6a55e5d6f7598ddbull},
    {"Mode2kIdi4xBand6", {"-p", "5/6", "-D", "1/4", "-idi", "-I", "4x", "-b", "6", "-c", "0", "-s", "1000"}, false, 0x521d2ad4325a65e7ull},
    {"Hier8k64QamAlpha2_4xAgiold", {"-a", "2", "-m", "8k", "-M", "64", "-php", "1/2", "-plp", "3/4", "-D", "1/16", "-I", "4x", "-F", "agiold", "-cid", "4660", "-s", "19"}, true, 0xa88b293e77fca4b4ull},
    {"Hier2kQpskRaisedAlpha1", {"-a", "1", "-php", "2/3", "-plp", "5/6", "-c", "0", "-b", "7", "-s", "7"}, true, 0x7f9c154abf8839f0ull},
    {"Hier4k16QamAlpha4Inv", {"-a", "4", "-m", "4k", "-M", "16", "-php", "7/8", "-plp", "1/2", "-f", "INV", "-s", "11"}, true, 0xc291fbcb99bc9b9dull},
};

INSTANTIATE_TEST_SUITE_P(Runs, Golden, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
