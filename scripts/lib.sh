# shellcheck shell=bash
# Helpers shared by the scripts in this folder. Source it, do not run it:
#
#     source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
#
# Sourcing it changes the working directory to the repository root and sets
# TALA_REPO_ROOT, so every script works from any directory.

# Repository root: the folder above scripts/.
TALA_REPO_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)"
export TALA_REPO_ROOT
cd "$TALA_REPO_ROOT" || { echo "error: cannot enter the repository root $TALA_REPO_ROOT." >&2; exit 1; }

# Debian packages the build and the tests need.
TALA_PACKAGES=(
    cmake
    ninja-build
    g++
    pkg-config
    googletest
    libgtest-dev
    libgmock-dev
    libbenchmark-dev
    libsqlite3-dev
    # The fuzz and ThreadSanitizer presets: clang, its sanitizer and libFuzzer runtimes, and
    # llvm-symbolizer for readable reports.
    clang
    libclang-rt-dev
    llvm
)

# tala_die "one clear sentence": print it to stderr and exit 1.
tala_die() {
    echo "error: $*" >&2
    exit 1
}

# tala_log "message": progress line on stderr, so stdout stays the program's.
tala_log() {
    echo "==> $*" >&2
}

# True when the Debian package $1 is installed.
_tala_pkg_installed() {
    local status
    status="$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" || return 1
    [[ "$status" == "install ok installed" ]]
}

# Run apt-get with root rights (sudo when not root and sudo exists), without
# ever asking a question: CI has no stdin.
_tala_apt_get() {
    if [[ "$(id -u)" -eq 0 ]]; then
        DEBIAN_FRONTEND=noninteractive apt-get "$@" </dev/null
    elif command -v sudo >/dev/null 2>&1; then
        sudo -n env DEBIAN_FRONTEND=noninteractive apt-get "$@" </dev/null
    else
        return 1
    fi
}

# tala_ensure_packages: install the missing packages of TALA_PACKAGES with
# apt-get; do nothing when all are installed.
tala_ensure_packages() {
    command -v dpkg-query >/dev/null 2>&1 ||
        tala_die "dpkg-query was not found: this script needs a Debian-based system with apt-get."
    local missing=() pkg
    for pkg in "${TALA_PACKAGES[@]}"; do
        _tala_pkg_installed "$pkg" || missing+=("$pkg")
    done
    if [[ ${#missing[@]} -eq 0 ]]; then
        return 0
    fi
    tala_log "installing missing Debian packages: ${missing[*]}"
    if ! _tala_apt_get update || ! _tala_apt_get install -y --no-install-recommends "${missing[@]}"; then
        tala_die "could not install the Debian packages ${missing[*]} with apt-get (run as root or with sudo)."
    fi
}

# Print the pyenv root: `pyenv root` if pyenv exists, else $PYENV_ROOT, else ~/.pyenv.
_tala_pyenv_root() {
    local root=""
    if command -v pyenv >/dev/null 2>&1; then
        root="$(pyenv root 2>/dev/null)" || root=""
    fi
    [[ -n "$root" ]] || root="${PYENV_ROOT:-}"
    [[ -n "$root" ]] || root="${HOME:-/root}/.pyenv"
    printf '%s\n' "$root"
}

# Print the prefix of the highest pyenv CPython 3.13.x with libpython3.13.so, if any.
_tala_find_pyenv_python() {
    local root dir best=""
    root="$(_tala_pyenv_root)"
    [[ -d "$root/versions" ]] || return 1
    # Only plain 3.13.N versions: this skips e.g. free-threaded 3.13.0t builds,
    # whose library has another name and ABI.
    while IFS= read -r dir; do
        if [[ -f "$dir/lib/libpython3.13.so" && -x "$dir/bin/python3.13" ]]; then
            best="$dir"
        fi
    done < <(find "$root/versions" -mindepth 1 -maxdepth 1 -name '3.13*' 2>/dev/null |
             grep -E '/3\.13\.[0-9]+$' | sort -V)
    [[ -n "$best" ]] || return 1
    printf '%s\n' "$best"
}

# Print "LIBDIR/libpython3.13.so" of the given interpreter.
_tala_python_shared_lib() {
    "$1" -c 'import os, sysconfig; print(os.path.join(sysconfig.get_config_var("LIBDIR") or "", "libpython3.13.so"))' 2>/dev/null
}

# tala_find_python: find CPython 3.13 with its shared library; set and export
# TALA_PYTHON_ROOT (the prefix) and TALA_PYTHON_EXE (the interpreter).
tala_find_python() {
    local prefix exe lib
    if prefix="$(_tala_find_pyenv_python)"; then
        TALA_PYTHON_ROOT="$prefix"
        TALA_PYTHON_EXE="$prefix/bin/python3.13"
        export TALA_PYTHON_ROOT TALA_PYTHON_EXE
        tala_log "using pyenv CPython at $TALA_PYTHON_ROOT"
        return 0
    fi
    if exe="$(command -v python3.13 2>/dev/null)"; then
        lib="$(_tala_python_shared_lib "$exe")"
        if [[ ! -f "$lib" ]]; then
            tala_log "python3.13 has no shared library; trying to install libpython3.13-dev"
            _tala_apt_get install -y --no-install-recommends libpython3.13-dev >/dev/null 2>&1 ||
                { _tala_apt_get update >/dev/null 2>&1 &&
                  _tala_apt_get install -y --no-install-recommends libpython3.13-dev >/dev/null 2>&1; } ||
                true
            lib="$(_tala_python_shared_lib "$exe")"
        fi
        if [[ -f "$lib" ]]; then
            TALA_PYTHON_ROOT="$("$exe" -c 'import sys; print(sys.prefix)')"
            TALA_PYTHON_EXE="$exe"
            export TALA_PYTHON_ROOT TALA_PYTHON_EXE
            tala_log "using system CPython at $TALA_PYTHON_EXE"
            return 0
        fi
    fi
    tala_die "CPython 3.13 with its shared library was not found: install it under the pyenv root or as the system's libpython3.13-dev."
}

# tala_configure PRESET: configure and build the given CMake preset against
# the Python found by tala_find_python.
tala_configure() {
    local preset="${1:?tala_configure needs a preset name}"
    [[ -n "${TALA_PYTHON_ROOT:-}" && -n "${TALA_PYTHON_EXE:-}" ]] || tala_find_python
    tala_log "configuring preset $preset"
    cmake --preset "$preset" \
        -DPython3_ROOT_DIR="$TALA_PYTHON_ROOT" \
        -DPython3_EXECUTABLE="$TALA_PYTHON_EXE" \
        -DPython3_FIND_STRATEGY=LOCATION ||
        tala_die "configuring the CMake preset '$preset' failed."
    tala_log "building preset $preset"
    cmake --build --preset "$preset" ||
        tala_die "building the CMake preset '$preset' failed."
}
