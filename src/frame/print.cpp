// Levelled messages (screen and log) and the parameter report.
#include "frame/print.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "frame/params.hpp"
#include "frame/version.hpp"
#include "vectors/written.hpp"

const char versinfo[] = "Tervane v. " TERVANE_VERSION
                        " Linux   - (2006/08/03)\n"
                        "Written by the tervane developers\n"
                        "https://tervane.example.org/\n";

namespace {

// The log's own failure is told on the screen only.
void report_on_screen(const char* text) { std::fputs(text, stdout); }

FILE* mfp = nullptr;

const char help_text[] =
    "\nCurrent available options are:\n\n"
    "-i\tMPEG-2 NH transport stream file name\n"
    "-ihp\tMPEG-2 HP transport stream file name\n"
    "-ilp\tMPEG-2 LP transport stream file name\n"
    "-o\tBase output file name and extension\n"
    "-l\tLog file name\n"
    "-m\tOFDM mode {2k | 4k | 8k}\n"
    "-M\tConstellation order {4 | 16 | 64}\n"
    "-a\tHierarchy and uniformity order {NH | 1 | 2 | 4}\n"
    "-D\tCircular prefix duration {1/32 | 1/16 | 1/8 | 1/4}\n"
    "-p\tPuncturing rate, NH {1/2 | 2/3 | 3/4 | 5/6 | 7/8}\n"
    "-php\tPuncturing rate, HP {1/2 | 2/3 | 3/4 | 5/6 | 7/8}\n"
    "-plp\tPuncturing rate, LP {1/2 | 2/3 | 3/4 | 5/6 | 7/8}\n"
    "-idi\tIn-depth interleaving, only for 2k and 4k modes\n"
    "-b\tChannel spacing {5 | 6 | 7 | 8}\n"
    "-cid\tCell identifier {0x%04x}\n"
    "-c\tConv. interleaver initialization {0 | rand}\n"
    "-f\tFrequency mapping method {0 | BB | INV}\n"
    "-v\tVerbosity level {0 to %d}\n"
    "-V\tPrint version number and exit\n"
    "-d\tDump level {ercvpbsmft}\n"
    "  \te - Energy disperser\n"
    "  \tr - Reed-Solomon encoder\n"
    "  \tc - Convolutional interleaver\n"
    "  \tv - Convolutional encoder\n"
    "  \tp - Puncturer\n"
    "  \tb - Bit interleaver\n"
    "  \ts - Symbol interleaver\n"
    "  \tm - Mapper\n"
    "  \tf - Pre-IFFT\n"
    "  \tt - Post-IFFT (alone or with -F)\n"
    "-I\tInterpolation rate {1x | 2x | 4x}\n"
    "-F\tPost-IFFT format {std | agi | agiold}\n"
    "-g\tGain factor {%.2f}\n"
    "-s\tInternal buffer base size {%d}\n";

// Writes the text to the log unless the log failed; a failure is told on the screen.
void log_text(const char* format, va_list ap) {
    if (mfp == nullptr || file_failed(mfp)) return;
    errno = 0;
    if (std::vfprintf(mfp, format, ap) < 0) fail_file(mfp, errno);
}

void log_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_printf(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    log_text(format, ap);
    va_end(ap);
}

// The processes that end early (help, version, fatal errors) check the log at exit.
void finish_log() {
    if (mfp != nullptr) finish_file(mfp);
    mfp = nullptr;
}

// An empty name becomes none; returns the text to print for it.
const char* settle_name(char*& name) {
    if (name != nullptr && name[0] == '\0') {
        std::free(name);
        name = nullptr;
    }
    return name != nullptr ? name : "NONE";
}

}  // namespace

unsigned dvbMsgInit(const char* path) {
    const std::time_t now = std::time(nullptr);
    mfp = std::fopen(path, "w");
    if (mfp == nullptr) return 0;
    track_file(mfp, path, "bytes", 1, report_on_screen, false);
    std::atexit(finish_log);
    const char* when = std::ctime(&now);
    log_printf("Generated log information: %s , %s\n", path, when != nullptr ? when : "\n");
    return 0;
}

unsigned dvbMsgPrint(uint16_t level, const char* format, ...) {
    if (verbosity < level) return 0;
    va_list ap, again;
    va_start(ap, format);
    va_copy(again, ap);
    std::vprintf(format, ap);
    log_text(format, again);
    va_end(again);
    va_end(ap);
    return 0;
}

unsigned dvbMsgClose() {
    log_printf("________________________________________________\n\n");
    finish_log();
    return 0;
}

