#!/usr/bin/env bash
# One command from a fresh machine to the main job: installs what is needed,
# builds, generates the built-in sample clip and plays it with kavra: in a
# window with sound when there is a display, otherwise headless with a JSON
# report of what was shown and heard.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
dir="$("$root/scripts/build.sh" plain | tail -n 1)"
bash "$root/tests/fixtures/make_fixtures.sh" "$root/build/fixtures" "$dir/tests/set_display_rotation"
sample="$root/build/fixtures/h264_aac.mp4"
"$dir/kavra" probe "$sample"
if [[ -n "${DISPLAY:-}" || -n "${WAYLAND_DISPLAY:-}" ]]; then
    "$dir/kavra" play "$sample"
else
    "$dir/kavra" play --headless --json "$sample"
fi
