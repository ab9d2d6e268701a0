// Vector files and the text printer of signal vectors.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"

// File flags of dvbWriteVect / dvbReadVect.
enum : uint16_t {
    DVB_FILE_NATIVE = 0x1,      // native file: 45-byte header, raw elements
    DVB_FILE_NATIVE_ALT = 0x2,  // native file, accepted by the reader only
    DVB_FILE_MAT = 0x4,         // Level 4 MAT-file, elements as doubles
};

// Print flags of dvbPrintVect.
enum : uint16_t {
    DVB_PRINT_TYPE = 0x001,   // type name and description
    DVB_PRINT_ADDR = 0x002,   // address of the record
    DVB_PRINT_LEN = 0x004,    // length
    DVB_PRINT_SIZE = 0x008,   // size in bytes
    DVB_PRINT_INDEX = 0x010,  // index before each element
    DVB_PRINT_SHORT = 0x020,  // abbreviated listing
    DVB_PRINT_FRAME = 0x040,  // framed layout
    DVB_PRINT_ACC = 0x080,    // accuracy and range
    DVB_PRINT_FILE = 0x100,   // print into the named file
};

// Writes v to the file name. Results: 6 null vector, 5 no elements, 3 file not
// created, 1 a write failed or the MAT form was asked for an unsupported type.
unsigned dvbWriteVect(const dvbVect* v, const char* name, uint16_t flags);
// Reads the file name into v, replacing its type, length, accuracy, range,
// description and elements; head and fill are kept. Any failure leaves v as it
// was. Results: 6 null vector, 3 file not opened, 1 malformed or truncated file,
// 4 no memory.
unsigned dvbReadVect(dvbVect* v, const char* name, uint16_t flags);
// Prints v as text to standard output, or with flag 0x100 into the file name.
// Results: 6 null vector, 5 Empty vector, 3 file not created, else 0.
unsigned dvbPrintVect(const dvbVect* v, uint16_t flags, const char* name);
