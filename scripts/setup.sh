#!/usr/bin/env bash
# Installs everything the engine, its tests and its benchmarks need, from
# Debian's packages. Safe to run again: apt-get skips what is installed.
#   scripts/setup.sh          the host's packages
#   scripts/setup.sh arm64    also the arm64 cross toolchain, the arm64
#                             libraries, qemu's user-mode emulator and an
#                             arm64 Java run-time unpacked into build-arm64/
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

packages=(
  build-essential cmake pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  ffmpeg ffmpegthumbnailer
  android-liblog-dev
  openjdk-17-jdk-headless junit5
  googletest libgtest-dev libbenchmark-dev
  libsdl2-dev
)
arm64_packages=(
  crossbuild-essential-arm64 qemu-user qemu-user-binfmt binfmt-support
  libavformat-dev:arm64 libavcodec-dev:arm64 libavutil-dev:arm64
  libswscale-dev:arm64 libswresample-dev:arm64
  android-liblog-dev:arm64 libgtest-dev:arm64
)

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

install() {  # install PACKAGE...: the ones not installed yet
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "setup: installing ${missing[*]}"
  $sudo apt-get update -qq
  # Multiarch keeps a library at one version in both architectures, so
  # adding an arm64 library can upgrade the host's copy: say which.
  local upgrades
  upgrades=$(apt-get install -s --no-install-recommends "${missing[@]}" 2>/dev/null |
    sed -n 's/^Inst \([^ ]*\) \[.*/\1/p' | tr '\n' ' ')
  [ -z "$upgrades" ] || echo "setup: this also upgrades installed packages: $upgrades"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

install "${packages[@]}"
[ "${1:-}" = "arm64" ] || exit 0

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "setup: adding the arm64 architecture"
  $sudo dpkg --add-architecture arm64
fi
install "${arm64_packages[@]}"

# Programs built for arm64 run under qemu-aarch64. Registering it with the
# kernel's binfmt_misc lets them run like host programs too; where the
# machine does not allow that, the build puts the emulator in front of every
# arm64 program the suite starts, so the suite runs either way.
if [ ! -e /proc/sys/fs/binfmt_misc/register ]; then
  $sudo mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null || true
fi
if [ -e /proc/sys/fs/binfmt_misc/register ] && [ ! -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
  $sudo update-binfmts --enable qemu-aarch64 2>/dev/null || true
fi
if [ -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
  echo "setup: arm64 programs run through binfmt_misc"
else
  echo "setup: binfmt_misc is not available: arm64 programs run behind qemu-aarch64 explicitly"
fi

# An arm64 Java run-time for the tests that start a JVM. Installing it as a
# package would replace the host's JDK, so it is unpacked into the build
# tree instead (the version apt offers now; the build takes the JNI headers,
# which do not change within Java 17, from the host's JDK).
jre="$root/build-arm64/jre"
if [ ! -x "$jre/usr/lib/jvm/java-17-openjdk-arm64/bin/java" ]; then
  echo "setup: unpacking an arm64 Java run-time into $jre"
  download=$(mktemp -d)
  # Run as root, apt-get downloads as its own user, which must be able to
  # write there.
  if [ "$(id -u)" -eq 0 ]; then
    chown _apt "$download" 2>/dev/null || true
  fi
  (cd "$download" && apt-get download -qq openjdk-17-jre-headless:arm64)
  mkdir -p "$jre"
  dpkg -x "$download"/openjdk-17-jre-headless_*_arm64.deb "$jre"
  rm -rf "$download"
  # The package links its configuration from /etc; point those links at the
  # unpacked copy.
  find "$jre" -type l -lname '/etc/*' | while read -r link; do
    ln -sfn "$jre$(readlink "$link")" "$link"
  done
fi
