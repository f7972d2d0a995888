#!/usr/bin/env bash
# tests/host/run_if_host_errors_are_exceptions.sh: runs a test command only when the host program
# gives Python the exception type of a host error class by its name (`except sqlite.SqlError`);
# otherwise reports the test skipped (status 77). The scripts of the typing corpus that catch host
# errors by their own types run once the bridge gives them.
#
#   run_if_host_errors_are_exceptions.sh TALA COMMAND [ARGUMENT ...]
set -uo pipefail

[[ $# -ge 2 ]] || { echo "usage: run_if_host_errors_are_exceptions.sh TALA COMMAND [ARGUMENT ...]" >&2; exit 2; }
tala="$1"
shift
probe="$("$tala" --load sqlite eval "isinstance(sqlite.SqlError, type) and issubclass(sqlite.SqlError, BaseException)" 2>/dev/null)"
if [[ "$probe" != "True" ]]; then
    echo "SKIPPED: sqlite.SqlError is no exception type in this build."
    exit 77
fi
exec "$@"
