// Room for the demand's large flat arrays, asked for before they are filled so that the kernel
// can back them with large pages: fewer faults and TLB misses on tens of millions of rows; and a
// helper that faults that room in a little ahead of the filling thread.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

namespace torvex {

template <class T>
void reserve_large(std::vector<T>& v, size_t n) {
    if (n <= v.capacity()) return;
    v.reserve(n);
    constexpr uintptr_t kHuge = 2u << 20;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(v.data()) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = reinterpret_cast<uintptr_t>(v.data() + v.capacity()) & ~(kHuge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// Faults in reserved room of up to two arrays on a helper thread, a bounded distance ahead of
// the bytes in use, so that the thread filling them does not wait for the kernel to clear fresh
// pages. Contents are never touched, only page tables: `used` can lag, and the helper stops on
// its own at the end of the room or when the kernel cannot populate ahead.
struct RoomWarmer {
    struct Room {
        const void* base = nullptr;  // where the room was when warming began
        size_t bytes = 0;
        std::atomic<size_t> used{0};  // bytes the filling thread has reached
    };
    Room rooms[2];
    std::atomic<bool> stop{false};
    std::thread helper;

    RoomWarmer() = default;
    RoomWarmer(const RoomWarmer&) = delete;
    RoomWarmer& operator=(const RoomWarmer&) = delete;
    ~RoomWarmer() { finish(); }

    // Starts warming the capacity of both vectors; a room that moves later is left alone.
    template <class A, class B>
    void start(const std::vector<A>& a, const std::vector<B>& b) {
        if (helper.joinable()) return;
        rooms[0].base = a.data();
        rooms[0].bytes = a.capacity() * sizeof(A);
        rooms[1].base = b.data();
        rooms[1].bytes = b.capacity() * sizeof(B);
        begin();
    }
    // Tells the helper how far the filling thread has come.
    template <class A, class B>
    void progress(const std::vector<A>& a, const std::vector<B>& b) {
        publish(0, a.data(), a.size() * sizeof(A));
        publish(1, b.data(), b.size() * sizeof(B));
    }
    void finish();

private:
    void begin();
    void publish(int room, const void* base, size_t used_bytes) {
        // A room that moved is done with: warming the new one is not worth a restart.
        rooms[room].used.store(base == rooms[room].base ? used_bytes : rooms[room].bytes,
                               std::memory_order_relaxed);
    }
};

}  // namespace torvex
