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
# The main job: the host program runs an example script, with host values going in as locals,
# the result and an out-local coming back, and a Python logging line reaching the host logger.
# Arguments given to this script are passed on to `tala run`.
# ---------------------------------------------------------------------------
run_main_job() {
    local program="build/bin/tala"
    [[ -x "$program" ]] || tala_die "the main job's program $program was not built."
    tala_log "running $program run examples/orders.py"
    "$program" run examples/orders.py price=19.99 quantity=12 customer=ACME --out summary "$@"
}

main "$@"
