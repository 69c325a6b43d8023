#!/usr/bin/env bash
# Installs the Debian packages libqor needs to build, test and benchmark.
# Does nothing when they are all present; otherwise runs apt-get update and
# apt-get install -y (as root, or through sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config gzip python3
  qtbase5-dev zlib1g-dev libgtest-dev libgmock-dev libbenchmark-dev
  libglu1-mesa-dev libcgal-dev libjemalloc-dev libgoogle-perftools-dev libmimalloc-dev libdeflate-dev
  libisal-dev
  clang libclang-rt-dev librsvg2-bin man-db
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q "${missing[@]}"
