#!/usr/bin/env bash
# Installs, with apt-get, whatever a fresh Debian machine lacks to build and
# test the project.  Does nothing when everything is there already.
set -euo pipefail

packages=(cmake make g++ gcc clang libclang-rt-14-dev binutils libgtest-dev libgmock-dev
          libbenchmark-dev libcli11-dev nlohmann-json3-dev libfmt-dev librsvg2-bin libedit-dev
          libxml2-utils lintian ansible-core)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo_cmd apt-get update -qq
$sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
