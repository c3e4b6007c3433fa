#!/usr/bin/env bash
# symbols.sh LIST
# Prints libtarn0.0.symbols for the exported names in LIST (tests/exports/exported.txt).
set -euo pipefail

cat <<'HEAD'
libtarn.so.0.0 libtarn0.0 #MINVER#
* Build-Depends-Package: libtarn-dev
# What the compiler emits here as well as in every program that uses it: inline functions, templates.
 (optional|regex)"^_Z.*@Base$" 0.0.1
HEAD
while IFS= read -r name; do
    # The type that counts seconds has 64 bits everywhere.
    shorter=${name//duration<long, std::ratio<1l, 1l> >/duration<long long, std::ratio<1ll, 1ll> >}
    if [[ $shorter == "$name" ]]; then
        printf ' (c++)"%s@Base" 0.0.1\n' "$name"
    else
        printf ' (c++|arch-bits=64)"%s@Base" 0.0.1\n' "$name"
        printf ' (c++|arch-bits=32)"%s@Base" 0.0.1\n' "$shorter"
    fi
done <"$1"
