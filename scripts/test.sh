#!/usr/bin/env bash
# One command from a fresh machine to every test: installs what is needed,
# builds and runs the whole suite.
#   scripts/test.sh                 plain build
#   scripts/test.sh address|thread  the same suite under AddressSanitizer +
#                                   UndefinedBehaviorSanitizer, or ThreadSanitizer
#   scripts/test.sh all             all three, one after the other
#   scripts/test.sh arm64           an arm64 cross build, the suite under
#                                   qemu's user-mode emulator
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh" "${1:-}"
flavours=("${1:-plain}")
[ "${1:-}" = "all" ] && flavours=(plain address thread)
for flavour in "${flavours[@]}"; do
  echo "== $flavour build"
  dir="$("$root/scripts/build.sh" "$flavour" | tail -n 1)"
  echo "== $flavour tests"
  (cd "$dir" && ctest --output-on-failure -j"$(nproc)")
done
