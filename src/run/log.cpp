#include "run/log.h"

#include <ctime>

namespace torvex {

const char* time_stamp(char* buf) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    if (std::strftime(buf, 9, "%H:%M:%S", &local) == 0) buf[0] = 0;
    return buf;
}

}  // namespace torvex
