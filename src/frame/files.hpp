// Input checks, output files and stage dumps.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

extern FILE* mpeg2ts_hp_fp;
extern FILE* mpeg2ts_lp_fp;
extern uint32_t tot_flen;
// The letters of -d, one a stage in chain order, the time-domain samples last;
// dumps[i] is set when letter i was given.
inline constexpr char DUMP_LETTERS[] = "ercvpbsmft";
inline constexpr int DUMP_KINDS = sizeof DUMP_LETTERS - 1;
inline constexpr int DUMP_TIME_DOMAIN = DUMP_KINDS - 1;
extern int32_t dumps[DUMP_KINDS];
extern FILE *ed_hp_fp, *ed_lp_fp, *rs_hp_fp, *rs_lp_fp, *ci_hp_fp, *ci_lp_fp, *ve_hp_fp,
    *ve_lp_fp, *pu_hp_fp, *pu_lp_fp, *bi_fp, *si_fp, *ma_fp, *fd_fp;
extern FILE *td_fp, *tdI_fp, *tdQ_fp;
extern float tdstream_sf;

// Checks and opens the inputs, then the dump and output files; ends the process
// with status 1 on a fatal input error.
void open_files();
// Flushes and closes every output and dump file, reporting a failure not seen
// yet; returns whether all of them are complete.
bool close_files();

// Checked writes. The output and dump files that open_files opens, and the log,
// are registered with their names; the first failed write of each prints one
// warning (its name, how much it holds, the system's reason) and the file then
// takes no more writes: they count as done, as for a file never opened. The two
// "agiold" files are a pair: after a failure of either both are cut to the same
// number of codes. Files not registered are written without checks.
void track_file(FILE* fp, const char* name, const char* unit, uint32_t unit_size, bool screen_only);
// Whether fp failed and takes no more writes.
bool file_failed(FILE* fp);
// Reports the first failure of fp, with the reason err (0 when unknown).
void fail_file(FILE* fp, int err);
// fwrite to an output or dump file (or none), checked; returns the elements written.
size_t checked_write(const void* data, size_t size, size_t n, FILE* fp);
// dvbRingWrite to an output or dump file (or none), checked.
size_t checked_ring_write(const dvbVect* v, uint32_t pos, uint32_t n, FILE* fp);
// Flushes and closes one registered file; returns whether it is complete.
bool finish_file(FILE* fp);

// Small byte-ring transfers, kept with the files module.
uint32_t out2null(dvbVect* ring, uint32_t maxlen);
uint32_t out2file(dvbVect* ring, FILE* fp, uint32_t maxlen);
uint32_t in2out(dvbVect* in, dvbVect* out, uint32_t maxlen);
uint32_t file2in(FILE* fp, dvbVect* ring, uint32_t maxlen);
