#!/usr/bin/env bash
# Builds the engine, generates the benchmark clips and runs every benchmark.
# Each benchmark reports its figure as a ratio against a reference run in the
# same process or command, so the numbers are comparable across machines.
#   scripts/bench.sh [FILTER]   runs only benchmarks whose program name contains FILTER
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
dir="$("$root/scripts/build.sh" plain | tail -n 1)"
bash "$root/tests/fixtures/make_fixtures.sh" "$root/build/fixtures" "$dir/tests/set_display_rotation" --bench
for program in "$dir"/bench/*bench; do
  [ -x "$program" ] || continue
  case "$(basename "$program")" in *"${1:-}"*) ;; *) continue ;; esac
  echo "== $(basename "$program")"
  "$program"
done
