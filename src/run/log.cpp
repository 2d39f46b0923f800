#include "run/log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace torvex {

const char* time_stamp(char* buf) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    if (std::strftime(buf, 9, "%H:%M:%S", &local) == 0) buf[0] = 0;
    return buf;
}

const char* now_hms() {
    thread_local char buf[16];
    return time_stamp(buf);
}

void progress(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::vprintf(fmt, args);
    va_end(args);
    std::fflush(stdout);
}

}  // namespace torvex
