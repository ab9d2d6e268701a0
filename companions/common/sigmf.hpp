// SigMF metadata beside a recording: the few global fields the companions use.
#pragma once

#include <optional>
#include <string>

namespace companion {

struct SigmfInfo {
    std::string meta;                   // the metadata file read
    std::string datatype;               // "core:datatype", e.g. cf32_le, ci16_be, ci8
    std::optional<double> sample_rate;  // "core:sample_rate", Hz
    std::optional<double> frequency;    // "core:frequency" of the first capture, Hz
};

// The metadata file of a data file: NAME.sigmf-meta for NAME.sigmf-data,
// NAME.bin or NAME (tervane-view writes out.sigmf-meta beside out.bin).
std::string sigmf_meta_name(const std::string& data_file);

// Reads the metadata beside data_file; nothing when there is none. A file
// that is not SigMF (not JSON, no "global" object, a field of the wrong type)
// fails with status 1, naming the file and what is wrong.
std::optional<SigmfInfo> read_sigmf(const std::string& data_file);

}  // namespace companion
