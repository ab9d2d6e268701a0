// tervane-tables: writes the Python companions' module of names and numbers,
// tables.py, from the transmitter's own tables, so that a change in one place
// reaches every program. Run by the build; not installed.
#include <cstdio>
#include <span>
#include <string>

#include "frame/options.hpp"
#include "frame/params.hpp"
#include "frame/version.hpp"
#include "ofdm/filter.hpp"
#include "ofdm/framing.hpp"
#include "ts.hpp"

namespace {

FILE* out = nullptr;

// A double as Python reads it back exactly, always as a float.
std::string real(double x) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", x);
    std::string r = text;
    if (r.find_first_of(".en") == std::string::npos) r += ".0";
    return r;
}

template <typename T>
void list(const char* name, std::span<const T> values, const char* comment) {
    if (*comment != '\0') std::fprintf(out, "# %s\n", comment);
    std::fprintf(out, "%s = [", name);
    for (size_t i = 0; i < values.size(); ++i) {
        if constexpr (std::is_floating_point_v<T>) std::fprintf(out, "%s%s", i ? ", " : "", real(values[i]).c_str());
        else if constexpr (std::is_pointer_v<T>) std::fprintf(out, "%s\"%s\"", i ? ", " : "", values[i]);
        else std::fprintf(out, "%s%lld", i ? ", " : "", static_cast<long long>(values[i]));
    }
    std::fprintf(out, "]\n");
}

template <typename T, size_t N>
void list(const char* name, const std::array<T, N>& values, const char* comment) {
    list(name, std::span<const T>(values), comment);
}

// The values f(0) .. f(N - 1) as a table.
template <size_t N, typename F>
auto table(F f) {
    std::array<decltype(f(0u)), N> t{};
    for (uint32_t i = 0; i < N; ++i) t[i] = f(i);
    return t;
}

void number(const char* name, long long value, const char* comment) {
    if (*comment != '\0') std::fprintf(out, "# %s\n", comment);
    std::fprintf(out, "%s = %lld\n", name, value);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: tervane-tables OUT.py\n");
        return 2;
    }
    out = std::fopen(argv[1], "w");
    if (out == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    std::fprintf(out,
                 "\"\"\"tervane's names and numbers for the Python companions, written by the build\n"
                 "from the transmitter's own tables (do not edit).\"\"\"\n\n");
    std::fprintf(out, "# The version of the transmitter and its companions.\nVERSION = \"%s\"\n", TERVANE_VERSION);

    // The 25 options: kinds, list names and defaults.
    int32_t verbosity = 0;
    const auto options = tervane_options(&verbosity);
    const char* kinds[] = {"-", "flag", "-", "-", "int", "list", "-", "-", "-", "real", "-", "text"};
    std::fprintf(out, "# tervane's options: their kinds, the names a list option takes and every default.\n");
    std::fprintf(out, "KINDS = {");
    for (const dvbOption& o : options) std::fprintf(out, "\"%s\": \"%s\", ", o.name, kinds[o.kind]);
    std::fprintf(out, "}\nNAMES = {");
    for (const dvbOption& o : options) {
        if (o.kind != dvbList) continue;
        std::fprintf(out, "\n    \"%s\": [", o.name);
        for (uint16_t k = 0; k < o.nnames; ++k) std::fprintf(out, "%s\"%s\"", k ? ", " : "", o.names[k]);
        std::fprintf(out, "],");
    }
    std::fprintf(out, "\n}\nDEFAULTS = {");
    for (const dvbOption& o : options) {
        if (o.kind == dvbReal) std::fprintf(out, "\"%s\": %s, ", o.name, real(o.rdefault).c_str());
        else if (o.kind == dvbString) std::fprintf(out, "\"%s\": None, ", o.name);
        else std::fprintf(out, "\"%s\": %d, ", o.name, o.idefault);
    }
    std::fprintf(out, "}\n\n");

    list("FFT_SIZE", dvbt_fftsize, "FFT size, data cells, active carriers and TPS carriers by mode (2k, 4k, 8k)");
    list("N_DATA", dvbt_N, "");
    list("N_CARRIERS", dvbt_K, "");
    list("N_TPS", dvbt_Ntps, "");
    list("N_CPILOT", cpilot_count, "continual pilots by mode");
    list("BITS", dvbt_bitpersymb, "bits per cell by constellation");
    list("GUARD_DIV", table<4>([](uint32_t d) { return static_cast<int32_t>(1.0f / dvbt_guardfrac[d] + 0.5f); }),
         "the guard interval is the FFT size divided by these");
    list("FS", table<4>([](uint32_t b) { return dvbSampleRate(b, 0); }),
         "elementary sample rate in Hz by channel spacing");
    list("INTERP", table<3>([](uint32_t i) { return static_cast<int32_t>(dvbt_interprate[i]); }),
         "interpolation factors");
    const std::array<int32_t, 3> delay{0, static_cast<int32_t>(filter2x.size() / 2),
                                       static_cast<int32_t>(filter4x.size() / 2)};
    list("FILTER_DELAY", delay, "delay of the interpolation filter in output samples");
    number("SYMBOLS_PER_FRAME", dvbt_frame_symbols, "the frame structure");
    number("FRAMES_PER_SUPERFRAME", dvbt_superframe_frames, "");
    list("CPILOT", cpilot, "continual pilot carriers of 8k; those below K serve 2k and 4k");
    list("TPS", tps, "TPS carriers of 8k; those below K serve 2k and 4k");
    list("FULL_SCALE", dvbt_fullscale, "full scale of the sample formats std, agi and agiold");
    list("REF_AMPLITUDE", table<3>(dvbRefAmplitude), "reference amplitude of the integer formats by mode");
    number("TS_PACKET", TS_PACKET, "transport stream packets: size, sync byte, null PID");
    number("TS_SYNC", TS_SYNC, "");
    number("TS_NULL_PID", TS_NULL_PID, "");
    number("RS_PACKET", TS_PACKET + 16, "a packet after the Reed-Solomon code");
    number("PRBS_DEGREE", Prbs23::kDegree, "the test streams' PRBS x^23 + x^18 + 1");
    number("PRBS_TAP", Prbs23::kTap, "");
    if (std::fclose(out) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
