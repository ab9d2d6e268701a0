// Sample input of the receiver: the formats tervane writes and those SDR
// recordings come in, read in blocks from a file or a pipe and turned into
// complex floats, so that a recording of any length needs little memory.
#pragma once

#include <complex>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rx {

enum class Format {
    cf32,     // float32 I/Q, little-endian: tervane's std, SigMF cf32_le
    ci16_be,  // int16 I/Q, big-endian: tervane's agi, SigMF ci16_be
    ci16_le,  // int16 I/Q, little-endian: SDR recordings (cs16), SigMF ci16_le
    ci8,      // int8 I/Q: SDR recordings (cs8), SigMF ci8
    cu8,      // uint8 I/Q offset by 128 (RTL-SDR), SigMF cu8
};

// The format of a name: tervane's (std, agi), SoapySDR's (CF32, CS16, CS8, CU8,
// any case) or SigMF's (cf32_le, ci16_le, ci16_be, ci8, cu8).
std::optional<Format> format_of(std::string_view name);
const char* format_name(Format f);
int format_bytes(Format f);  // bytes per complex sample

struct SampleReader {
    std::FILE* fp = nullptr;
    bool own = false;
    Format format = Format::cf32;
    std::vector<uint8_t> raw;
    size_t pending = 0;        // bytes of a partial sample kept from the last read
    uint64_t samples = 0;      // samples delivered so far
    bool error = false;        // a read failed (errno holds why)
    bool partial_end = false;  // the input ended inside a sample
    SampleReader() = default;
    SampleReader(const SampleReader&) = delete;
    SampleReader& operator=(const SampleReader&) = delete;
    ~SampleReader();
};

// Opens a file, or standard input for "-"; false when it cannot be opened.
bool reader_open(SampleReader& r, const std::string& name, Format f);
// Rewinds a file to its start (for a second pass); false for a pipe.
bool reader_rewind(SampleReader& r);
// Fills out with the next samples and returns their count, 0 at the end or on
// an error (see error, partial_end).
size_t reader_read(SampleReader& r, std::span<std::complex<float>> out);

// Converts whole samples of raw bytes in the format into out (as many as fit).
void convert_samples(Format f, const uint8_t* raw, size_t n, std::complex<float>* out);

}  // namespace rx
