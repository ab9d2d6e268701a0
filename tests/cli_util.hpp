// Helpers for tests that run the real executables in a temporary directory.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace cli {

namespace fs = std::filesystem;

// A fresh directory removed at the end of the test.
struct TempDir {
    fs::path path;
    TempDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = "tervane-";
        if (info != nullptr) {
            name += info->test_suite_name();
            name += '-';
            name += info->name();
        }
        name += '-';
        name += std::to_string(::getpid());
        path = fs::temp_directory_path() / name;
        fs::remove_all(path);
        fs::create_directories(path);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    fs::path operator/(const std::string& name) const { return path / name; }
};

struct Result {
    int status = -1;
    std::string out;  // standard output
};

inline std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') q += "'\\''";
        else q += c;
    }
    return q + "'";
}

// Runs exe with args in dir; captures standard output (standard error goes to
// a file err.txt in dir).
inline Result run(const fs::path& dir, const std::string& exe, const std::vector<std::string>& args) {
    std::string cmd = "cd ";
    cmd += quote(dir.string());
    cmd += " && ";
    cmd += quote(exe);
    for (const auto& a : args) {
        cmd += ' ';
        cmd += quote(a);
    }
    cmd += " 2>err.txt";
    Result r;
    FILE* p = ::popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

inline Result tervane(const fs::path& dir, const std::vector<std::string>& args) {
    return run(dir, TERVANE_EXE, args);
}

inline std::vector<unsigned char> read_file(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline std::string read_text(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline void write_file(const fs::path& p, const std::vector<unsigned char>& data) {
    std::ofstream f(p, std::ios::binary);
    f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

// A transport stream of n packets: sync byte 0x47 and a payload that differs
// from packet to packet.
inline std::vector<unsigned char> make_ts(size_t packets, unsigned seed = 1) {
    std::vector<unsigned char> ts(packets * 188);
    uint32_t x = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < ts.size(); ++i) {
        x = x * 1664525u + 1013904223u;
        ts[i] = (i % 188 == 0) ? 0x47 : static_cast<unsigned char>(x >> 24);
    }
    return ts;
}

// Text after the log's header line and the empty line that follows it.
inline std::string log_body(const std::string& log) {
    const size_t first = log.find('\n');
    if (first == std::string::npos) return {};
    const size_t second = log.find('\n', first + 1);
    if (second == std::string::npos) return {};
    return log.substr(second + 1);
}

}  // namespace cli
