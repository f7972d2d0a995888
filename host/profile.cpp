// host/profile.cpp: --profile: the script's profile, printed as `python -m cProfile -s cumulative` prints it.
#include "profile.hpp"

#include "commands.hpp"

namespace tala::host {

namespace {

const char* const kStartProgram = R"PY(
import cProfile
profiler = cProfile.Profile()
profiler.enable()
return profiler
)PY";

const char* const kPrintProgram = R"PY(
import pstats, sys
profiler.disable()
sys.stdout.flush()
pstats.Stats(profiler, stream=sys.stderr).sort_stats("cumulative").print_stats()
sys.stderr.flush()
)PY";

}  // namespace

Any startProfile() { return callModuleFunction("evaluate", {String(kStartProgram), Any(), Any(), Any()}); }

void printProfile(const Any& profiler) {
    const HashMap<String, Any> locals{{String("profiler"), profiler}};
    const Any printed = callModuleFunction("evaluate", {String(kPrintProgram), locals, Any(), Any()});
    if (is_error_result(printed)) (void)reportFailure(printed, false);
}

}  // namespace tala::host
