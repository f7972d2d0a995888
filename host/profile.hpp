// host/profile.hpp: --profile: the script's profile, printed as `python -m cProfile -s cumulative` prints it.
#pragma once

#include "tala/tala.hpp"

namespace tala::host {

// Starts Python's profiler (cProfile) for what runs next; the profiler, or an Error.
Any startProfile();

// Stops the profiler and prints its statistics on standard error, sorted by cumulative time.
void printProfile(const Any& profiler);

}  // namespace tala::host
