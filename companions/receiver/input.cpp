#include "receiver/input.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace rx {

std::optional<Format> format_of(std::string_view name) {
    std::string n(name);
    for (char& c : n) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (n == "std" || n == "cf32" || n == "cf32_le") return Format::cf32;
    if (n == "agi" || n == "ci16_be") return Format::ci16_be;
    if (n == "cs16" || n == "ci16" || n == "ci16_le") return Format::ci16_le;
    if (n == "cs8" || n == "ci8") return Format::ci8;
    if (n == "cu8") return Format::cu8;
    return std::nullopt;
}

const char* format_name(Format f) {
    switch (f) {
    case Format::cf32: return "cf32_le";
    case Format::ci16_be: return "ci16_be";
    case Format::ci16_le: return "ci16_le";
    case Format::ci8: return "ci8";
    case Format::cu8: return "cu8";
    }
    return "?";
}

int format_bytes(Format f) {
    switch (f) {
    case Format::cf32: return 8;
    case Format::ci16_be:
    case Format::ci16_le: return 4;
    case Format::ci8:
    case Format::cu8: return 2;
    }
    return 8;
}

void convert_samples(Format f, const uint8_t* raw, size_t n, std::complex<float>* out) {
    switch (f) {
    case Format::cf32: std::memcpy(static_cast<void*>(out), raw, 8 * n); break;
    case Format::ci16_be:
        for (size_t i = 0; i < n; ++i) {
            const uint8_t* p = raw + 4 * i;
            const auto re = static_cast<int16_t>(static_cast<uint16_t>(p[0] << 8 | p[1]));
            const auto im = static_cast<int16_t>(static_cast<uint16_t>(p[2] << 8 | p[3]));
            out[i] = {static_cast<float>(re), static_cast<float>(im)};
        }
        break;
    case Format::ci16_le:
        for (size_t i = 0; i < n; ++i) {
            const uint8_t* p = raw + 4 * i;
            const auto re = static_cast<int16_t>(static_cast<uint16_t>(p[1] << 8 | p[0]));
            const auto im = static_cast<int16_t>(static_cast<uint16_t>(p[3] << 8 | p[2]));
            out[i] = {static_cast<float>(re), static_cast<float>(im)};
        }
        break;
    case Format::ci8:
        for (size_t i = 0; i < n; ++i)
            out[i] = {static_cast<float>(static_cast<int8_t>(raw[2 * i])),
                      static_cast<float>(static_cast<int8_t>(raw[2 * i + 1]))};
        break;
    case Format::cu8:
        for (size_t i = 0; i < n; ++i)
            out[i] = {static_cast<float>(raw[2 * i]) - 127.5f, static_cast<float>(raw[2 * i + 1]) - 127.5f};
        break;
    }
}

SampleReader::~SampleReader() {
    if (own && fp != nullptr) std::fclose(fp);
}

bool reader_open(SampleReader& r, const std::string& name, Format f) {
    r.format = f;
    if (name == "-") {
        r.fp = stdin, r.own = false;
    } else {
        r.fp = std::fopen(name.c_str(), "rb"), r.own = true;
    }
    return r.fp != nullptr;
}

bool reader_rewind(SampleReader& r) {
    if (r.fp == nullptr || std::fseek(r.fp, 0, SEEK_SET) != 0) return false;
    r.pending = 0, r.samples = 0, r.error = false, r.partial_end = false;
    return true;
}

size_t reader_read(SampleReader& r, std::span<std::complex<float>> out) {
    const auto bytes = static_cast<size_t>(format_bytes(r.format));
    if (r.fp == nullptr || out.empty()) return 0;
    // Float samples are read straight into out, the others into raw first.
    const bool direct = r.format == Format::cf32;
    if (!direct) r.raw.resize(out.size() * bytes);
    else if (r.raw.size() < bytes) r.raw.resize(bytes);
    uint8_t* dst = direct ? reinterpret_cast<uint8_t*>(out.data()) : r.raw.data();
    const size_t room = out.size() * bytes;
    if (direct && r.pending > 0) std::memcpy(dst, r.raw.data(), r.pending);
    size_t have = r.pending;
    while (have < bytes) {  // at least one whole sample, or the end
        const size_t got = std::fread(dst + have, 1, room - have, r.fp);
        if (got == 0) {
            if (std::ferror(r.fp)) r.error = true;
            else if (have > 0) r.partial_end = true;
            r.pending = 0;
            return 0;
        }
        have += got;
    }
    const size_t n = have / bytes;
    if (!direct) convert_samples(r.format, r.raw.data(), n, out.data());
    r.pending = have - n * bytes;
    std::memmove(r.raw.data(), dst + n * bytes, r.pending);  // the part of a sample, for the next read
    r.samples += n;
    return n;
}

}  // namespace rx
