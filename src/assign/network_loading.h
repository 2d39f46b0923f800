// Link-based network loading: paths walked through time into a volume table, blended into link
// inflow, and turned into per-interval discharge, queues and travel times (point queue, LTM with
// spillback, or the static volume-delay branch).
#pragma once

#include <cstdint>
#include <vector>

#include "assign/assignment_state.h"

namespace torvex {

// Zeroes and refills volume_table from every key's path (the overlay's new path where it has one).
void load_paths_full(const LinkLoadContext& ctx, const TripTable& trips,
                     const std::vector<int32_t>& path_arena, std::vector<float>& volume_table,
                     const PathOverlay* overlay);
// Corrects volume_table for the listed keys: old path out, overlay path in (atomic adds).
void load_paths_delta(const LinkLoadContext& ctx, const TripTable& trips,
                      const std::vector<int32_t>& path_arena, const PathOverlay* overlay,
                      const std::vector<int32_t>& keys, std::vector<float>& volume_table);
// inflow := (1 - w) * inflow + w * scale * volume_table, every link and interval.
void blend_inflow(const LinkLoadContext& ctx, const std::vector<float>& volume_table, float w,
                  float scale);
void copy_inflow(const LinkLoadContext& ctx, const std::vector<float>& volume_table);
// Discharge, queue and travel time of every non-MESO link from its inflow, then LTM spillback.
void update_link_times(const LinkLoadContext& ctx);

// One key's load walked into a table: the slot's demand spread over its 15-minute sub-slots,
// each sub-slot progressing by the current travel times and stopping at the horizon.
void walk_path(const Network& net, const int32_t* links, int32_t n_links, int slot,
               float slot_minutes, float load, float* table);

}  // namespace torvex
