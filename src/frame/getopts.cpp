// Command-line option parser. Every descriptor first receives its default, then
// the whole argument vector is searched for its exact name. Nothing is reported:
// what cannot be used is ignored.
#include "frame/getopts.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Base-10 conversion that saturates at the limits of a 32-bit signed integer;
// a text without digits gives 0.
int32_t to_int32(const char* text) {
    errno = 0;
    const long long v = std::strtoll(text, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// A fresh block for a string target: 120 bytes, or more when the text needs it,
// so that a long value is kept whole.
char* string_block(const char* text) {
    const size_t n = std::strlen(text) + 1;
    const size_t size = n > DVB_STRING_BLOCK ? n : DVB_STRING_BLOCK;
    auto* block = static_cast<char*>(std::calloc(size, 1));
    if (block != nullptr) std::memcpy(block, text, n);
    return block;
}

void store_default(const dvbOption& o) {
    switch (o.kind) {
    case dvbBool:
    case dvbInt: *static_cast<int32_t*>(o.target) = o.idefault; break;
    case dvbList: *static_cast<uint32_t*>(o.target) = static_cast<uint16_t>(o.idefault); break;
    case dvbReal: *static_cast<float*>(o.target) = static_cast<float>(o.rdefault); break;
    case dvbString: *static_cast<char**>(o.target) = string_block(o.sdefault); break;
    default: break;
    }
}

void scan(const dvbOption& o, int argc, const char* const* argv) {
    for (int a = 1; a < argc; ++a) {
        if (argv[a] == nullptr || std::strcmp(argv[a], o.name) != 0) continue;
        if (o.kind == dvbBool) {
            *static_cast<int32_t*>(o.target) = 1;
            return;
        }
        if (a + 1 >= argc || argv[a + 1] == nullptr) continue;
        const char* value = argv[a + 1];
        switch (o.kind) {
        case dvbInt: *static_cast<int32_t*>(o.target) = to_int32(value); return;
        case dvbReal: *static_cast<float*>(o.target) = static_cast<float>(std::strtod(value, nullptr)); return;
        case dvbString: {
            char*& target = *static_cast<char**>(o.target);
            if (std::strlen(value) + 1 > DVB_STRING_BLOCK) {
                std::free(target);
                target = string_block(value);
            } else if (target != nullptr) {
                std::strcpy(target, value);
            }
            return;
        }
        case dvbList:
            for (uint16_t k = 0; k < o.nnames; ++k) {
                if (std::strcmp(value, o.names[k]) == 0) {
                    *static_cast<uint32_t*>(o.target) = k;
                    break;
                }
            }
            ++a;  // the scan goes on after the value
            break;
        default: return;
        }
    }
}

}  // namespace

unsigned dvbGetCommArgs(int argc, const char* const* argv, uint16_t nopts, const dvbOption* opts) {
    for (uint16_t i = 0; i < nopts; ++i) {
        store_default(opts[i]);
        if (argc <= 1) continue;
        scan(opts[i], argc, argv);
    }
    return 0;
}

unsigned dvbPrintCommArgs(uint16_t nopts, const dvbOption* opts) {
    std::printf("Command line options\n====================\n");
    for (uint16_t i = 0; i < nopts; ++i) {
        const dvbOption& o = opts[i];
        std::printf("\n");
        switch (o.kind) {
        case dvbBool:
            std::printf("%s\t%s\n\t(dvbBool, default: [%s])\n", o.name, o.description,
                        o.idefault != 0 ? "TRUE" : "FALSE");
            break;
        case dvbInt: std::printf("%s\t%s\n\t(dvbInt, default: [%d])\n", o.name, o.description, o.idefault); break;
        case dvbReal:
            std::printf("%s\t%s\n\t(dvbReal, default: [%f])\n", o.name, o.description,
                        static_cast<double>(static_cast<float>(o.rdefault)));
            break;
        case dvbString: std::printf("%s\t%s\n\t(dvbString, default: [%s])\n", o.name, o.description, o.sdefault); break;
        case dvbList:
            std::printf("%s\t%s\n\tdvbList, {", o.name, o.description);
            for (uint16_t k = 0; k < o.nnames; ++k) std::printf(k == o.idefault ? " [%s] |" : " %s |", o.names[k]);
            std::printf("\b}\n");
            break;
        default: break;
        }
    }
    std::printf("\n");
    return 0;
}
