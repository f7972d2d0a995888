// bench/resident_memory.hpp: the process's resident memory, for the benchmarks that watch it.
#pragma once

#include <unistd.h>

#include <fstream>

namespace tala_bench {

// Resident set size in KiB, from /proc/self/statm (its second field counts pages).
inline double residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long long size = 0;
    long long resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
}

inline double residentMiB() { return residentKiB() / 1024.0; }

}  // namespace tala_bench
