#!/usr/bin/env bash
# imports_check.sh ARCHIVE
# Fails when the library's own code, which ARCHIVE holds without the bundled bus, reads the environment
# or opens files: a library in somebody else's process does neither.
set -euo pipefail

wanted='^(secure_)?getenv$|^environ$|^f?(re)?open(64|at|at64)?$|^popen$|^system$|basic_[io]?f(stream|ilebuf)'
imported=$(nm --undefined-only "$1" | awk 'NF == 2 { print $2 }' | sort -u)
[[ -n $imported ]] || {
    echo "$1 imports nothing, so it is not what this is to check" >&2
    exit 1
}
if found=$(grep -E "$wanted" <<<"$imported"); then
    printf 'imported, but not for a library to use:\n%s\n' "$found" >&2
    exit 1
fi
echo "$(wc -l <<<"$imported") imported symbols, none of the environment or of files"
