#!/bin/sh
# check-exports.sh LIBRARY EXPORTS_DIR INCLUDE_DIR
#
# The library's dynamic symbol table must hold exactly the names listed in
# EXPORTS_DIR/*.txt, and the public headers must declare exactly those names
# with RK_API: a missing, misspelt or extra export (a leaked C++ symbol, a
# helper that lost its static) fails the check.
set -eu
lib=$1 exports=$2 include=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

cat "$exports"/*.txt | sed 's/#.*//; s/[[:space:]]//g; /^$/d' | sort > "$tmp/expected"
nm -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' | sort > "$tmp/exported"
# Declarations: RK_API <type...> name(   (the name is the word before the parenthesis)
grep -hv "define RK_API" "$include"/routerkit/*.h | tr '\n' ' ' | grep -o 'RK_API [^(;#]*(' |
  sed "s/($//; s/.*[ *]//" | grep . | sort > "$tmp/declared"

status=0
report() { # title, file-a, file-b: lines only in a
  out=$(comm -23 "$2" "$3")
  if [ -n "$out" ]; then
    echo "$1:"; echo "$out" | sed 's/^/  /'; status=1
  fi
}
report "listed but not exported" "$tmp/expected" "$tmp/exported"
report "exported but not listed" "$tmp/exported" "$tmp/expected"
report "listed but not declared RK_API in a public header" "$tmp/expected" "$tmp/declared"
report "declared RK_API but not listed" "$tmp/declared" "$tmp/expected"
[ $status -eq 0 ] && echo "exports: $(wc -l < "$tmp/expected") names, as listed"
exit $status
