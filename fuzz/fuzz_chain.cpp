// Fuzz target: the whole chain on arbitrary bytes taken as transport stream.
// The first HEADER bytes choose the transmission parameters and the batch
// size; the rest is the stream, read through fmemopen. In hierarchical runs a
// split position divides it into the HP and the LP stream. The set-up follows
// the driver: buffer lengths from the requested constellation, then the two
// adjustments of the parameter report (hierarchical QPSK runs as 16-QAM, no
// in-depth interleaving in 8k), then chain_create, passes until nothing moves,
// chain_destroy. Nothing is printed (verbosity 0); sample and dump files go to
// /dev/null only when a header bit asks for them, so that the writers of the
// integer formats are exercised with every gain.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <vector>

#include "frame/chain.hpp"
#include "frame/files.hpp"
#include "frame/params.hpp"

namespace {

constexpr size_t HEADER = 16;

// Gains of the integer formats, the awkward ones included.
constexpr float gains[] = {4.2f,
                           1.0f,
                           0.0f,
                           -1.0f,
                           1.0e-30f,
                           -1.0e30f,
                           1.0e-40f,
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(),
                           std::numeric_limits<float>::quiet_NaN()};

FILE* sink() {
    static FILE* null_fp = std::fopen("/dev/null", "wb");
    return null_fp;
}

// A read-only stream over a copy of the bytes; an empty one reads /dev/null
// (fmemopen refuses a zero size).
FILE* open_stream(std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return std::fopen("/dev/null", "rb");
    return fmemopen(bytes.data(), bytes.size(), "rb");
}

void set_dump_files(FILE* fp) {
    FILE** all[] = {&ed_hp_fp, &ed_lp_fp, &rs_hp_fp, &rs_lp_fp, &ci_hp_fp, &ci_lp_fp, &ve_hp_fp, &ve_lp_fp, &pu_hp_fp,
                    &pu_lp_fp, &bi_fp,    &si_fp,    &ma_fp,    &fd_fp,    &td_fp,    &tdI_fp,   &tdQ_fp};
    for (FILE** f : all) *f = fp;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < HEADER) return 0;
    const uint8_t* h = data;

    dvbt_parms_t& p = dvbt_parms;
    p = dvbt_parms_t{};
    p.mode = h[0] % 3u;
    p.M = h[1] % 3u;
    p.alpha = h[2] % 4u;
    p.delta = h[3] % 4u;
    p.rate = h[4] % 5u;
    p.rate_hp = (h[4] / 5u) % 5u;
    p.rate_lp = h[5] % 5u;
    p.band = (h[5] / 5u) % 4u;
    p.cinit = h[6] & 1u;
    p.idi = (h[6] >> 1) & 1u;
    const bool with_files = ((h[6] >> 2) & 1u) != 0;
    p.ifftmm = h[7] % 3u;
    p.interp = (h[7] / 3u) % 3u;
    p.dumpformat = h[8] % 3u;
    p.gain = gains[(h[8] / 3u) % std::size(gains)];
    // Cell identifier: any 32-bit value, negative ones included ("not set").
    p.cid = static_cast<int32_t>(uint32_t{h[9]} | uint32_t{h[10]} << 8 | uint32_t{h[11]} << 16 | uint32_t{h[12]} << 24);
    packnum = 5 + h[13] % 8;
    const size_t split = size_t{h[14]} | size_t{h[15]} << 8;
    verbosity = 0;

    // Buffer lengths exactly as the driver derives them.
    chain_set_lengths();

    // The two adjustments of the parameter report.
    settle_parms();
    const bool hier = dvbt_hierarchical();

    // The streams.
    const uint8_t* ts = data + HEADER;
    const size_t ts_len = size - HEADER;
    const size_t hp_len = hier ? (ts_len == 0 ? 0 : split % (ts_len + 1)) : ts_len;
    std::vector<uint8_t> hp_bytes(ts, ts + hp_len);
    std::vector<uint8_t> lp_bytes(ts + hp_len, ts + ts_len);
    mpeg2ts_hp_fp = open_stream(hp_bytes);
    mpeg2ts_lp_fp = hier ? open_stream(lp_bytes) : nullptr;
    if (mpeg2ts_hp_fp == nullptr || (hier && mpeg2ts_lp_fp == nullptr)) std::abort();
    tot_flen = static_cast<uint32_t>(ts_len);

    // Output and dump files, and the scale factor as the files module computes it.
    set_dump_files(with_files ? sink() : nullptr);
    tdstream_sf = dvbIntegerScale(p.dumpformat, p.mode, p.gain);

    // The outer interleaver's random fill: the same sequence in every run.
    std::srand(1);
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;
    chain_create();
    while (chain_pass()) {}
    chain_destroy();

    std::fclose(mpeg2ts_hp_fp);
    mpeg2ts_hp_fp = nullptr;
    if (mpeg2ts_lp_fp != nullptr) std::fclose(mpeg2ts_lp_fp);
    mpeg2ts_lp_fp = nullptr;
    set_dump_files(nullptr);
    return 0;
}
