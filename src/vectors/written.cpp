// Checked writes of the files a run writes.
#include "vectors/written.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>

namespace {

// A file the run writes, with what its warning counts.
struct Written {
    FILE* fp;
    std::string name;
    const char* unit;    // "samples" or "bytes"
    uint32_t unit_size;  // bytes per unit
    void (*report)(const char*);
    bool output;  // an output or dump, not the log
    bool failed = false;
    Written* partner = nullptr;  // the other file of the "agiold" pair
};
// Registered at start-up only; a deque keeps the partners' addresses.
std::deque<Written> written;

Written* find_written(FILE* fp) {
    for (Written& w : written)
        if (fp != nullptr && w.fp == fp) return &w;
    return nullptr;
}

// Bytes the file holds once its buffer is flushed: the size of a regular file,
// 0 for a device or a pipe.
uint64_t held_bytes(FILE* fp) {
    std::fflush(fp);
    struct stat st {};
    return fstat(fileno(fp), &st) == 0 && S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
}

// Shortens the file to len bytes when it holds more; returns what it holds.
uint64_t cut(FILE* fp, uint64_t len) {
    const uint64_t held = held_bytes(fp);
    return held > len && ftruncate(fileno(fp), static_cast<off_t>(len)) == 0 ? len : held;
}

void warn(Written& w, uint64_t held, int err, const std::string& also) {
    w.failed = true;
    const auto count = static_cast<unsigned long long>(held / w.unit_size);
    const std::string text = "WARNING: writing \"" + w.name + "\" failed after " + std::to_string(count) + " " +
                             w.unit + ": " + std::strerror(err != 0 ? err : EIO) + also + "\n";
    w.report(text.c_str());
}

// The first failure of an open file: it keeps whole units only, and the two
// files of a pair keep the same number.
void fail(Written& w, int err) {
    uint64_t keep = held_bytes(w.fp);
    if (w.partner != nullptr) {
        w.partner->failed = true;
        keep = std::min(keep, held_bytes(w.partner->fp));
    }
    keep -= keep % w.unit_size;
    const uint64_t held = cut(w.fp, keep);
    std::string also;
    if (w.partner != nullptr)
        also = "; \"" + w.partner->name + "\" kept at the same " +
               std::to_string(cut(w.partner->fp, keep) / w.partner->unit_size) + " " + w.partner->unit;
    warn(w, held, err, also);
}

// What the buffer still holds must reach the file.
void flush_checked(Written& w) {
    errno = 0;
    if (!w.failed && (std::fflush(w.fp) != 0 || std::ferror(w.fp) != 0)) fail(w, errno);
}

// A write that takes fewer elements than asked is the file's first failure.
template <typename Write>
size_t checked(FILE* fp, size_t n, Write write) {
    if (fp == nullptr || file_failed(fp)) return n;
    errno = 0;
    const size_t done = write();
    if (done < n) fail_file(fp, errno);
    return done;
}

void close_checked(Written& w) {
    const uint64_t held = held_bytes(w.fp);
    errno = 0;
    if (std::fclose(w.fp) != 0 && !w.failed) warn(w, held, errno, "");
    w.fp = nullptr;
}

}  // namespace

bool finish_outputs() {
    // Flushed first, so that a pair is cut while both of its files are open.
    bool complete = true;
    for (Written& w : written)
        if (w.output && w.fp != nullptr) flush_checked(w);
    for (Written& w : written) {
        if (!w.output || w.fp == nullptr) continue;
        close_checked(w);
        complete = complete && !w.failed;
    }
    return complete;
}

void track_file(FILE* fp, const char* name, const char* unit, uint32_t unit_size, void (*report)(const char*),
                bool output) {
    // A stream the C library hands out again replaces the entry of the one closed before it.
    for (Written& w : written)
        if (w.fp == fp) w.fp = nullptr;
    written.push_back(
        {.fp = fp, .name = name, .unit = unit, .unit_size = unit_size, .report = report, .output = output});
}

void pair_files(FILE* a, FILE* b) {
    find_written(a)->partner = find_written(b);
    find_written(b)->partner = find_written(a);
}

bool file_failed(FILE* fp) {
    const Written* w = find_written(fp);
    return w != nullptr && w->failed;
}

void fail_file(FILE* fp, int err) {
    Written* w = find_written(fp);
    if (w != nullptr && !w->failed) fail(*w, err);
}

size_t checked_write(const void* data, size_t size, size_t n, FILE* fp) {
    return checked(fp, n, [&] { return n == 0 ? 0 : std::fwrite(data, size, n, fp); });
}

size_t checked_ring_write(const dvbVect* v, uint32_t pos, uint32_t n, FILE* fp) {
    return checked(fp, n, [&] { return dvbRingWrite(v, pos, n, fp); });
}

bool finish_file(FILE* fp) {
    Written* w = find_written(fp);
    if (w == nullptr) return std::fclose(fp) == 0;
    flush_checked(*w);
    close_checked(*w);
    return !w->failed;
}
