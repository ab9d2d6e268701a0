// Input checks, the dump and output files, and small byte-ring transfers.
#include "frame/files.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "vectors/written.hpp"

FILE* mpeg2ts_hp_fp = nullptr;
FILE* mpeg2ts_lp_fp = nullptr;
uint32_t tot_flen = 0;
int32_t dumps[DUMP_KINDS] = {};
FILE *ed_hp_fp = nullptr, *ed_lp_fp = nullptr, *rs_hp_fp = nullptr, *rs_lp_fp = nullptr, *ci_hp_fp = nullptr,
     *ci_lp_fp = nullptr, *ve_hp_fp = nullptr, *ve_lp_fp = nullptr, *pu_hp_fp = nullptr, *pu_lp_fp = nullptr,
     *bi_fp = nullptr, *si_fp = nullptr, *ma_fp = nullptr, *fd_fp = nullptr;
FILE *td_fp = nullptr, *tdI_fp = nullptr, *tdQ_fp = nullptr;
float tdstream_sf = 0.0f;

namespace {

// Name buffers hold 126 characters and the terminating zero.
constexpr size_t NAME_MAX_CHARS = 126;

// The warnings of failed writes go to the screen and the log.
void report_warning(const char* text) { dvbMsgPrint(0, "%s", text); }

// Stem used for every output name when no basename is given.
constexpr const char* DEFAULT_STEM = "tervane";

// A named file is an input only when it is a regular file (or a device or pipe
// that can be read); a directory opens under Linux but cannot be read.
FILE* open_input(const char* name) {
    struct stat st {};
    if (stat(name, &st) != 0 || S_ISDIR(st.st_mode)) return nullptr;
    return std::fopen(name, "rb");
}

uint32_t file_size(const char* name) {
    struct stat st {};
    if (stat(name, &st) != 0) return 0;
    return static_cast<uint32_t>(static_cast<uint64_t>(st.st_size));
}

[[noreturn]] void fatal_missing(const char* which) {
    dvbMsgPrint(0, "FATAL ERROR: no MPEG-2 TS %sfile name given.\nTry -h for command line parameters help.\n", which);
    std::exit(1);
}

[[noreturn]] void fatal_cant_find(const char* name) {
    dvbMsgPrint(0, "FATAL ERROR: Can't find \"%s\"\n", name);
    std::exit(1);
}

// Whether the named file is one of the open inputs (same device and inode).
bool is_input(const char* name) {
    struct stat out {};
    if (stat(name, &out) != 0) return false;
    for (FILE* in : {mpeg2ts_hp_fp, mpeg2ts_lp_fp}) {
        struct stat st {};
        if (in != nullptr && fstat(fileno(in), &st) == 0 && st.st_dev == out.st_dev && st.st_ino == out.st_ino)
            return true;
    }
    return false;
}

// Forms stem + suffix, announces it and opens it for writing; a name that does
// not fit the name buffer, a name that is one of the inputs (creating it would
// destroy the stream being read) or a file that cannot be created is skipped
// with a warning.
FILE* open_dump(const std::string& stem, const char* suffix, const char* message, const char* unit = "bytes",
                uint32_t unit_size = 1) {
    const std::string name = stem + suffix;
    if (message != nullptr) dvbMsgPrint(2, message, name.c_str());
    if (name.size() > NAME_MAX_CHARS) {
        dvbMsgPrint(0, "WARNING: file name too long (%zu characters, at most %zu): \"%s\" -> skipping ...\n",
                    name.size(), NAME_MAX_CHARS, name.c_str());
        return nullptr;
    }
    if (is_input(name.c_str())) {
        dvbMsgPrint(0, "WARNING: \"%s\" is an input file and would be overwritten -> skipping ...\n", name.c_str());
        return nullptr;
    }
    FILE* fp = std::fopen(name.c_str(), "wb");
    if (fp == nullptr) dvbMsgPrint(0, "WARNING: Can't open \"%s\" -> skipping ...\n", name.c_str());
    else track_file(fp, name.c_str(), unit, unit_size, report_warning);
    return fp;
}

struct DumpRow {
    FILE** hp;
    FILE** lp;  // null for the single-file dumps
    const char* nh_suffix;
    const char* nh_message;
    const char* hp_suffix;
    const char* hp_message;
    const char* lp_suffix;
    const char* lp_message;
};

}  // namespace

