// Command-line option parser: every option is described by a descriptor and
// looked up independently in the whole argument vector.
#pragma once

#include <cstdint>

enum : uint32_t {
    dvbBool = 1,
    dvbInt = 4,
    dvbList = 5,
    dvbReal = 9,
    dvbString = 11,
};

// Size of the text block each dvbString target receives.
inline constexpr unsigned DVB_STRING_BLOCK = 120;

struct dvbOption {
    const char* name;                    // exact option text, leading '-' included
    uint32_t kind;                       // dvbBool, dvbInt, dvbList, dvbReal or dvbString
    uint16_t nnames = 0;                 // dvbList: number of names
    const char* const* names = nullptr;  // dvbList: name table
    int idefault = 0;                    // dvbBool, dvbInt, dvbList default
    double rdefault = 0.0;               // dvbReal default
    const char* sdefault = "";           // dvbString default
    void* target = nullptr;              // int32_t*, uint32_t*, float* or char**
    const char* description = "";        // used by dvbPrintCommArgs only
};

unsigned dvbGetCommArgs(int argc, const char* const* argv, uint16_t nopts, const dvbOption* opts);
unsigned dvbPrintCommArgs(uint16_t nopts, const dvbOption* opts);
