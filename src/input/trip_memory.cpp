#include "input/trip_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace torvex {

namespace {

#ifndef MADV_POPULATE_WRITE
constexpr int kPopulateWrite = 23;  // Linux 5.14 and later
#else
constexpr int kPopulateWrite = MADV_POPULATE_WRITE;
#endif

constexpr size_t kAhead = size_t{16} << 20;  // bytes faulted in beyond the filling thread
constexpr size_t kStep = size_t{4} << 20;    // bytes per call

}  // namespace

void RoomWarmer::begin() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    helper = std::thread([this, page] {
        size_t done[2] = {0, 0};
        size_t first[2];
        bool open[2];
        for (int r = 0; r < 2; ++r) {
            // Whole pages only: the partial first page is the filling thread's.
            const uintptr_t b = reinterpret_cast<uintptr_t>(rooms[r].base);
            first[r] = static_cast<size_t>(((b + page - 1) & ~(page - 1)) - b);
            open[r] = rooms[r].base != nullptr && rooms[r].bytes > first[r] + page;
            done[r] = first[r];
        }
        while (!stop.load(std::memory_order_relaxed) && (open[0] || open[1])) {
            bool worked = false;
            for (int r = 0; r < 2; ++r) {
                if (!open[r]) continue;
                const size_t used = rooms[r].used.load(std::memory_order_relaxed);
                const size_t limit = rooms[r].bytes / page * page;
                const size_t target = std::min(limit, used + kAhead);
                if (done[r] >= limit || used >= rooms[r].bytes) {
                    open[r] = false;
                    continue;
                }
                if (used > done[r]) done[r] = first[r] + (used - first[r]) / page * page;
                if (target <= done[r] + page) continue;
                const size_t len = std::min(kStep, (target - done[r]) / page * page);
                char* at = const_cast<char*>(static_cast<const char*>(rooms[r].base)) + done[r];
                if (madvise(at, len, kPopulateWrite) != 0) {
                    open[r] = false;  // an older kernel, or the room went away
                    continue;
                }
                done[r] += len;
                worked = true;
            }
            if (!worked) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
}

void RoomWarmer::finish() {
    stop.store(true, std::memory_order_relaxed);
    if (helper.joinable()) helper.join();
}

}  // namespace torvex
