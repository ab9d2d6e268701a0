// The shared layer of the C++ companions.
#include "companion.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "frame/version.hpp"

namespace companion {
namespace {

const char* g_prog = "tervane";
std::string g_partial;
// What the last parse_options saw: each option given and its values, in order.
std::map<std::string, std::vector<std::string>, std::less<>> g_given;

[[noreturn]] void vfail(int status, const char* fmt, std::va_list ap) {
    std::fprintf(stderr, "%s: ", g_prog);
    std::vfprintf(stderr, fmt, ap);
    std::fputc('\n', stderr);
    if (!g_partial.empty()) std::remove(g_partial.c_str());
    std::exit(status);
}

}  // namespace

void start(const char* prog) {
    g_prog = prog;
    std::signal(SIGXFSZ, SIG_IGN);
}

const char* prog() { return g_prog; }

void print_version() { std::printf("%s %s\n", g_prog, TERVANE_VERSION); }

void fail_status(int status, const char* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    vfail(status, fmt, ap);
}

void fail(const char* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    vfail(1, fmt, ap);
}

void parse_options(int argc, char** argv, std::initializer_list<std::span<const dvbOption>> tables, int status) {
    g_given.clear();
    for (int a = 1; a < argc; ++a) {
        const dvbOption* o = nullptr;
        for (auto table : tables)
            for (const dvbOption& t : table)
                if (std::strcmp(argv[a], t.name) == 0) o = &t;
        if (o == nullptr) fail_status(status, "unknown option \"%s\" (%s -h for usage)", argv[a], g_prog);
        auto& values = g_given[o->name];
        if (o->kind == dvbBool) continue;
        if (++a == argc) fail_status(status, "%s needs a value", o->name);
        const char* v = argv[a];
        values.emplace_back(v);
        char* end = nullptr;
        errno = 0;
        bool ok = *v != '\0';
        if (o->kind == dvbList) {
            ok = false;
            for (uint16_t k = 0; k < o->nnames; ++k) ok = ok || std::strcmp(v, o->names[k]) == 0;
        } else if (o->kind == dvbInt) {
            const long long n = std::strtoll(v, &end, 10);
            ok = ok && *end == '\0' && errno == 0 && n >= INT32_MIN && n <= INT32_MAX;
        } else if (o->kind == dvbReal) {
            const double x = std::strtod(v, &end);
            ok = ok && *end == '\0' && errno == 0 && std::isfinite(x);
        }
        if (!ok && o->kind == dvbList) {
            std::string names;
            for (uint16_t k = 0; k < o->nnames; ++k) names += (k ? ", " : "") + std::string(o->names[k]);
            fail_status(status, "%s takes one of %s, not \"%s\"", o->name, names.c_str(), v);
        }
        if (!ok) fail_status(status, "%s: \"%s\" is not a valid value", o->name, v);
    }
    for (auto table : tables) dvbGetCommArgs(argc, argv, static_cast<uint16_t>(table.size()), table.data());
}

bool option_given(const char* name) { return g_given.find(name) != g_given.end(); }

std::vector<std::string> option_values(const char* name) {
    const auto it = g_given.find(name);
    return it == g_given.end() ? std::vector<std::string>{} : it->second;
}

void remove_on_failure(const std::string& path) { g_partial = path; }

bool same_file(const std::string& a, const std::string& b) {
    struct stat sa {};
    struct stat sb {};
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

uint64_t input_size(const std::string& name) {
    struct stat st {};
    if (::stat(name.c_str(), &st) != 0) fail("can't read \"%s\": %s", name.c_str(), std::strerror(errno));
    if (!S_ISREG(st.st_mode)) fail("\"%s\" is not a regular file", name.c_str());
    return static_cast<uint64_t>(st.st_size);
}

void check_not_input(const std::string& out, const std::string& in) {
    if (same_file(out, in)) fail("the output \"%s\" is the input: choose another name", out.c_str());
}

}  // namespace companion
