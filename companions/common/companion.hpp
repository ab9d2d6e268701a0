// What every C++ companion shares: its name in messages, the one-line error
// with its exit status, the output that a failure removes, and the checks of
// the files it is given.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "frame/getopts.hpp"

namespace companion {

// Names the program in its messages and ignores SIGXFSZ, so that a file-size
// limit makes a write fail with its error instead of ending the process.
void start(const char* prog);
const char* prog();

// Prints "PROG VERSION" (the version of the whole project) on standard output.
void print_version();

// Prints "PROG: message" on standard error, removes the partial output named by
// remove_on_failure, and ends the process with the status.
[[noreturn]] void fail_status(int status, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// The same with status 1.
[[noreturn]] void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Reads the command line strictly, then as the transmitter reads its own: a
// word in an option's place that no table names, an option without its value,
// or a value its kind does not take (a name outside a list, a number that is
// not whole or not finite, an empty text) fails with the status, naming it;
// then every table's targets are filled by dvbGetCommArgs.
void parse_options(int argc, char** argv, std::initializer_list<std::span<const dvbOption>> tables, int status = 1);

// Whether the last parse_options saw the option on the command line.
bool option_given(const char* name);
// Every value the last parse_options saw for the option, in order: a
// repeatable option's (the tables keep one value of each option).
std::vector<std::string> option_values(const char* name);

// The file that fail removes (an output being written); empty for none.
void remove_on_failure(const std::string& path);

// Whether the two names are one file (same device and inode); false when
// either does not exist.
bool same_file(const std::string& a, const std::string& b);

// The size in bytes of an input that must be a regular file: fails with
// "can't read" when it cannot be read and with "is not a regular file" for a
// directory, a device or a pipe.
uint64_t input_size(const std::string& name);

// Fails when the output would be written over one of the inputs.
void check_not_input(const std::string& out, const std::string& in);

}  // namespace companion
