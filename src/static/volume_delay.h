// Volume-delay curves of static assignment: a link's time in a window follows its load there.
#pragma once

#include "input/network.h"

namespace torvex {

// Static branch of the link update: volume := inflow, no queue, one travel time per window from
// the window's volume-to-capacity ratio through the network's curve (BPR, conical or Akcelik).
void apply_vdf(const Network& net, Link& link);

// Delay in minutes (before the 1440 cap and the free-flow time) at ratio x for a window of
// n intervals.
float vdf_delay(const Network& net, const Link& link, float x, int n);

}  // namespace torvex
