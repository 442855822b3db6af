#!/usr/bin/env bash
# Installs everything the engine, its tests and its benchmarks need, from
# Debian's packages. Safe to run again: apt-get skips what is installed.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  ffmpeg ffmpegthumbnailer
  android-liblog-dev
  openjdk-17-jdk-headless junit5
  googletest libgtest-dev libbenchmark-dev
  libsdl2-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
