// Levelled messages to the screen and the log, and the parameter report.
#pragma once

#include <cstdint>

// Opens (truncates) the log and writes its header line. Returns 0 in every case.
unsigned dvbMsgInit(const char* path);
// Writes the message to standard output and then to the log when level <= verbosity.
unsigned dvbMsgPrint(uint16_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Writes the closing rule and closes the log.
unsigned dvbMsgClose();

// Prints the help or version and ends the process, or prints the parameter
// report, settles M and idi and computes the derived rates.
void print_args();

extern const char versinfo[];
