#!/usr/bin/env bash
# tests/host/check_stub_package.sh: `tala stubs MODULE --out DIR` writes each module's stub to
# DIR/<name as folders>/__init__.pyi, after a comment line and the imports it needs, and a
# py.typed marker into the top-level package folder; writing again replaces the file.
#
#   check_stub_package.sh TALA EXPECTED_FOLDER
set -uo pipefail

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

[[ $# -eq 2 ]] || fail "usage: check_stub_package.sh TALA EXPECTED_FOLDER"
tala="$1"
expected="$2"
work="$(mktemp -d)" || fail "cannot make a temporary folder."
trap 'rm -rf "$work"' EXIT
out="$work/out"

for name in tala tala.python python.json tala.python; do
    "$tala" stubs "$name" --out "$out" >"$work/stdout" 2>"$work/stderr" || fail "tala stubs $name --out: $(cat "$work/stderr")"
    [[ ! -s "$work/stdout" ]] || fail "tala stubs $name --out printed on standard output."
done

# compare FILE MODULE EXPECTED_STUB: FILE holds the comment line, then the stub text.
compare() {
    { printf '# Stubs of the host module %s, written by `tala stubs`.\n' "$2"; cat "$3"; } >"$work/expected"
    cmp -s "$1" "$work/expected" || { diff "$work/expected" "$1" >&2; fail "$1 differs from the expected stub."; }
}
compare "$out/tala/__init__.pyi" tala "$expected/stubs_tala.pyi"
compare "$out/tala/python/__init__.pyi" tala.python "$expected/stubs_tala_python.pyi"
[[ -f "$out/tala/py.typed" && ! -s "$out/tala/py.typed" ]] || fail "$out/tala/py.typed is missing or not empty."
[[ -f "$out/python/json/__init__.pyi" ]] || fail "$out/python/json/__init__.pyi is missing."
grep -qx 'class JSONDecoder:' "$out/python/json/__init__.pyi" || fail "the stub of python.json lacks class JSONDecoder."
[[ -f "$out/python/py.typed" ]] || fail "$out/python/py.typed is missing."
[[ ! -e "$out/python/__init__.pyi" ]] || fail "$out/python/__init__.pyi was written, though python was not asked for."
files="$(cd "$out" && find . -type f | sort | tr '\n' ' ')"
[[ "$files" == "./python/json/__init__.pyi ./python/py.typed ./tala/__init__.pyi ./tala/py.typed ./tala/python/__init__.pyi " ]] ||
    fail "unexpected files in the package: $files"
echo "the stub package holds: $files"
