#!/usr/bin/env bash
# Build everything (preset "default") and run the main job.
# Installs missing Debian packages with apt-get and finds CPython 3.13 under
# the pyenv root or the system.
set -euo pipefail

# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

main() {
    tala_ensure_packages
    tala_find_python
    tala_configure default
    run_main_job "$@"
}

# ---------------------------------------------------------------------------
# The main job. Arguments given to this script are passed on.
# Later: build/bin/tala run examples/<script>.py
# ---------------------------------------------------------------------------
run_main_job() {
    local program="build/bin/tala_values_example"
    [[ -x "$program" ]] || tala_die "the main job's program $program was not built."
    tala_log "running $program"
    "$program" "$@"
}

main "$@"
