#!/usr/bin/env bash
# The shared library exports exactly the API: every name listed in the
# units' *.exports files, and nothing that the public headers do not declare
# (no internals, standard-library instantiations or typeinfo).
set -euo pipefail
lib=$1
headers=$2
sources=$3
declared=$(cat "$headers"/*.h | grep -oE '\b[A-Za-z_][A-Za-z0-9_]*\b' | sort -u)
symbols=$(nm -D --defined-only "$lib" | awk '$2 != "A" { print $3 }' | sed 's/@.*//' | c++filt)
status=0
count=0
while read -r symbol; do
  [ -z "$symbol" ] && continue
  count=$((count + 1))
  base=${symbol%%(*}
  if [[ "$base" == *::* || "$base" == *" "* ]] || ! grep -qxF "$base" <<<"$declared"; then
    echo "unexpected export: $symbol"
    status=1
  fi
done <<<"$symbols"
bases=$(sed 's/(.*//' <<<"$symbols" | sort -u)
for name in $(cat "$sources"/*/*.exports); do
  if ! grep -qxF "$name" <<<"$bases"; then
    echo "listed for export but not defined: $name"
    status=1
  fi
done
echo "$count exported symbols checked"
[ "$count" -gt 0 ] || { echo "no exported symbols"; exit 1; }
exit $status
