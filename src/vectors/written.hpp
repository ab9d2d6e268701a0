// Checked writes of the files a run writes. Each registered file has a name,
// a unit its warning counts in and a reporter; its first failed write reports
// one warning (its name, how much it holds, the system's reason) and the file
// then takes no more writes: they count as done, as for a file never opened.
// The two files of a pair (the "agiold" I and Q) are cut to the same number of
// units after a failure of either. Files not registered are written unchecked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

// Registers fp. report receives each warning as one line of text; an output
// counts towards finish_outputs, the log (output false) is closed on its own.
void track_file(FILE* fp, const char* name, const char* unit, uint32_t unit_size, void (*report)(const char*),
                bool output = true);
// Makes two registered files a pair.
void pair_files(FILE* a, FILE* b);
// Whether fp failed and takes no more writes.
bool file_failed(FILE* fp);
// Reports the first failure of fp, with the reason err (0 when unknown).
void fail_file(FILE* fp, int err);
// fwrite to a file (or none), checked; returns the elements written.
size_t checked_write(const void* data, size_t size, size_t n, FILE* fp);
// dvbRingWrite to a file (or none), checked.
size_t checked_ring_write(const dvbVect* v, uint32_t pos, uint32_t n, FILE* fp);
// Flushes and closes one registered file; returns whether it is complete.
bool finish_file(FILE* fp);
// Flushes every registered output, then closes them all, reporting a failure
// not seen yet; returns whether all of them are complete.
bool finish_outputs();
