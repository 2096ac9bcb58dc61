#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is
# missing: one `apt-get update`, then one install of what is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ make
  googletest libgtest-dev libgmock-dev
  clang-14 libclang-rt-14-dev
  wine64
  python3                     # writes the archive and the .exe's checksum
  osslsigncode openssl unzip  # signing, and the checks of a signed build
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