void open_files() {
    const bool hier = dvbt_hierarchical();
    if (!hier) {
        if (mpeg2ts_fname == nullptr) fatal_missing("");
        mpeg2ts_hp_fp = open_input(mpeg2ts_fname);
        if (mpeg2ts_hp_fp == nullptr) fatal_cant_find(mpeg2ts_fname);
        dvbMsgPrint(3, "Checking MPEG-2 TS file length ... ");
        tot_flen = file_size(mpeg2ts_fname);
        dvbMsgPrint(3, "%d bytes\n", static_cast<int>(tot_flen));
    } else {
        if (mpeg2ts_hp_fname == nullptr) fatal_missing("HP ");
        if (mpeg2ts_lp_fname == nullptr) fatal_missing("LP ");
        mpeg2ts_hp_fp = open_input(mpeg2ts_hp_fname);
        if (mpeg2ts_hp_fp == nullptr) fatal_cant_find(mpeg2ts_hp_fname);
        mpeg2ts_lp_fp = open_input(mpeg2ts_lp_fname);
        if (mpeg2ts_lp_fp == nullptr) fatal_cant_find(mpeg2ts_lp_fname);
        dvbMsgPrint(3, "Checking MPEG-2 TS files length ... ");
        const uint32_t hp = file_size(mpeg2ts_hp_fname);
        const uint32_t lp = file_size(mpeg2ts_lp_fname);
        tot_flen = hp + lp;
        dvbMsgPrint(3, "%d bytes (HP) + %d bytes (LP)\n", static_cast<int>(hp), static_cast<int>(lp));
    }

    for (int32_t& d : dumps) d = 0;
    const char* types = dumptypes != nullptr ? dumptypes : "";
    for (int i = 0; i < DUMP_KINDS; ++i)
        if (std::strchr(types, DUMP_LETTERS[i]) != nullptr) dumps[i] = 1;

    // The stem ends at the first "." of the name's last component.
    std::string stem = DEFAULT_STEM;
    if (out_fname != nullptr) {
        stem = out_fname;
        const size_t slash = stem.rfind('/');
        const size_t dot = stem.find('.', slash == std::string::npos ? 0 : slash + 1);
        if (dot != std::string::npos) stem.resize(dot);
    } else if (dumps[DUMP_TIME_DOMAIN] != 0) {
        dvbMsgPrint(2, "WARNING: no DAC stream file name given -> using %s.bin\n", stem.c_str());
    }

    const DumpRow rows[DUMP_TIME_DOMAIN] = {
        {&ed_hp_fp, &ed_lp_fp, "_ed.bin", "Energy disperder dumping selected: %s\n", "_edhp.bin",
         "Energy disperder HP dumping selected: %s\n", "_edlp.bin", "Energy disperder LP dumping selected: %s\n"},
        {&rs_hp_fp, &rs_lp_fp, "_rs.bin", "Reed-Solomon encoder dumping selected: %s\n", "_rshp.bin",
         "Reed-Solomon HP encoder dumping selected: %s\n", "_rslp.bin",
         "Reed-Solomon LP encoder dumping selected: %s\n"},
        {&ci_hp_fp, &ci_lp_fp, "_ci.bin", "Convolutional interleaver dumping selected: %s\n", "_cihp.bin",
         "Convolutional HP interleaver dumping selected: %s\n", "_cilp.bin",
         "Convolutional LP interleaver dumping selected: %s\n"},
        {&ve_hp_fp, &ve_lp_fp, "_ve.bin", "Convolutional encoder dumping selected: %s\n", "_vehp.bin",
         "Convolutional HP encoder dumping selected: %s\n", "_velp.bin",
         "Convolutional LP encoder dumping selected: %s\n"},
        {&pu_hp_fp, &pu_lp_fp, "_pu.bin", "Puncturer dumping selected: %s\n", "_puhp.bin",
         "HP Puncturer dumping selected: %s\n", "_pulp.bin", "LP Puncturer dumping selected: %s\n"},
        {&bi_fp, nullptr, "_bi.bin", "Bit interleaver dumping selected: %s\n", nullptr, nullptr, nullptr, nullptr},
        {&si_fp, nullptr, "_si.bin", "Symbol interleaver stream dumping selected\n", nullptr, nullptr, nullptr,
         nullptr},
        {&ma_fp, nullptr, "_ma.bin", "Mapper stream dumping selected\n", nullptr, nullptr, nullptr, nullptr},
        {&fd_fp, nullptr, "_fd.bin", "frequency domain dumping selected: %s\n", nullptr, nullptr, nullptr, nullptr},
    };
    for (int i = 0; i < DUMP_TIME_DOMAIN; ++i) {
        if (dumps[i] == 0) continue;
        const DumpRow& r = rows[i];
        if (hier && r.lp != nullptr) {
            *r.hp = open_dump(stem, r.hp_suffix, r.hp_message);
            *r.lp = open_dump(stem, r.lp_suffix, r.lp_message);
        } else {
            *r.hp = open_dump(stem, r.nh_suffix, r.nh_message);
        }
    }

    if (dumps[DUMP_TIME_DOMAIN] != 0) {
        tdstream_sf = dvbIntegerScale(dvbt_parms.dumpformat, dvbt_parms.mode, dvbt_parms.gain);
        switch (dvbt_parms.dumpformat) {
        case 0:
            td_fp = open_dump(stem, ".bin", "Time domain dumping selected - Standard format: %s\n", "samples", 8);
            break;
        case 1:
            td_fp = open_dump(stem, "_agi.bin", "Time domain dumping selected - Agilent format: %s\n", "samples", 4);
            break;
        default:
            dvbMsgPrint(2, "Time domain dumping selected - Old Agilent format: _I & _Q\n");
            tdI_fp = open_dump(stem, "_I.bin", nullptr, "samples", 2);
            tdQ_fp = open_dump(stem, "_Q.bin", nullptr, "samples", 2);
            if (tdI_fp != nullptr && tdQ_fp != nullptr) {
                pair_files(tdI_fp, tdQ_fp);
            }
            break;
        }
    }
}

