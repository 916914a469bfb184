#!/usr/bin/env bash
# Installs, from Debian packages, whatever building, testing and the tools need.
# Idempotent and silent when everything is present: `apt-get update` runs only
# when at least one package is missing. Nothing is downloaded from elsewhere.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ make pkg-config
  # the sanitizer builds of CI
  clang libclang-rt-14-dev
  # the app-toolchain builds of CI: libc++ (with googletest compiled from its
  # source package against it) and 32-bit x86 through GCC's multilib
  libc++-14-dev libc++abi-14-dev googletest g++-multilib
  # libraries
  rapidjson-dev libfast-float-dev libgtest-dev libgmock-dev libbenchmark-dev
  libcurl4-openssl-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}" >&2
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "bootstrap: need root or sudo to install ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq >/dev/null
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
