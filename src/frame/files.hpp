// Input checks, output files and stage dumps.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"
#include "vectors/written.hpp"

extern FILE* mpeg2ts_hp_fp;
extern FILE* mpeg2ts_lp_fp;
extern uint32_t tot_flen;
// The letters of -d, one a stage in chain order, the time-domain samples last;
// dumps[i] is set when letter i was given.
inline constexpr char DUMP_LETTERS[] = "ercvpbsmft";
inline constexpr int DUMP_KINDS = sizeof DUMP_LETTERS - 1;
inline constexpr int DUMP_TIME_DOMAIN = DUMP_KINDS - 1;
extern int32_t dumps[DUMP_KINDS];
extern FILE *ed_hp_fp, *ed_lp_fp, *rs_hp_fp, *rs_lp_fp, *ci_hp_fp, *ci_lp_fp, *ve_hp_fp, *ve_lp_fp, *pu_hp_fp,
    *pu_lp_fp, *bi_fp, *si_fp, *ma_fp, *fd_fp;
extern FILE *td_fp, *tdI_fp, *tdQ_fp;
extern float tdstream_sf;

// Checks and opens the inputs, then the dump and output files; ends the process
// with status 1 on a fatal input error.
void open_files();
// Flushes and closes every output and dump file, reporting a failure not seen
// yet; returns whether all of them are complete.
bool close_files();

// Small byte-ring transfers, kept with the files module.
uint32_t out2null(dvbVect* ring, uint32_t maxlen);
uint32_t out2file(dvbVect* ring, FILE* fp, uint32_t maxlen);
uint32_t in2out(dvbVect* in, dvbVect* out, uint32_t maxlen);
uint32_t file2in(FILE* fp, dvbVect* ring, uint32_t maxlen);