bool close_files() { return finish_outputs(); }

uint32_t out2null(dvbVect* ring, uint32_t maxlen) {
    if (ring->fill == 0) return 0;
    const uint32_t n = dvbRingUnits(ring, 1, nullptr, 1, maxlen, 1);
    dvbRingConsume(ring, n);
    return n;
}

uint32_t out2file(dvbVect* ring, FILE* fp, uint32_t maxlen) {
    if (ring->fill == 0) return 0;
    const uint32_t n = dvbRingUnits(ring, 1, nullptr, 1, maxlen, 1);
    const size_t done = fp != nullptr ? dvbRingWrite(ring, ring->head, n, fp) : n;
    dvbRingConsume(ring, static_cast<uint32_t>(done));
    return static_cast<uint32_t>(done);
}

uint32_t in2out(dvbVect* in, dvbVect* out, uint32_t maxlen) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    const uint32_t n = dvbRingUnits(in, 1, out, 1, maxlen, 1);
    uint32_t r = in->head, w = dvbRingWritePos(out);
    const uint8_t* src = dvbBytes(in);
    uint8_t* dst = dvbBytes(out);
    for (uint32_t i = 0; i < n; ++i) {
        dst[w] = src[r];
        if (++r == in->len) r = 0;
        if (++w == out->len) w = 0;
    }
    dvbRingConsume(in, n);
    out->fill += n;
    std::printf("in2out:   %d\n", static_cast<int>(n));
    return 1;
}

uint32_t file2in(FILE* fp, dvbVect* ring, uint32_t maxlen) {
    if (ring->fill == ring->len) return 0;
    const uint32_t n = dvbRingUnits(nullptr, 1, ring, 1, maxlen, 1);
    const size_t got = dvbRingRead(fp, ring, dvbRingWritePos(ring), n);
    ring->fill += static_cast<uint32_t>(got);
    std::printf("file2in:  %d\n", static_cast<int>(got));
    return got == n ? 1u : 0u;
}
