// Toll policies as read from the toll policy table, and the id-keyed map that holds them.
#pragma once

#include <cstdint>
#include <vector>

namespace torvex {

enum TollType : uint8_t { kTollFixed = 0, kTollTimeOfDay = 1, kTollDensity = 2 };

struct TollTodRow {
    float start_min = 0;  // minutes from midnight of day one, never negative
    float end_min = 0;
    float toll = 0;
    bool cpi_adjust = false;
};

struct TollDensityRow {
    float density_min = 0;  // vehicles per lane-mile
    float density_max = 0;
    float toll_min = 0;
    float toll_max = 0;
    float increment = 0;  // rounding step, dollars
    bool dynamic = false;
    bool cpi_adjust = false;
};

struct TollPolicy {
    int32_t policy_id = 0;
    uint8_t type = kTollFixed;
    float toll = 0;  // fixed policies only
    bool cpi_adjust = false;
    std::vector<TollTodRow> tod_rows;          // ascending start_min
    std::vector<TollDensityRow> density_rows;  // ascending density_min
};

// Map from policy_id to TollPolicy. Policies sit in one vector in order of first appearance;
// the ids a link can name (its u16 toll_policy) resolve through a flat slot table, so the
// per-link lookup in the router's inner loop is a bounds check and two loads.
struct TollPolicyMap {
    std::vector<TollPolicy> policies;
    std::vector<int32_t> slot_of_id;  // index into policies by id 0..65535, -1 for none

    bool empty() const { return policies.empty(); }
    size_t size() const { return policies.size(); }

    const TollPolicy* find(int32_t id) const {
        if (id >= 0 && static_cast<size_t>(id) < slot_of_id.size()) {
            int32_t s = slot_of_id[static_cast<size_t>(id)];
            return s < 0 ? nullptr : &policies[static_cast<size_t>(s)];
        }
        if (id >= 0 && id <= 0xFFFF) return nullptr;
        for (const TollPolicy& p : policies)  // ids no link can name: load time only
            if (p.policy_id == id) return &p;
        return nullptr;
    }
    TollPolicy* find(int32_t id) {
        return const_cast<TollPolicy*>(static_cast<const TollPolicyMap*>(this)->find(id));
    }

    // The policy with this id, created with defaults when absent.
    TollPolicy& find_or_create(int32_t id) {
        if (TollPolicy* p = find(id)) return *p;
        if (id >= 0 && id <= 0xFFFF) {
            if (static_cast<size_t>(id) >= slot_of_id.size())
                slot_of_id.resize(static_cast<size_t>(id) + 1, -1);
            slot_of_id[static_cast<size_t>(id)] = static_cast<int32_t>(policies.size());
        }
        TollPolicy& p = policies.emplace_back();
        p.policy_id = id;
        return p;
    }
};

}  // namespace torvex
