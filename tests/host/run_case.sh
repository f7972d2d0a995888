#!/usr/bin/env bash
# tests/host/run_case.sh: runs the host program once and checks what it did.
#
#   run_case.sh [--stdin TEXT] [--stdout TEXT | --stdout-file FILE | --stdout-head FILE]
#               [--stdout-has TEXT] [--stdout-lacks TEXT] [--stderr-is LINE] [--stderr-has TEXT]
#               STATUS -- PROGRAM [ARGUMENT ...]
#
# STATUS             the exit status the program must end with.
# --stdout TEXT      what it must print on standard output, exactly: the lines of TEXT, each
#                    ended by a line feed. Without it (or one of the three below), the program
#                    must print nothing there.
# --stdout-file FILE what it must print on standard output, exactly: the content of FILE.
# --stdout-head FILE standard output must begin with the content of FILE.
# --stdout-has TEXT  standard output must contain TEXT (may be given more than once).
# --stdout-lacks TEXT standard output must not contain TEXT (may be given more than once).
# --stdin TEXT       TEXT (plus a final line feed) is the program's standard input; without it,
#                    standard input is empty (/dev/null), never a terminal.
# --stderr-is LINE   standard error must be exactly this one line.
# --stderr-has TEXT  standard error must contain TEXT (may be given more than once).
set -uo pipefail

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

stdin_text=""
expected_stdout=""
have_stdin=0
stderr_is=""
have_stderr_is=0
stderr_has=()
stdout_file=""
stdout_head=0
stdout_has=()
stdout_lacks=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --stdin) [[ $# -ge 2 ]] || fail "--stdin needs a text."; stdin_text="$2"; have_stdin=1; shift 2 ;;
        --stdout) [[ $# -ge 2 ]] || fail "--stdout needs a text."; expected_stdout="$2"; shift 2 ;;
        --stdout-file) [[ $# -ge 2 ]] || fail "--stdout-file needs a file."; stdout_file="$2"; shift 2 ;;
        --stdout-head) [[ $# -ge 2 ]] || fail "--stdout-head needs a file."; stdout_file="$2"; stdout_head=1; shift 2 ;;
        --stdout-has) [[ $# -ge 2 ]] || fail "--stdout-has needs a text."; stdout_has+=("$2"); shift 2 ;;
        --stdout-lacks) [[ $# -ge 2 ]] || fail "--stdout-lacks needs a text."; stdout_lacks+=("$2"); shift 2 ;;
        --stderr-is) [[ $# -ge 2 ]] || fail "--stderr-is needs a line."; stderr_is="$2"; have_stderr_is=1; shift 2 ;;
        --stderr-has) [[ $# -ge 2 ]] || fail "--stderr-has needs a text."; stderr_has+=("$2"); shift 2 ;;
        *) break ;;
    esac
done
[[ $# -ge 3 && "$2" == "--" ]] || fail "usage: run_case.sh [options] STATUS -- PROGRAM [ARGUMENT ...]"
expected_status="$1"
shift 2

work="$(mktemp -d)" || fail "cannot make a temporary folder."
trap 'rm -rf "$work"' EXIT

if [[ $have_stdin -eq 1 ]]; then
    printf '%s\n' "$stdin_text" >"$work/stdin"
else
    : >"$work/stdin"
fi
if [[ -n "$stdout_file" ]]; then
    [[ -r "$stdout_file" ]] || fail "cannot read $stdout_file."
    cp "$stdout_file" "$work/expected"
elif [[ -n "$expected_stdout" ]]; then
    printf '%s\n' "$expected_stdout" >"$work/expected"
else
    : >"$work/expected"
fi

"$@" <"$work/stdin" >"$work/stdout" 2>"$work/stderr"
status=$?

show() {
    echo "--- command: $*" >&2
    echo "--- exit status: $status (expected $expected_status)" >&2
    echo "--- standard output:" >&2
    cat "$work/stdout" >&2
    echo "--- expected standard output:" >&2
    cat "$work/expected" >&2
    echo "--- standard error:" >&2
    cat "$work/stderr" >&2
}

ok=1
if [[ "$status" != "$expected_status" ]]; then
    echo "FAILED: exit status $status, expected $expected_status." >&2
    ok=0
fi
if [[ $stdout_head -eq 1 ]]; then
    if ! cmp -s <(head -c "$(stat -c %s "$work/expected")" "$work/stdout") "$work/expected"; then
        echo "FAILED: the standard output does not begin with the expected text." >&2
        ok=0
    fi
elif [[ -n "$stdout_file" || -n "$expected_stdout" || (${#stdout_has[@]} -eq 0 && ${#stdout_lacks[@]} -eq 0) ]]; then
    if ! cmp -s "$work/stdout" "$work/expected"; then
        echo "FAILED: the standard output differs from the expected one." >&2
        ok=0
    fi
fi
stdout_text="$(cat "$work/stdout"; printf x)"
stdout_text="${stdout_text%x}"
for text in "${stdout_has[@]+"${stdout_has[@]}"}"; do
    if [[ "$stdout_text" != *"$text"* ]]; then
        echo "FAILED: the standard output does not contain: $text" >&2
        ok=0
    fi
done
for text in "${stdout_lacks[@]+"${stdout_lacks[@]}"}"; do
    if [[ "$stdout_text" == *"$text"* ]]; then
        echo "FAILED: the standard output contains: $text" >&2
        ok=0
    fi
done
if [[ $have_stderr_is -eq 1 ]]; then
    printf '%s\n' "$stderr_is" >"$work/expected_stderr"
    if ! cmp -s "$work/stderr" "$work/expected_stderr"; then
        echo "FAILED: the standard error is not exactly the line: $stderr_is" >&2
        ok=0
    fi
fi
for text in "${stderr_has[@]+"${stderr_has[@]}"}"; do
    if ! grep -qF -- "$text" "$work/stderr"; then
        echo "FAILED: the standard error does not contain: $text" >&2
        ok=0
    fi
done
if [[ $ok -ne 1 ]]; then
    show "$@"
    exit 1
fi
exit 0
