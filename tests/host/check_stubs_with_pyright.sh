#!/usr/bin/env bash
# tests/host/check_stubs_with_pyright.sh: writes the stub package of every host module the host
# program registers (and of the Python modules it knows from start-up) and has pyright check it:
# the package and a file that imports each module must give 0 errors.
#
#   check_stubs_with_pyright.sh PYRIGHT_FOLDER TALA [PYTHON]
#
# PYRIGHT_FOLDER is where scripts/install_pyright.sh installed pyright; PYTHON, when given, is
# the interpreter pyright asks for its search paths.
set -uo pipefail

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

[[ $# -ge 2 ]] || fail "usage: check_stubs_with_pyright.sh PYRIGHT_FOLDER TALA [PYTHON]"
pyright="$1/node_modules/.bin/pyright"
tala="$2"
python="${3:-}"
[[ -x "$pyright" ]] || fail "pyright is not installed in $1 (the test command installs it with scripts/install_pyright.sh)."

work="$(mktemp -d)" || fail "cannot make a temporary folder."
trap 'rm -rf "$work"' EXIT

registered="$("$tala" modules)" || fail "tala modules failed."
[[ -n "$registered" ]] || fail "tala modules listed no module."
modules=()
while IFS= read -r name; do modules+=("$name"); done <<<"$registered"
modules+=(python.builtins python.collections python.collections.abc python.datetime python.decimal python.sys
          python.types python.typing)

{
    echo "# Imports every module of the stub package, so that pyright must resolve each."
    for name in "${modules[@]}"; do
        "$tala" stubs "$name" --out "$work/stubs" || fail "tala stubs $name --out failed."
        echo "import $name"
    done
} >"$work/check_imports.py"

cat >"$work/pyrightconfig.json" <<JSON
{
    "pythonVersion": "3.13",
    "include": ["stubs", "check_imports.py"],
    "extraPaths": ["stubs"]
}
JSON

options=(--project "$work/pyrightconfig.json")
[[ -n "$python" ]] && options+=(--pythonpath "$python")
output="$(cd "$work" && "$pyright" "${options[@]}" 2>&1)"
status=$?
echo "$output"
summary="$(grep -E '^[0-9]+ errors?, ' <<<"$output" | tail -n 1)"
[[ -n "$summary" ]] || fail "pyright printed no summary (exit status $status)."
[[ "$summary" == "0 errors, "* ]] || fail "pyright found errors in the stubs: $summary"
[[ $status -eq 0 ]] || fail "pyright ended with exit status $status."
echo "checked ${#modules[@]} modules: $summary"
