// Progress and warning lines: "[HH:MM:SS]" local-time prefix, flushed progress.
#pragma once

namespace torvex {

// Local wall-clock time as "%H:%M:%S" into buf (at least 9 bytes); returns buf.
const char* time_stamp(char* buf);
// The same text in a per-thread buffer, fresh at every call: the "[%s]" of a log line.
const char* now_hms();
// printf to standard output, then flush: progress is read live from long batch runs.
void progress(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace torvex
