#include "input/trip_memory.h"
#include "input/trip_table.h"

namespace torvex {

namespace {

// Fibonacci hashing: the identity's low bits (segment, slot) vary least, so mix all of them into
// the bits that pick the slot.
inline size_t slot_of(uint64_t id, size_t mask) {
    return static_cast<size_t>((id * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

void rehash(KeyIndex& index, size_t capacity) {
    std::vector<KeyIndex::Slot> slots;
    reserve_large(slots, capacity);
    slots.assign(capacity, KeyIndex::Slot{KeyIndex::kFree, -1});
    const size_t mask = capacity - 1;
    for (const KeyIndex::Slot& s : index.slots) {
        if (s.id == KeyIndex::kFree) continue;
        size_t h = slot_of(s.id, mask);
        while (slots[h].id != KeyIndex::kFree) h = (h + 1) & mask;
        slots[h] = s;
    }
    index.slots.swap(slots);
}

void grow(KeyIndex& index) {
    rehash(index, index.slots.empty() ? 1024 : index.slots.size() * 2);
}

}  // namespace

int32_t KeyIndex::find(uint64_t id) const {
    if (slots.empty()) return -1;
    const size_t mask = slots.size() - 1;
    for (size_t h = slot_of(id, mask);; h = (h + 1) & mask) {
        if (slots[h].id == id) return slots[h].value;
        if (slots[h].id == kFree) return -1;
    }
}

int32_t KeyIndex::find_or_insert(uint64_t id, int32_t fresh) {
    // Kept at most 70 % full, so probe runs stay short.
    if ((count + 1) * 10 > slots.size() * 7) grow(*this);
    const size_t mask = slots.size() - 1;
    size_t h = slot_of(id, mask);
    for (; slots[h].id != kFree; h = (h + 1) & mask)
        if (slots[h].id == id) return slots[h].value;
    slots[h] = Slot{id, fresh};
    ++count;
    return fresh;
}

void KeyIndex::prefetch(uint64_t id) const {
    if (!slots.empty()) __builtin_prefetch(&slots[slot_of(id, slots.size() - 1)], 1);
}

void KeyIndex::reserve(size_t n) {
    size_t capacity = slots.empty() ? 1024 : slots.size();
    while (n * 10 > capacity * 7) capacity *= 2;
    if (capacity > slots.size()) rehash(*this, capacity);
}

void KeyIndex::clear() {
    slots.clear();
    count = 0;
}

}  // namespace torvex
