# Bundled example: a small synthetic region of four counties (torvex-synth --scale tiny --seed 7
# --express-lane --trips 120000 --gzip), with a freeway system, ramps, express lanes, a
# signalized arterial grid and 40 zones. Paths are relative to this folder.
NODE_FILE NODE.csv
LINK_FILE LINK.csv
TRIP_FILE TRIPS.csv.gz
OUTPUT_DIRECTORY out

# The default macro model: the conserving node model with spillback (DTA_NodeLTM, cumulative
# method). Try MACRO_MODEL DTA_LTM or DTA_PointQueue for the link-based loaders.
MAX_ITERATIONS 20
RELATIVE_GAP 0.01
ROUTE_CHUNKS 10

# Arterials carry NSignals: cap their discharge by green share and add control delay.
SIGNAL_MODEL 1

# Traveller classes with value of time, toll and distance weights, axles and PCE.
SEGMENT_PARAM_FILE segments.csv

# Truck bans and HOT terms on the express lanes; a peak lane closure and a reversible lane.
LANE_USE_FILE lane_use.csv
CAPACITY_FILE capacity.csv
# Density-responsive (1), time-of-day (2) and fixed (3) toll policies.
TOLL_POLICY_FILE toll_policies.csv
