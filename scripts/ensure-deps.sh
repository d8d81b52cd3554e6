#!/usr/bin/env bash
# Installs the Debian packages the project needs when they are missing (as root, through apt-get).
# Usage: scripts/ensure-deps.sh [build] [sim] [bench] [fuzz] [arm64]   (default: build)
set -euo pipefail

groups=("$@")
[ ${#groups[@]} -gt 0 ] || groups=(build)

pkgs=()
for g in "${groups[@]}"; do
  case "$g" in
    build) pkgs+=(cmake ninja-build g++ libgtest-dev libgmock-dev clang) ;;
    sim)   pkgs+=(nlohmann-json3-dev libcli11-dev gnuplot-nox) ;;
    bench) pkgs+=(libbenchmark-dev libgstreamer1.0-dev pkg-config) ;;
    fuzz)  pkgs+=(clang libclang-rt-14-dev) ;;
    # The cross compiler, the user-mode emulator, and GoogleTest's sources to build for the target.
    arm64) pkgs+=(g++-aarch64-linux-gnu qemu-user googletest) ;;
    *) echo "ensure-deps: unknown group '$g'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "ensure-deps: missing packages: ${missing[*]} (run as root, or install them)" >&2
  exit 1
fi
echo "ensure-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
