#!/usr/bin/env bash
# library_contents.sh LIBRARY
#
# The shipped library holds the engine and its platform implementations
# only: no test or desktop window exported, and no dependency on the
# desktop's SDL2, whatever the build machine has installed.
set -euo pipefail
lib=$1
status=0
windows=$(nm -D --defined-only "$lib" | c++filt | grep -E 'MemoryNativeWindow|SdlNativeWindow' || true)
if [[ -n $windows ]]; then
    echo "$lib exports window classes it must not hold:" >&2
    echo "$windows" | head -5 >&2
    status=1
fi
sdl=$(ldd "$lib" | grep -i sdl || true)
if [[ -n $sdl ]]; then
    echo "$lib depends on SDL2:" >&2
    echo "$sdl" >&2
    status=1
fi
exit $status
