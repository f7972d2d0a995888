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
# The main job: the host program loads its sqlite module and runs the restock rule of the example
# shop: host rows (products queried through the module) go into Python, the rule is evaluated for
# each, and the results come back (the cost as the result, the SKUs as an out-local) with a
# logging line for the host's log. The build made the database from examples/shop.sql.
# Arguments given to this script are passed on to `tala run` (rule="stock < 5", for one).
# ---------------------------------------------------------------------------
run_main_job() {
    local program="build/bin/tala"
    local database="build/examples/shop.db"
    [[ -x "$program" ]] || tala_die "the main job's program $program was not built."
    [[ -f "$database" ]] || tala_die "the example database $database was not built."
    tala_log "running $program --load sqlite run examples/restock.py db=$database --out reorders"
    "$program" --load sqlite run examples/restock.py db="$database" --out reorders "$@"
}

main "$@"
