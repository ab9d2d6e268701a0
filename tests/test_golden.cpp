// Output stability: whole runs of the executable over a spread of configurations
// (modes, constellations, hierarchy, frequency mappings, interpolation, the three
// sample formats, odd batch sizes), every dump selected, each file reduced to its
// size and a 64-bit FNV-1a digest. The digests were taken from the transmitter
// whose output GNU Radio's receiver decodes back to the input packets; any change
// to one output byte of any stage shows up here, named by its file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "cli_util.hpp"

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
        const auto data = cli::read_file(e.path());
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
    const char* expected;
};

class Golden : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(Golden, EveryFileOfTheRunIsUnchanged) {
    const GoldenCase& c = GetParam();
    cli::TempDir dir;
    ASSERT_EQ(cli::run(dir.path, TSGEN_EXE, {"-o", "hp.ts", "-n", "400"}).status, 0);
    std::vector<std::string> args;
    std::vector<std::string> inputs{"hp.ts"};
    if (c.hierarchical) {
        cli::write_file(dir / "lp.ts", cli::make_ts(260, 7));
        inputs.emplace_back("lp.ts");
        args = {"-ihp", "hp.ts", "-ilp", "lp.ts"};
    } else {
        args = {"-i", "hp.ts"};
    }
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", "out", "-d", "ercvpbsmft", "-v", "1"});
    ASSERT_EQ(cli::tervane(dir.path, args).status, 0);
    EXPECT_EQ(digest_outputs(dir.path, inputs), c.expected);
}

