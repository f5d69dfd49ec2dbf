#!/usr/bin/env bash
# Installs every Debian package kelva needs to build, test and demo.
# Idempotent: asks dpkg first and runs apt-get only when something is missing.
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config python3
  # libraries
  libgtest-dev libgmock-dev libbenchmark-dev libxxhash-dev nlohmann-json3-dev
  audacious audacious-dev audacious-plugins libsndfile1-dev libao-dev
  # 68k cross toolchain for kelva's own players
  gcc-m68k-linux-gnu binutils-m68k-linux-gnu
  # fuzzing and sanitizers
  clang libclang-rt-14-dev
  # real-host integration test and reference renders
  dbus dbus-x11 openmpt123 xmp sox
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "setup: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
