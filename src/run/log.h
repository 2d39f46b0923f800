// Progress and warning lines: "[HH:MM:SS]" local-time prefix, flushed progress.
#pragma once

namespace torvex {

// Local wall-clock time as "%H:%M:%S" into buf (at least 9 bytes); returns buf.
const char* time_stamp(char* buf);

}  // namespace torvex
