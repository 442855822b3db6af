#!/usr/bin/env bash
# One command from a fresh machine to the main job: installs what is needed,
# builds, generates the built-in sample clip and probes it with kavra.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
dir="$("$root/scripts/build.sh" plain | tail -n 1)"
bash "$root/tests/fixtures/make_fixtures.sh" "$root/build/fixtures" "$dir/tests/set_display_rotation"
"$dir/kavra" probe "$root/build/fixtures/h264_aac.mp4"