void print_args() {
    dvbt_parms_t& p = dvbt_parms;
    if (help != 0 || version != 0) {
        dvbMsgPrint(0, "\nDVB-T compliant software transmitter\n%sStandard: ETSI EN 300 744 V1.5.1 (2004-11)\n",
                    versinfo);
        if (help != 0) dvbMsgPrint(0, help_text, 0, 4, 4.2, 100);
        std::exit(0);
    }
    dvbMsgPrint(2,
                "%sStandard: ETSI EN 300 744 V1.5.1 (2004-11)\n\nDVB-T Exciter parameters:\n"
                "------------------------------------------------------\n",
                versinfo);
    if (dvbt_hierarchical()) {
        dvbMsgPrint(2, "\tMPEG-2 TS file name, HP: %s\n", settle_name(mpeg2ts_hp_fname));
        dvbMsgPrint(2, "\tMPEG-2 TS file name, LP: %s\n", settle_name(mpeg2ts_lp_fname));
    } else {
        dvbMsgPrint(2, "\tMPEG-2 TS file name    : %s\n", settle_name(mpeg2ts_fname));
    }
    dvbMsgPrint(2, "\tOutput file basename   : %s\n", settle_name(out_fname));
    dvbMsgPrint(2, "\tMode                   : %s\n", dvbt_modename[p.mode]);
    settle_parms();
    dvbMsgPrint(2, "\tConstellation order    : %sQAM\n", dvbt_Mname[p.M]);
    dvbMsgPrint(2, "\tUniformity order       : %s\n", dvbt_alphaname[p.alpha]);
    dvbMsgPrint(2, "\tPrefix duration        : %s\n", dvbt_deltaname[p.delta]);
    if (dvbt_hierarchical()) {
        dvbMsgPrint(2, "\tPuncturing rate, HP    : %s\n", dvbt_ratename[p.rate_hp]);
        dvbMsgPrint(2, "\tPuncturing rate, LP    : %s\n", dvbt_ratename[p.rate_lp]);
    } else {
        dvbMsgPrint(2, "\tPuncturing rate        : %s\n", dvbt_ratename[p.rate]);
    }
    dvbMsgPrint(2, "\tIn-depth interleaving  : %s\n", p.idi != 0 ? "yes" : "no");
    dvbMsgPrint(2, "\tChannel spacing        : %s MHz\n", dvbt_bandname[p.band]);
    if (p.cid < 0) dvbMsgPrint(2, "\tCell identifier        : not set\n");
    else dvbMsgPrint(2, "\tCell identifier        : 0x%04x\n", static_cast<unsigned>(p.cid));
    dvbMsgPrint(2, "\tConv. Interleaver init.: %s\n", dvbt_cinitname[p.cinit]);
    dvbMsgPrint(2, "\tFrequency mapping      : %s IF\n", dvbt_ifftmmname[p.ifftmm]);
    dvbMsgPrint(2, "\tInterpolation rate     : %s\n", dvbt_interpname[p.interp]);
    dvbMsgPrint(2, "\tGain factor            : %.4f\n", static_cast<double>(p.gain));
    dvbMsgPrint(2, "\t----------------------------------------------\n");

    compute_rates();
    const double fft = dvbt_fftsize[p.mode];
    const double guard = dvbt_guardfrac[p.delta];
    const double Ts = T_s;
    dvbMsgPrint(2, "\tOutput sampling rate   : %.6f Msps\n", double{dvbt_interprate[p.interp]} * f_s / 1000000.0);
    dvbMsgPrint(2, "\tOutput sample time     : %.3f ns\n", 1.0e9 * Ts);
    dvbMsgPrint(2, "\tUseful symbol time     : %.3f micros\n", fft * Ts * 1000000.0);
    dvbMsgPrint(2, "\tGuard interval time    : %.3f micros\n", fft * Ts * 1000000.0 * guard);
    dvbMsgPrint(2, "\tTotal symbol time      : %.3f micros\n", fft * Ts * 1000000.0 * (1.0 + guard));
    if (dvbt_hierarchical()) {
        dvbMsgPrint(2, "\tUseful throughput, HP  : %.6f Mbps\n", r_uhp / 1000000.0);
        dvbMsgPrint(2, "\tUseful throughput, LP  : %.6f Mbps\n", r_ulp / 1000000.0);
    } else {
        dvbMsgPrint(2, "\tUseful throughput      : %.6f Mbps\n", r_u / 1000000.0);
    }
    dvbMsgPrint(2, "\tCarrier spacing        : %.3f kHz\n", double{f_s} / (fft * 1000.0));
    dvbMsgPrint(2, "\tNominal bandwidth      : %.6f MHz\n", B_n / 1000000.0);
    dvbMsgPrint(2, "        ----------------------------------------------\n");
    dvbMsgPrint(2, "\tMPEG-2 packets per time: %d\n", packnum);
    const uint32_t ram =
        mpeg2len + rslen + cilen + velen + pulen + bilen + silen + 8u * (malen + fdlen + tdlen + txlen);
    dvbMsgPrint(2, "\tTotal RAM (approx.)    : %.3f MB\n", ram / 1048576.0);
    dvbMsgPrint(2, "------------------------------------------------------\n");
}
