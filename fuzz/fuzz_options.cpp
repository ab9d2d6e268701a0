// Fuzz target: the option parser on arbitrary argument vectors. The input is
// split at NUL bytes into arguments (argv[0] is a fixed program name); the
// table has the program's 25 options with their kinds, name tables and
// defaults, filling local targets. After the call the targets must hold what
// the parser promises: list indices inside their tables, every string target
// a live block with a terminated text, and a value that occurs on the line.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/getopts.hpp"
#include "frame/params.hpp"

namespace {

struct Targets {
    char* i = nullptr;
    char* ihp = nullptr;
    char* ilp = nullptr;
    char* o = nullptr;
    char* l = nullptr;
    char* d = nullptr;
    uint32_t mode = 0, M = 0, alpha = 0, delta = 0, rate = 0, rate_hp = 0, rate_lp = 0, band = 0, cinit = 0, ifftmm = 0,
             interp = 0, dumpformat = 0;
    int32_t cid = 0, help = 0, version = 0, verbosity = 0, packnum = 0, idi = 0;
    float gain = 0.0f;
};

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz_options: %s\n", what);
    std::abort();
}

// A string target must be a block holding a terminated text equal to the
// default or to some argument of the line.
void check_string(const char* s, const std::vector<std::string>& args) {
    if (s == nullptr) fail("string target left null");
    const std::string text(s);
    if (text.empty()) return;
    for (const std::string& a : args)
        if (a == text) return;
    fail("string target holds a text that is not on the command line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Split at NUL bytes; the last piece counts even without a terminator.
    std::vector<std::string> args{"tervane"};
    std::string cur;
    for (size_t k = 0; k < size; ++k) {
        if (data[k] == 0) {
            args.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(static_cast<char>(data[k]));
        }
    }
    if (!cur.empty()) args.push_back(cur);
    if (args.size() > 4096) return 0;
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);

    Targets t;
    const dvbOption options[25] = {
        {.name = "-i", .kind = dvbString, .target = &t.i},
        {.name = "-ihp", .kind = dvbString, .target = &t.ihp},
        {.name = "-ilp", .kind = dvbString, .target = &t.ilp},
        {.name = "-o", .kind = dvbString, .target = &t.o},
        {.name = "-l", .kind = dvbString, .target = &t.l},
        {.name = "-m", .kind = dvbList, .nnames = 3, .names = dvbt_modename.data(), .idefault = 0, .target = &t.mode},
        {.name = "-M", .kind = dvbList, .nnames = 3, .names = dvbt_Mname.data(), .idefault = 0, .target = &t.M},
        {.name = "-a", .kind = dvbList, .nnames = 4, .names = dvbt_alphaname.data(), .idefault = 0, .target = &t.alpha},
        {.name = "-D", .kind = dvbList, .nnames = 4, .names = dvbt_deltaname.data(), .idefault = 3, .target = &t.delta},
        {.name = "-p", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &t.rate},
        {.name = "-php",
         .kind = dvbList,
         .nnames = 5,
         .names = dvbt_ratename.data(),
         .idefault = 0,
         .target = &t.rate_hp},
        {.name = "-plp",
         .kind = dvbList,
         .nnames = 5,
         .names = dvbt_ratename.data(),
         .idefault = 0,
         .target = &t.rate_lp},
        {.name = "-b", .kind = dvbList, .nnames = 4, .names = dvbt_bandname.data(), .idefault = 3, .target = &t.band},
        {.name = "-c", .kind = dvbList, .nnames = 2, .names = dvbt_cinitname.data(), .idefault = 1, .target = &t.cinit},
        {.name = "-f",
         .kind = dvbList,
         .nnames = 3,
         .names = dvbt_ifftmmname.data(),
         .idefault = 0,
         .target = &t.ifftmm},
        {.name = "-I",
         .kind = dvbList,
         .nnames = 3,
         .names = dvbt_interpname.data(),
         .idefault = 0,
         .target = &t.interp},
        {.name = "-cid", .kind = dvbInt, .idefault = -1, .target = &t.cid},
        {.name = "-h", .kind = dvbBool, .idefault = 0, .target = &t.help},
        {.name = "-V", .kind = dvbBool, .idefault = 0, .target = &t.version},
        {.name = "-v", .kind = dvbInt, .idefault = 3, .target = &t.verbosity},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &t.gain},
        {.name = "-d", .kind = dvbString, .target = &t.d},
        {.name = "-F",
         .kind = dvbList,
         .nnames = 3,
         .names = dvbt_dumpformat.data(),
         .idefault = 0,
         .target = &t.dumpformat},
        {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &t.packnum},
        {.name = "-idi", .kind = dvbBool, .idefault = 0, .target = &t.idi},
    };
    dvbGetCommArgs(static_cast<int>(args.size()), argv.data(), 25, options);

    // List targets index their tables; flags are 0 or 1.
    for (const dvbOption& o : options) {
        if (o.kind == dvbList && *static_cast<const uint32_t*>(o.target) >= o.nnames) fail("list index out of table");
        if (o.kind == dvbBool) {
            const int32_t v = *static_cast<const int32_t*>(o.target);
            if (v != 0 && v != 1) fail("flag neither 0 nor 1");
        }
    }
    char** strings[] = {&t.i, &t.ihp, &t.ilp, &t.o, &t.l, &t.d};
    for (char** s : strings) {
        check_string(*s, args);
        std::free(*s);
    }
    return 0;
}
