#!/usr/bin/env bash
# Configures and builds one flavour of the engine.
#   scripts/build.sh [plain|address|thread]   (default: plain)
# Build trees: build/, build-asan/, build-tsan/. Test media are generated
# once into build/fixtures and shared by all flavours.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
flavour="${1:-plain}"
case "$flavour" in
  plain) dir="$root/build"; sanitize="" ;;
  address) dir="$root/build-asan"; sanitize="address" ;;
  thread) dir="$root/build-tsan"; sanitize="thread" ;;
  *) echo "usage: $0 [plain|address|thread]" >&2; exit 2 ;;
esac
bench=ON
[ -n "$sanitize" ] && bench=OFF
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVRA_SANITIZE="$sanitize" \
  -DKAVRA_FIXTURE_DIR="$root/build/fixtures" -DKAVRA_BUILD_BENCH="$bench" >/dev/null
cmake --build "$dir" -j"$(nproc)"
echo "$dir"
