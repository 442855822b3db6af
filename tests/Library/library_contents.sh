#!/usr/bin/env bash
# library_contents.sh MACHINE LIBRARY PROGRAM...
#
# The shipped library holds the engine and its platform implementations
# only: no test or desktop window exported, and no dependency on the
# desktop's SDL2, whatever the build machine has installed. (Its JNI entry
# point is what every Java test loads it through.) The library and the
# programs the tests start are built for MACHINE, as readelf names it, so a
# cross build's suite never runs host programs by mistake.
set -euo pipefail
machine=$1 lib=$2
shift 2
windows=$(nm -D --defined-only "$lib" | c++filt | grep -E 'MemoryNativeWindow|SdlNativeWindow' | head -5 || true)
sdl=$(readelf -d "$lib" | grep NEEDED | grep -i sdl || true)
[[ -z $windows ]] || echo "$lib exports window classes it must not hold: $windows" >&2
[[ -z $sdl ]] || echo "$lib depends on SDL2: $sdl" >&2
status=0
for file in "$lib" "$@"; do
  built=$(readelf -h "$file" | sed -n 's/^ *Machine: *//p')
  [[ $built == "$machine" ]] || { echo "$file is built for $built, not $machine" >&2; status=1; }
done
[[ -z $windows && -z $sdl && $status -eq 0 ]]
