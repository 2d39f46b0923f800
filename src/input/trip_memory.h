// Room for the demand's large flat arrays, asked for before they are filled so that the kernel
// can back them with large pages: fewer faults and TLB misses on tens of millions of rows.
#pragma once

#include <sys/mman.h>

#include <cstdint>
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

}  // namespace torvex
