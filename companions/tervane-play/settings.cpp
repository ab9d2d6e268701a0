#include "settings.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "companion.hpp"
#include "frame/options.hpp"
#include "frame/params.hpp"
#include "sigmf.hpp"

namespace play {
namespace {

const char kUsage[] =
    "usage: tervane-play -dev ARGS [device options] -i in.ts|- [tervane options]   live\n"
    "       tervane-play -dev ARGS [device options] -a 1|2|4 -ihp hp.ts -ilp lp.ts [...]\n"
    "       tervane-play -dev ARGS [device options] -play out.bin [tervane options]\n"
    "  Streams a DVB-T signal to a SoapySDR transmitter in real time: live from a\n"
    "  transport stream through the transmitter chain (tervane's options, same\n"
    "  spellings and meanings), or a finished tervane output file with -play.\n"
    "  -dev ARGS     SoapySDR device arguments, e.g. driver=hackrf\n"
    "  -fc HZ        centre frequency of the channel\n"
    "  -gain DB      overall TX gain; -ge NAME=DB a named gain element (repeatable)\n"
    "  -bw HZ        analogue baseband filter bandwidth (set after the rate)\n"
    "  -ant NAME     antenna\n"
    "  -lo HZ        tune the LO HZ away from -fc and shift the signal digitally by -HZ\n"
    "  -bo DB        back-off of the complex RMS below full scale (12)\n"
    "  -buf SECONDS  sample ring between the chain and the device (0.5)\n"
    "  -t SECONDS    stop after this much air time\n"
    "  -stall SECONDS  end with status 3 when the device takes nothing this long (2)\n"
    "  -loop N|inf   play the input N times in all, or without end\n"
    "  -play FILE    play a tervane output file (format and rate from -F, -b, -I or\n"
    "                its SigMF metadata), or - for samples on standard input\n"
    "  Transport streams are re-paced onto the channel's useful rate, PCRs rewritten\n"
    "  (as tsadapt does); -loop runs PCR, PTS, DTS and continuity counters on.\n"
    "  At the end: samples=N seconds=X rate=X underflows=N late=N clipped=N\n"
    "  peak_dbfs=X rms_dbfs=X loops=N nulls=N dropped=N skipped=N on standard output.\n"
    "  Exit status: 0 normal end (also on SIGINT, SIGTERM, SIGHUP), 1 usage or input\n"
    "  error, 3 device error (not found, refused, lost or stalled).\n";

// A text option's value: the parser leaves an empty text when it is not given.
const char* given(const char* text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }

double parse_number(const char* opt, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v))
        companion::fail("%s: \"%s\" is not a valid value", opt, text.c_str());
    return v;
}

std::optional<double> real(const char* opt, const char* text) {
    if (given(text) == nullptr) return std::nullopt;
    return parse_number(opt, text);
}

// -play: the format and rate of the metadata beside the file, when there is
// some; a rate that is one of the channel's interpolated rates gives the
// interpolation.
void read_metadata(Settings& s) {
    const auto meta = companion::read_sigmf(s.play);
    if (!meta) return;
    if (meta->datatype == "cf32_le") s.agi = false;
    else if (meta->datatype == "ci16_be") s.agi = true;
    else
        companion::fail("%s: datatype \"%s\" cannot be played (cf32_le or ci16_be)", meta->meta.c_str(),
                        meta->datatype.c_str());
    if (meta->sample_rate) s.rate = *meta->sample_rate;
    for (uint32_t i = 0; i < dvbt_interprate.size(); ++i)
        if (std::fabs(s.rate - dvbSampleRate(dvbt_parms.band, i)) < 1e-6 * s.rate) s.L = dvbt_interprate[i];
}

}  // namespace

