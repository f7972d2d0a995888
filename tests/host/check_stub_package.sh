#!/usr/bin/env bash
# tests/host/check_stub_package.sh: `tala stubs MODULE --out DIR` and `tala stubs --all --out DIR`
# write a stub package for type checkers and editors: each module's typed stub at
# DIR/<name as folders>/__init__.pyi after a comment line, the stubs of its children and of the
# modules it refers to, a py.typed marker in each top-level package, DIR/__builtins__.pyi naming
# the host modules the package holds (also those of earlier runs), and DIR/pyrightconfig.json
# unless DIR has one; writing again replaces the files.
#
#   check_stub_package.sh TALA
set -uo pipefail

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

[[ $# -eq 1 ]] || fail "usage: check_stub_package.sh TALA"
tala="$1"
work="$(mktemp -d)" || fail "cannot make a temporary folder."
trap 'rm -rf "$work"' EXIT
out="$work/out"

# stubs ARGUMENTS...: runs `tala ... stubs ...`, which must succeed and print nothing.
stubs() {
    "$tala" "$@" >"$work/stdout" 2>"$work/stderr" || fail "tala $*: $(cat "$work/stderr")"
    [[ ! -s "$work/stdout" ]] || fail "tala $* printed on standard output."
}

# has FILE LINE: FILE holds LINE as a whole line.
has() {
    grep -qxF -- "$2" "$1" || fail "$1 lacks the line: $2"
}

files() {
    (cd "$out" && find . -type f | sort | tr '\n' ' ')
}

stubs stubs tala --out "$out"
stubs stubs tala --out "$out"  # again: each file is replaced, not added to
[[ "$(files)" == "./__builtins__.pyi ./pyrightconfig.json ./tala/__init__.pyi ./tala/py.typed ./tala/python/__init__.pyi " ]] ||
    fail "unexpected files after stubs tala: $(files)"
[[ "$(head -n 1 "$out/tala/__init__.pyi")" == '# Stubs of the host module tala, written by `tala stubs`.' ]] ||
    fail "the stub of tala does not begin with its comment line."
[[ "$(grep -c '^# Stubs of the host module' "$out/tala/__init__.pyi")" == 1 ]] || fail "the stub of tala was written twice into one file."
[[ "$(head -n 1 "$out/tala/python/__init__.pyi")" == '# Stubs of the host module tala.python, written by `tala stubs`.' ]] ||
    fail "the stub of tala.python does not begin with its comment line."
has "$out/tala/__init__.pyi" 'from . import python as python'
has "$out/tala/__init__.pyi" 'def get_logger() -> Logger:'
has "$out/tala/__init__.pyi" 'class LogRecord:'
has "$out/tala/__init__.pyi" '    def __init__(self, level: int, message: str) -> None:'
has "$out/tala/python/__init__.pyi" 'class LanguagePython:'
has "$out/tala/python/__init__.pyi" '    @_builtins.staticmethod'
[[ -f "$out/tala/py.typed" && ! -s "$out/tala/py.typed" ]] || fail "$out/tala/py.typed is missing or not empty."
has "$out/__builtins__.pyi" 'import tala as tala'
has "$out/pyrightconfig.json" '    "stubPath": ".",'

# A Python module known to the host re-exports that module; its parent is not written.
stubs stubs python.json --out "$out"
has "$out/python/json/__init__.pyi" 'from json import *'
[[ -f "$out/python/py.typed" ]] || fail "$out/python/py.typed is missing."
[[ ! -e "$out/python/__init__.pyi" ]] || fail "$out/python/__init__.pyi was written, though python was not asked for."
grep -q 'import python' "$out/__builtins__.pyi" && fail "__builtins__.pyi names python, whose stub the package lacks."

# A configuration of the folder's own is kept; the builtins name the modules of earlier runs too.
echo '{"typeCheckingMode": "strict"}' >"$out/pyrightconfig.json"
stubs --load sqlite stubs sqlite --out "$out"
[[ "$(cat "$out/pyrightconfig.json")" == '{"typeCheckingMode": "strict"}' ]] || fail "the folder's own pyrightconfig.json was replaced."
has "$out/sqlite/__init__.pyi" 'class Database:'
has "$out/sqlite/__init__.pyi" '    def __init__(self, path: str) -> None:'
has "$out/sqlite/__init__.pyi" '    def open(path: str) -> Database:'
has "$out/sqlite/__init__.pyi" '    def query(self, sql: str, parameters: _typing.Any = None) -> _abc.MutableSequence[Row]:'
has "$out/sqlite/__init__.pyi" 'class Row(_abc.Mapping[_typing.Any, _typing.Any], _abc.Sequence[_typing.Any]):'
has "$out/sqlite/__init__.pyi" '    def __getattr__(self, name: str) -> _typing.Any:'
has "$out/sqlite/__init__.pyi" 'class SqlError(RuntimeError):'
has "$out/sqlite/__init__.pyi" '    def code(self) -> int:'
[[ "$(grep -c '^import ' "$out/__builtins__.pyi")" == 2 ]] || fail "__builtins__.pyi should name sqlite and tala: $(cat "$out/__builtins__.pyi")"
has "$out/__builtins__.pyi" 'import sqlite as sqlite'
has "$out/__builtins__.pyi" 'import tala as tala'

# --all: every registered module.
rm -rf "$out"
stubs --load sqlite stubs --all --out "$out"
[[ "$(files)" == "./__builtins__.pyi ./pyrightconfig.json ./python/__init__.pyi ./python/py.typed ./sqlite/__init__.pyi ./sqlite/py.typed ./tala/__init__.pyi ./tala/py.typed ./tala/python/__init__.pyi " ]] ||
    fail "unexpected files after stubs --all: $(files)"
has "$out/python/__init__.pyi" 'import decimal as decimal'
has "$out/__builtins__.pyi" 'import python as python'
echo "the stub package holds: $(files)"
