#!/bin/sh
# Forms of a value that must not compile, each tried alone: refused_forms.sh COMPILER STANDARD INCLUDE
compiler=$1 standard=$2 include=$3
failed=0

# The header is precompiled, since it is the same for all the forms.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '#include "tarn/blob.h"' >"$work/blob.h"
"$compiler" "-std=$standard" "-I$include" -x c++-header "$work/blob.h" -o "$work/blob.h.gch" || exit 1

compiles() {
    printf '%s\n' 'using namespace tarn::blob;' "void f(attr a) { $1; (void)a; }" |
        "$compiler" "-std=$standard" "-I$include" -include "$work/blob.h" -fsyntax-only \
            -x c++ - >/dev/null 2>&1
}

# Proves that the rest is refused for what it says and not for the way it is compiled.
compiles 'attr b = {{"x", 1}, {"y", "z"}}' || { echo "a good form does not compile"; exit 1; }

while IFS= read -r form; do
    if compiles "$form"; then
        echo "compiles, but must not: $form"
        failed=1
    fi
done <<'FORMS'
attr b = {{1}, {2}}
attr b = {{0, 1}}
attr b{{0, 1}}
attr b = {{0, 1}, {2, 3}}
attr b = {{0, "x"}}
attr b = {{"x"}, {"y"}}
attr b = {{"x"}, 1}
attr b{{1}}
attr b{{a}}
attr b{{a, 1}}
attr b = {{0, 1}, a}
attr b = {{"x", 1}, 5}
attr b = {{{"x", 1}}}
attr b = {{{1}}}
attr b = {nullptr, 1}
attr b = {{nullptr, 1}}
attr b = {'c'}
attr b = 'c'
attr b = 1.0f
attr b = &a
attr b = nullptr
a.set('c')
a.set<bool>("x")
a.set<bool>(&a)
a.get<char>()
FORMS
exit $failed