Settings read_settings(int argc, char** argv) {
    // The parser fills every field of dvbt_parms, the defaults included.
    int32_t verbosity_arg = 0;
    const auto options = tervane_options(&verbosity_arg);

    // The parser's text blocks live as long as the process, as tervane's settings do.
    static char *dev = nullptr, *ant = nullptr, *loop = nullptr, *play = nullptr, *ge = nullptr;
    static char *fc = nullptr, *gain = nullptr, *bw = nullptr, *lo = nullptr, *limit = nullptr, *bo = nullptr,
                *buf = nullptr, *stall = nullptr;
    const dvbOption own[] = {
        {.name = "-dev", .kind = dvbString, .target = &dev},     {.name = "-fc", .kind = dvbString, .target = &fc},
        {.name = "-gain", .kind = dvbString, .target = &gain},   {.name = "-ge", .kind = dvbString, .target = &ge},
        {.name = "-bw", .kind = dvbString, .target = &bw},       {.name = "-ant", .kind = dvbString, .target = &ant},
        {.name = "-lo", .kind = dvbString, .target = &lo},       {.name = "-t", .kind = dvbString, .target = &limit},
        {.name = "-bo", .kind = dvbString, .target = &bo},       {.name = "-buf", .kind = dvbString, .target = &buf},
        {.name = "-loop", .kind = dvbString, .target = &loop},   {.name = "-play", .kind = dvbString, .target = &play},
        {.name = "-stall", .kind = dvbString, .target = &stall},
    };
    companion::parse_options(argc, argv, {std::span<const dvbOption>(options), std::span<const dvbOption>(own)});
    verbosity = 0;  // the chain prints nothing
    if (help != 0) {
        std::fputs(kUsage, stdout);
        std::exit(0);
    }
    if (version != 0) {
        companion::print_version();
        std::exit(0);
    }

    Settings s;
    s.dev = given(dev) != nullptr ? dev : "";
    s.ant = given(ant) != nullptr ? ant : "";
    s.play = given(play) != nullptr ? play : "";
    s.fc = real("-fc", fc);
    s.gain = real("-gain", gain);
    s.bw = real("-bw", bw);
    s.limit = real("-t", limit);
    if (s.limit && *s.limit <= 0) companion::fail("-t: the air time must be positive");
    s.lo = real("-lo", lo).value_or(0);
    s.backoff = real("-bo", bo).value_or(12);
    s.buf = real("-buf", buf).value_or(0.5);
    if (s.buf <= 0 || s.buf > 60) companion::fail("-buf: \"%s\" is not between 0 and 60 seconds", buf);
    s.stall = real("-stall", stall).value_or(2);
    if (s.stall < 0.1 || s.stall > 3600) companion::fail("-stall: \"%s\" is not between 0.1 and 3600 seconds", stall);
    if (given(loop) != nullptr) {
        if (std::strcmp(loop, "inf") == 0) {
            s.loops = 0;
        } else {
            char* end = nullptr;
            s.loops = std::strtol(loop, &end, 10);
            if (*end != '\0' || s.loops < 1 || s.loops > 1000000000)
                companion::fail("-loop takes a number of plays (1 or more) or inf, not \"%s\"", loop);
        }
    }
    for (const std::string& v : companion::option_values("-ge")) {
        const size_t eq = v.find('=');
        if (eq == std::string::npos || eq == 0) companion::fail("-ge takes NAME=DB, not \"%s\"", v.c_str());
        s.gains.emplace_back(v.substr(0, eq), parse_number("-ge", v.substr(eq + 1)));
    }
    if (given(out_fname) || given(dumptypes) || given(log_fname))
        companion::fail("-o, -d and -l name tervane's output files: tervane-play writes none");

    s.requested_M = dvbt_parms.M;
    settle_parms();
    compute_rates();
    s.L = dvbt_interprate[dvbt_parms.interp];
    s.rate = dvbSampleRate(dvbt_parms.band, dvbt_parms.interp);
    if (!s.play.empty()) {
        if (given(mpeg2ts_fname) || dvbt_hierarchical())
            companion::fail("-play takes no transport stream input (-i, -a)");
        s.agi = dvbt_parms.dumpformat == 1;
        if (dvbt_parms.dumpformat == 2) companion::fail("-play: the agiold format (two files) cannot be played");
        read_metadata(s);
    }
    return s;
}

}  // namespace play
