#!/usr/bin/env bash
# library_contents.sh LIBRARY
#
# The shipped library holds the engine and its platform implementations
# only: no test or desktop window exported, and no dependency on the
# desktop's SDL2, whatever the build machine has installed. (Its JNI entry
# point is what every Java test loads it through.)
set -euo pipefail
lib=$1
windows=$(nm -D --defined-only "$lib" | c++filt | grep -E 'MemoryNativeWindow|SdlNativeWindow' | head -5 || true)
sdl=$(ldd "$lib" | grep -i sdl || true)
[[ -z $windows ]] || echo "$lib exports window classes it must not hold: $windows" >&2
[[ -z $sdl ]] || echo "$lib depends on SDL2: $sdl" >&2
[[ -z $windows && -z $sdl ]]
