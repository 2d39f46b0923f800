// The checkpoint: every key's path and weight, the path arena, every link's travel-time table and
// a fingerprint of the editable link attributes, in one little-endian binary file, so that a later
// run can carry on from where this one stopped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "input/network.h"
#include "input/trip_table.h"

namespace torvex {

struct RunConfig;

// Layout: 36-byte header, then keys (16 bytes each), paths (4), link times (480), fingerprints
// (12), nothing between the sections.
constexpr int64_t kCheckpointHeaderBytes = 36;
constexpr int64_t kCheckpointKeyBytes = 16;
constexpr int64_t kCheckpointPathBytes = 4;
constexpr int64_t kCheckpointLinkBytes = 4 * kIntervals + 12;

struct ResumeResult {
    bool ok = false;
    std::string error;
    int32_t iteration = 0;
    int32_t key_count = 0;
    int32_t link_count = 0;
    int64_t links_edited = 0;  // links whose discharge, speed or toll differ from the saved ones
};

// Replaces `path`. A failure is reported on the error stream and changes nothing in the run.
bool write_checkpoint(const std::string& path, const TripTable& trips,
                      const std::vector<int32_t>& path_arena, const Network& network,
                      int32_t iteration);

// Fills the keys' paths and weights, path_arena and the links' travel times. On failure the
// records may be partly overwritten; the caller ends the run.
ResumeResult read_checkpoint(const std::string& path, TripTable& trips,
                             std::vector<int32_t>& path_arena, Network& network);

// The run's resume step: reads RESUME_FROM into the records, sets the starting iteration and
// prints the resume lines. False after its message when the checkpoint cannot be used.
bool resume_from_checkpoint(RunConfig& config, TripTable& trips, Network& network,
                            std::vector<int32_t>& path_arena);

}  // namespace torvex
