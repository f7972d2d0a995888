#!/usr/bin/env bash
# Installs pyright from the npm registry into a folder of the build (never globally), once: a
# folder that holds the pinned version already is left as it is.
#
#     scripts/install_pyright.sh FOLDER
#
# Afterwards FOLDER/node_modules/.bin/pyright runs it. Quiet unless it fails.
set -euo pipefail

readonly TALA_PYRIGHT_VERSION="1.1.414"

folder="${1:?usage: install_pyright.sh FOLDER}"
program="$folder/node_modules/.bin/pyright"

if [[ -x "$program" && "$("$program" --version 2>/dev/null)" == "pyright $TALA_PYRIGHT_VERSION" ]]; then
    exit 0
fi
if ! command -v npm >/dev/null 2>&1; then
    echo "error: pyright cannot be installed: npm was not found (install Node.js and npm)." >&2
    exit 1
fi
mkdir -p "$folder"
log="$folder/npm-install.log"
if ! npm install --prefix "$folder" --no-audit --no-fund --no-update-notifier --loglevel=error \
        "pyright@$TALA_PYRIGHT_VERSION" >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    echo "error: pyright $TALA_PYRIGHT_VERSION could not be installed from the npm registry into $folder (log above)." >&2
    exit 1
fi
if [[ ! -x "$program" ]]; then
    echo "error: npm installed pyright into $folder, but $program is missing." >&2
    exit 1
fi
