// Shared test helpers: scratch directories, running the real programs, files,
// test streams, owned vectors and rings, and a scoped verbosity.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "frame/params.hpp"
#include "vectors/cpu.hpp"
#include "vectors/manage.hpp"

namespace tu {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// A fresh directory under the system's temporary directory, removed at the end.
struct TempDir {
    fs::path path;
    TempDir() {
        std::string name = (fs::temp_directory_path() / "tervane-test-XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr) << name;
        path = name;
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    fs::path operator/(const std::string& name) const { return path / name; }
    operator const fs::path&() const { return path; }
};

struct Result {
    int status = -1;
    std::string out;  // standard output; standard error goes to err.txt in the directory
};

inline std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline Result run(const fs::path& dir, const std::string& exe, const std::vector<std::string>& args) {
    // No file a program writes may grow past 2 GiB (in 512-byte blocks), so that a
    // fault that loops cannot fill the disk.
    std::string cmd = "ulimit -f 4194304 && cd " + quote(dir.string()) + " && " + quote(exe);
    for (const auto& a : args) cmd += ' ' + quote(a);
    Result r;
    FILE* p = ::popen((cmd + " 2>err.txt").c_str(), "r");
    if (p == nullptr) return r;
    char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

inline Result tervane(const fs::path& dir, const std::vector<std::string>& args) { return run(dir, TERVANE_EXE, args); }

inline Bytes read_file(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline std::string read_text(const fs::path& p) {
    const Bytes b = read_file(p);
    return {b.begin(), b.end()};
}

inline void write_file(const fs::path& p, const Bytes& data) {
    std::ofstream f(p, std::ios::binary);
    f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A transport stream of n packets: sync byte 0x47 and a payload that differs
// from packet to packet.
inline Bytes make_ts(size_t packets, unsigned seed = 1) {
    Bytes ts(packets * 188);
    uint32_t x = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < ts.size(); ++i) {
        x = x * 1664525u + 1013904223u;
        ts[i] = (i % 188 == 0) ? 0x47 : static_cast<unsigned char>(x >> 24);
    }
    return ts;
}

// The command lines of a manual page's EXAMPLES section (.EX to .EE), its escapes undone.
inline std::vector<std::string> manual_examples(const fs::path& page) {
    std::vector<std::string> lines;
    std::istringstream text(read_text(page));
    bool section = false, in = false;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with(".SH")) section = line == ".SH EXAMPLES";
        else if (line == ".EX" || line == ".EE") in = line == ".EX";
        else if (in && section) {
            std::string plain;
            for (size_t i = 0; i < line.size(); ++i) {
                if (line[i] == '\\' && i + 1 < line.size()) {
                    plain += line[i + 1] == 'e' ? '\\' : line[i + 1];
                    ++i;
                } else {
                    plain += line[i];
                }
            }
            lines.push_back(plain);
        }
    }
    return lines;
}

// Whether Debian's ffmpeg (with ffprobe) is installed.
inline bool have_ffmpeg() {
    return std::system("ffmpeg -version >/dev/null 2>&1 && ffprobe -version >/dev/null 2>&1") == 0;
}

// A programme made by ffmpeg from its own synthetic sources: video at 25
// frames/s and MPEG audio, no -muxrate (variable rate, a PCR every 80 ms on
// the video PID), one programme or two.
inline void make_stream(const TempDir& dir, const std::string& name, bool two_programmes, double seconds = 3) {
    std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=25 -f lavfi -i sine=frequency=1000 ";
    if (two_programmes)
        cmd +=
            "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=500 -map 0:v -map 1:a "
            "-map 2:v -map 3:a -program program_num=1:st=0:st=1 -program program_num=2:st=2:st=3 ";
    cmd += "-t " + std::to_string(seconds) + " -c:v mpeg2video -b:v 2M -c:a mp2 -b:a 128k -f mpegts " + name;
    ASSERT_EQ(run(dir.path, "bash", {"-c", cmd}).status, 0) << read_text(dir / "err.txt");
}

// Frames of the file's first video stream as ffprobe counts them, and what
// ffmpeg says while decoding every stream (nothing, for a good stream).
inline std::pair<int, std::string> decode(const TempDir& dir, const std::string& file) {
    const auto frames = run(dir.path, "ffprobe",
                            {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                             "stream=nb_read_frames", "-of", "csv=p=0", file});
    run(dir.path, "ffmpeg", {"-v", "warning", "-i", file, "-map", "0", "-f", "null", "-"});
    return {std::atoi(frames.out.c_str()), read_text(dir / "err.txt")};
}

// What f prints on standard output.
inline std::string captured(const std::function<void()>& f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// Text after the log's header line and the empty line that follows it.
inline std::string log_body(const std::string& log) {
    const size_t at = log.find("\n\n");
    return at == std::string::npos ? std::string() : log.substr(at + 2);
}

// Owns a handle of the given type, created empty.
struct Vec {
    dvbVect* v = nullptr;
    explicit Vec(uint32_t type) { EXPECT_EQ(priv_dvbCreateVect(&v, type), 0u); }
    ~Vec() { priv_dvbDestroyVect(&v); }
};

// An owned ring of len elements, empty, whose oldest element will sit at
// head. T is uint8_t for a Symbol ring and dvbComplex for a Complex ring.
template <typename T>
struct Ring : Vec {
    static constexpr uint32_t type = std::is_same_v<T, uint8_t> ? Symbol : Complex;
    explicit Ring(uint32_t len, uint32_t head = 0) : Vec(type) {
        dvbConstVect(v, type, len, 0.0, 0.0);
        v->head = head;
        v->fill = 0;
    }
    T* data() { return static_cast<T*>(v->data); }
    void push(const std::vector<T>& b) {
        ASSERT_LE(b.size(), size_t{dvbRingFree(v)});
        for (const T& x : b) data()[dvbRingWritePos(v)] = x, v->fill++;
    }
    std::vector<T> pop_all() {
        std::vector<T> r;
        for (; v->fill > 0; dvbRingConsume(v, 1)) r.push_back(data()[v->head]);
        return r;
    }
};
using ByteRing = Ring<uint8_t>;
using CplxRing = Ring<dvbComplex>;

// Sets the global verbosity for a scope and restores the previous level.
struct Verbose {
    uint16_t saved = verbosity;
    explicit Verbose(uint16_t level) { verbosity = level; }
    ~Verbose() { verbosity = saved; }
};

// The instruction sets of the kernels to try: every one up to the processor's;
// a scope that lowers the kernels' set.
inline std::vector<dvbIsa> isas() {
    std::vector<dvbIsa> v;
    for (int isa = DVB_ISA_BASE; isa <= dvbCpuIsa(); ++isa) v.push_back(static_cast<dvbIsa>(isa));
    return v;
}
struct IsaScope {
    explicit IsaScope(dvbIsa isa) { dvbKernelIsa = isa; }
    ~IsaScope() { dvbKernelIsa = dvbCpuIsa(); }
};

// Sets dvbt_parms to the defaults with the given changes applied.
template <typename Fn>
void set_parms(Fn&& change) {
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.delta = 3;
    dvbt_parms.band = 3;
    dvbt_parms.gain = 4.2f;
    dvbt_parms.cid = -1;
    change(dvbt_parms);
}

}  // namespace tu
