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
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "frame/print.hpp"
#include "frame/time.hpp"

int main(int argc, char** argv) {
    // Past a file-size limit a write then fails with its error, which is reported.
    std::signal(SIGXFSZ, SIG_IGN);

    // Defaults that the parser does not set.
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.delta = 3;
    dvbt_parms.band = 3;
    dvbt_parms.cinit = 1;
    int32_t verbosity_arg = 3;

    // The command line.
    const auto options = tervane_options(&verbosity_arg);
    dvbGetCommArgs(argc, argv, TERVANE_NOPTS, options.data());
    verbosity = static_cast<uint16_t>(verbosity_arg);

    // The log, named by -l or test.log.
    if (log_fname == nullptr || log_fname[0] == '\0') {
        std::free(log_fname);
        log_fname = nullptr;
        dvbMsgInit("test.log");
    } else {
        dvbMsgInit(log_fname);
    }

    // The batch size and every buffer length that follows from it.
    chain_set_lengths();

    // The parameter report, then the inputs, outputs and dumps.
    const uint32_t requested_M = dvbt_parms.M;
    print_args();
    open_files();
    // A batch too small for one OFDM symbol stalls the chain before the modulator.
    if (packnum < chain_min_packnum(requested_M)) {
        dvbMsgPrint(0,
                    "WARNING: -s %d is too small for this mode: no OFDM symbol fits the buffers, "
                    "so no samples will be produced (use -s %d or more)\n",
                    packnum, chain_min_packnum(requested_M));
    }
    const bool hier = dvbt_hierarchical();

    // The buffers and every stage set up, in chain order.
    chain_create();

    dvbTic();
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;

    // The passes: until a whole pass moves nothing.
    while (chain_pass()) {}

    // End report.
    const float t = static_cast<float>(dvbToc());
    const float x = (proc_data_hp + proc_data_lp) * 8.0f / t;
    if (hier) r_u = r_uhp + r_ulp;
    dvbMsgPrint(1, "Theoretical global rate = %.3f kbps\n", r_u / 1000.0);
    dvbMsgPrint(1, "Elapsed time = %.6f s. ", static_cast<double>(t));
    dvbMsgPrint(1, "Approx. %.3f kbps.\n", x / 1000.0);
    if (r_u < x) dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));
    else if (r_u >= x) dvbMsgPrint(2, "This is %.1f times slower than real-time :=(\n", static_cast<double>(r_u / x));
    else dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));

    // Teardown.
    chain_destroy();
    const bool complete = close_files();
    dvbMsgClose();
    return complete ? 0 : 2;
}
