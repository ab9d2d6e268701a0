// tervane: DVB-T software transmitter. The driver sets every setting, reads the
// options, opens the log, prints the report, opens the files, builds the chain
// and runs it in passes until a whole pass moves nothing, then reports the
// speed against real time. It exits with 0 after a complete run, 1 on a fatal
// input error and 2 when an output or dump file is incomplete.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "frame/chain.hpp"
#include "frame/files.hpp"
#include "frame/getopts.hpp"
#include "frame/params.hpp"
#include "frame/print.hpp"
#include "frame/time.hpp"

int main(int argc, char** argv) {
    // Past a file-size limit a write then fails with its error, which is reported.
    std::signal(SIGXFSZ, SIG_IGN);

    // Step 1: defaults that the parser does not set.
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.delta = 3;
    dvbt_parms.band = 3;
    dvbt_parms.cinit = 1;
    int32_t verbosity_arg = 3;

    // Step 2: the 25 options.
    dvbt_parms_t& p = dvbt_parms;
    const dvbOption options[25] = {
        {.name = "-i", .kind = dvbString, .target = &mpeg2ts_fname},
        {.name = "-ihp", .kind = dvbString, .target = &mpeg2ts_hp_fname},
        {.name = "-ilp", .kind = dvbString, .target = &mpeg2ts_lp_fname},
        {.name = "-o", .kind = dvbString, .target = &out_fname},
        {.name = "-l", .kind = dvbString, .target = &log_fname},
        {.name = "-m", .kind = dvbList, .nnames = 3, .names = dvbt_modename.data(), .idefault = 0, .target = &p.mode},
        {.name = "-M", .kind = dvbList, .nnames = 3, .names = dvbt_Mname.data(), .idefault = 0, .target = &p.M},
        {.name = "-a", .kind = dvbList, .nnames = 4, .names = dvbt_alphaname.data(), .idefault = 0, .target = &p.alpha},
        {.name = "-D", .kind = dvbList, .nnames = 4, .names = dvbt_deltaname.data(), .idefault = 3, .target = &p.delta},
        {.name = "-p", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate},
        {.name = "-php", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate_hp},
        {.name = "-plp", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate_lp},
        {.name = "-b", .kind = dvbList, .nnames = 4, .names = dvbt_bandname.data(), .idefault = 3, .target = &p.band},
        {.name = "-c", .kind = dvbList, .nnames = 2, .names = dvbt_cinitname.data(), .idefault = 1, .target = &p.cinit},
        {.name = "-f", .kind = dvbList, .nnames = 3, .names = dvbt_ifftmmname.data(), .idefault = 0, .target = &p.ifftmm},
        {.name = "-I", .kind = dvbList, .nnames = 3, .names = dvbt_interpname.data(), .idefault = 0, .target = &p.interp},
        {.name = "-cid", .kind = dvbInt, .idefault = -1, .target = &p.cid},
        {.name = "-h", .kind = dvbBool, .idefault = 0, .target = &help},
        {.name = "-V", .kind = dvbBool, .idefault = 0, .target = &version},
        {.name = "-v", .kind = dvbInt, .idefault = 3, .target = &verbosity_arg},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &p.gain},
        {.name = "-d", .kind = dvbString, .target = &dumptypes},
        {.name = "-F", .kind = dvbList, .nnames = 3, .names = dvbt_dumpformat.data(), .idefault = 0, .target = &p.dumpformat},
        {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &packnum},
        {.name = "-idi", .kind = dvbBool, .idefault = 0, .target = &p.idi},
    };
    dvbGetCommArgs(argc, argv, 25, options);
    verbosity = static_cast<uint16_t>(verbosity_arg);

    // Step 3: the log.
    if (log_fname == nullptr || log_fname[0] == '\0') {
        std::free(log_fname);
        log_fname = nullptr;
        dvbMsgInit("test.log");
    } else {
        dvbMsgInit(log_fname);
    }

    // Steps 4 and 5: batch size and buffer lengths.
    chain_set_lengths();

    // Steps 6 and 7: report, then files.
    const uint32_t requested_M = p.M;
    print_args();
    open_files();
    // A batch too small for one OFDM symbol stalls the chain before the modulator.
    if (packnum < chain_min_packnum(requested_M)) {
        dvbMsgPrint(0, "WARNING: -s %d is too small for this mode: no OFDM symbol fits the buffers, "
                       "so no samples will be produced (use -s %d or more)\n",
                    packnum, chain_min_packnum(requested_M));
    }
    const bool hier = dvbt_hierarchical();

    // Step 8: buffers and stage initialisation, in chain order.
    chain_create();

    dvbTic();
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;

    // The passes: until a whole pass moves nothing.
    while (chain_pass()) {
    }

    // End report.
    const float t = static_cast<float>(dvbToc());
    const float x = (proc_data_hp + proc_data_lp) * 8.0f / t;
    if (hier) r_u = r_uhp + r_ulp;
    dvbMsgPrint(1, "Theoretical global rate = %.3f kbps\n", r_u / 1000.0);
    dvbMsgPrint(1, "Elapsed time = %.6f s. ", static_cast<double>(t));
    dvbMsgPrint(1, "Approx. %.3f kbps.\n", x / 1000.0);
    if (r_u < x)
        dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));
    else if (r_u >= x)
        dvbMsgPrint(2, "This is %.1f times slower than real-time :=(\n", static_cast<double>(r_u / x));
    else
        dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));

    // Teardown.
    chain_destroy();
    const bool complete = close_files();
    dvbMsgClose();
    return complete ? 0 : 2;
}
