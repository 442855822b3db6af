#!/usr/bin/env bash
# Configures and builds one flavour of the engine.
#   scripts/build.sh [plain|address|thread|arm64]   (default: plain)
# Build trees: build/, build-asan/, build-tsan/, build-arm64/. Test media are
# generated once into build/fixtures and shared by all flavours. arm64 is a
# cross build (after scripts/setup.sh arm64) whose programs run under qemu;
# it has no benchmarks.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
flavour="${1:-plain}"
case "$flavour" in
  plain) dir="$root/build"; sanitize="" ;;
  address) dir="$root/build-asan"; sanitize="address" ;;
  thread) dir="$root/build-tsan"; sanitize="thread" ;;
  arm64) dir="$root/build-arm64"; sanitize="" ;;
  *) echo "usage: $0 [plain|address|thread|arm64]" >&2; exit 2 ;;
esac
bench=ON
[ "$flavour" != plain ] && bench=OFF
cross=()
if [ "$flavour" = arm64 ]; then
  cross=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake"
         -DKAVRA_TARGET_JAVA_HOME="$dir/jre/usr/lib/jvm/java-17-openjdk-arm64")
fi
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVRA_SANITIZE="$sanitize" \
  -DKAVRA_FIXTURE_DIR="$root/build/fixtures" -DKAVRA_BUILD_BENCH="$bench" "${cross[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
echo "$dir"
