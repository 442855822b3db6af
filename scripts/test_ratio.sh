#!/usr/bin/env bash
# Size of the test suite against the size of the product, in non-blank lines
# of source (C++, Java, shell, Python).
#   tests:   everything under tests/, except the fixture generator script
#   product: jni/, tools/ and java/ (without any test folder under java/)
# Prints a breakdown per top-level folder, then the ratio on the last line.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

sources() {  # sources DIR [find exclusions...]: source files under DIR
  local dir="$1"; shift
  [ -d "$dir" ] || return 0
  find "$dir" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.java' \
    -o -name '*.sh' -o -name '*.py' \) "$@" -print | sort
}

count() {  # non-blank lines of the files named on stdin
  local total=0 n f
  while IFS= read -r f; do
    n=$(grep -c '[^[:space:]]' "$f" || true)
    total=$((total + n))
  done
  echo "$total"
}

tests_total=0
product_total=0
for dir in tests/*/; do
  dir="${dir%/}"
  n=$(sources "$dir" ! -path tests/fixtures/make_fixtures.sh | count)
  printf '  tests   %-22s %6d\n' "$dir" "$n"
  tests_total=$((tests_total + n))
done
for dir in jni tools java; do
  [ -d "$dir" ] || continue
  n=$(sources "$dir" ! -path '*/test/*' ! -path '*/tests/*' | count)
  printf '  product %-22s %6d\n' "$dir" "$n"
  product_total=$((product_total + n))
done
if [ "$product_total" -eq 0 ]; then
  echo "no product sources found" >&2
  exit 1
fi
awk -v t="$tests_total" -v p="$product_total" \
  'BEGIN { printf "ratio %.2f (tests %d / product %d)\n", t / p, t, p }'