const GoldenCase kCases[] = {
    {"Default2kQpsk", {}, false, 
     "out.bin 7282176 6ca28d6f001b119c\n"
     "out_bi.bin 652680 f96b393f4b608cf5\n"
     "out_ci.bin 81600 49bd12f4a2b28e34\n"
     "out_ed.bin 75200 f33c2f3c6bc5666a\n"
     "out_fd.bin 5878840 0a4ae20296c2b0b0\n"
     "out_ma.bin 5213376 091b87b31f2f2c05\n"
     "out_pu.bin 1305600 a5a0a46d9eee508b\n"
     "out_rs.bin 81600 7711f8e863a422df\n"
     "out_si.bin 651672 30d2dc37d595ca40\n"
     "out_ve.bin 1305600 a5a0a46d9eee508b\n"},
    {"Mode8k64QamBB", {"-m", "8k", "-M", "64", "-p", "2/3", "-D", "1/4", "-f", "BB", "-s", "37"}, false, 
     "out.bin 2129920 6d112192609b60e8\n"
     "out_bi.bin 163170 c478c4d9c5b7992a\n"
     "out_ci.bin 81600 49bd12f4a2b28e34\n"
     "out_ed.bin 75200 f33c2f3c6bc5666a\n"
     "out_fd.bin 1417936 8aec4a5e36b7e929\n"
     "out_ma.bin 1257984 02492cd6e4673afd\n"
     "out_pu.bin 979200 8a90c3a171eb7fac\n"
     "out_rs.bin 81600 7711f8e863a422df\n"
     "out_si.bin 157248 0be894281d77f666\n"
     "out_ve.bin 1305600 a5a0a46d9eee508b\n"},
    {"Mode4k16QamIdiInv2xAgi",
     {"-m", "4k", "-M", "16", "-p", "3/4", "-D", "1/8", "-idi", "-f", "INV", "-I", "2x", "-F", "agi", "-s", "13",
      "-cid", "255"},
     false, 
     "out_agi.bin 2580480 fa25a3a9a8cdd3b0\n"
     "out_bi.bin 217476 473c3672e5f8e7ad\n"
     "out_ci.bin 81600 49bd12f4a2b28e34\n"
     "out_ed.bin 75200 f33c2f3c6bc5666a\n"
     "out_fd.bin 1909040 6fad18d0b558e501\n"
     "out_ma.bin 1693440 88594662ae9f448d\n"
     "out_pu.bin 870400 6f6aa6e52aea16da\n"
     "out_rs.bin 81600 7711f8e863a422df\n"
     "out_si.bin 211680 e9cf417b94187860\n"
     "out_ve.bin 1305600 a5a0a46d9eee508b\n"},
    {"Mode2k64Qam7_8Band5Agi", {"-M", "64", "-p", "7/8", "-D", "1/16", "-b", "5", "-F", "agi", "-g", "2.5", "-s", "5"},
     false, 
     "out_agi.bin 713728 1db3c4b7f5f26da1\n"
     "out_bi.bin 124236 849c44df454bcbb5\n"
     "out_ci.bin 81600 49bd12f4a2b28e34\n"
     "out_ed.bin 75200 f33c2f3c6bc5666a\n"
     "out_fd.bin 1118480 4f1a4228b257725d\n"
     "out_ma.bin 991872 899e7e0159976fb9\n"
     "out_pu.bin 746056 f7b0b1c330e7d65a\n"
     "out_rs.bin 81600 7711f8e863a422df\n"
     "out_si.bin 123984 a639bc07b0a0543f\n"
     "out_ve.bin 1305600 a5a0a46d9eee508b\n"},
    {"Mode2kIdi4xBand6", {"-p", "5/6", "-D", "1/4", "-idi", "-I", "4x", "-b", "6", "-c", "0", "-s", "1000"}, false, 
     "out.bin 20971520 6a32dd9ca10f035a\n"
     "out_bi.bin 391608 c30478e25d04fb25\n"
     "out_ci.bin 81600 c80b6b887b016d8d\n"
     "out_ed.bin 75200 f33c2f3c6bc5666a\n"
     "out_fd.bin 3491840 13f9f71fd0f2e125\n"
     "out_ma.bin 3096576 6e9698b139e97e25\n"
     "out_pu.bin 783360 7232159e35259173\n"
     "out_rs.bin 81600 7711f8e863a422df\n"
     "out_si.bin 387072 c69360b63edd5c90\n"
     "out_ve.bin 1305600 279c4964b927389d\n"},
    {"Hier8k64QamAlpha2_4xAgiold",
     {"-a", "2", "-m", "8k", "-M", "64", "-php", "1/2", "-plp", "3/4", "-D", "1/16", "-I", "4x", "-F", "agiold",
      "-cid", "4660", "-s", "19"},
     true, 
     "out_I.bin 1601536 1946d4b17a4bb251\n"
     "out_Q.bin 1601536 95f768b60a71681a\n"
     "out_bi.bin 141372 851406dc22167af6\n"
     "out_cihp.bin 29292 4993516229d0fa94\n"
     "out_cilp.bin 53040 a475da8e8522dc53\n"
     "out_edhp.bin 34028 8516ebaf48d2e4ce\n"
     "out_edlp.bin 48880 7176940a6a9c56ee\n"
     "out_fd.bin 1254328 b84d383e223e65ec\n"
     "out_ma.bin 1112832 996596892e9a0eb2\n"
     "out_puhp.bin 344760 f9d3cbca0125a11c\n"
     "out_pulp.bin 565760 be5ff49793ffec66\n"
     "out_rshp.bin 33048 4de6f4e399220c33\n"
     "out_rslp.bin 53040 94e4b65fab14c71d\n"
     "out_si.bin 139104 a84c90bd7a49782e\n"
     "out_vehp.bin 406768 8c9316dbd2c1f063\n"
     "out_velp.bin 848640 a1a20364ba941596\n"},
    {"Hier2kQpskRaisedAlpha1", {"-a", "1", "-php", "2/3", "-plp", "5/6", "-c", "0", "-b", "7", "-s", "7"}, true, 
     "out.bin 2838528 98d5d0d899ace193\n"
     "out_bi.bin 254520 20ef433834b10462\n"
     "out_cihp.bin 47172 b9292f5dd41a6b8e\n"
     "out_cilp.bin 53040 0ea3c8e64851a26c\n"
     "out_edhp.bin 46060 ee7789ea90c888ed\n"
     "out_edlp.bin 48880 7176940a6a9c56ee\n"
     "out_fd.bin 2291520 5ac8631f90700e0f\n"
     "out_ma.bin 2032128 5b25383c833597d7\n"
     "out_puhp.bin 531888 b19a39a919a1109e\n"
     "out_pulp.bin 509184 84a9441adc2dbdb9\n"
     "out_rshp.bin 48552 bd9159217ff2d18f\n"
     "out_rslp.bin 53040 94e4b65fab14c71d\n"
     "out_si.bin 254016 e273ab01d70233ad\n"
     "out_vehp.bin 732032 a18f90c77dc35108\n"
     "out_velp.bin 848640 5cb789c2072813b2\n"},
    {"Hier4k16QamAlpha4Inv", {"-a", "4", "-m", "4k", "-M", "16", "-php", "7/8", "-plp", "1/2", "-f", "INV", "-s", "11"},
     true, 
     "out.bin 4156416 be46143ae1414910\n"
     "out_bi.bin 372960 9ab2dad945aae6e6\n"
     "out_cihp.bin 81600 49bd12f4a2b28e34\n"
     "out_cilp.bin 53040 a475da8e8522dc53\n"
     "out_edhp.bin 75200 f33c2f3c6bc5666a\n"
     "out_edlp.bin 48880 7176940a6a9c56ee\n"
     "out_fd.bin 3354456 f96f8a6cb1fec3f2\n"
     "out_ma.bin 2975616 863bc05f61725690\n"
     "out_puhp.bin 746056 f7b0b1c330e7d65a\n"
     "out_pulp.bin 781824 6b765e4dca34088b\n"
     "out_rshp.bin 81600 7711f8e863a422df\n"
     "out_rslp.bin 53040 94e4b65fab14c71d\n"
     "out_si.bin 371952 d5c8cb675ad29b04\n"
     "out_vehp.bin 1305600 a5a0a46d9eee508b\n"
     "out_velp.bin 817728 73f739a124ac8618\n"},
};

INSTANTIATE_TEST_SUITE_P(Runs, Golden, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
