#!/usr/bin/env bash
# Installs the Debian packages the project needs when they are missing (as root, through apt-get).
# Usage: scripts/ensure-deps.sh [build] [sim] [docs] [bench] [profile] [fuzz] [arm64] [soong]   (default: build)
set -euo pipefail

groups=("$@")
[ ${#groups[@]} -gt 0 ] || groups=(build)

pkgs=()
for g in "${groups[@]}"; do
  case "$g" in
    # The Android platform libraries (Debian's builds of AOSP's liblog, libcutils, libutils).
    build) pkgs+=(cmake ninja-build g++ libgtest-dev libgmock-dev clang
                  android-liblog-dev android-libcutils-dev android-libutils-dev) ;;
    sim)   pkgs+=(nlohmann-json3-dev libcli11-dev gnuplot-nox) ;;
    docs)  pkgs+=(doxygen) ;;
    bench) pkgs+=(libbenchmark-dev libgstreamer1.0-dev pkg-config) ;;
    profile) pkgs+=(valgrind python3) ;;
    fuzz)  pkgs+=(clang libclang-rt-14-dev) ;;
    # The cross compiler, the user-mode emulator, and GoogleTest's sources to build for the target.
    # The arm64 builds of the Android libraries come through multiarch (see below).
    arm64) pkgs+=(g++-aarch64-linux-gnu qemu-user googletest
                  android-liblog-dev:arm64 android-libcutils-dev:arm64 android-libutils-dev:arm64)
           arm64=1 ;;
    # Android.bp checked with the real Blueprint parser and built with mini-soong.
    soong) pkgs+=(blueprint-tools mini-soong android-liblog-dev:arm64 android-libcutils-dev:arm64
                  android-libutils-dev:arm64 g++-aarch64-linux-gnu)
           arm64=1 ;;
    *) echo "ensure-deps: unknown group '$g'" >&2; exit 2 ;;
  esac
done

as_root() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "ensure-deps: $* needs root (run as root, or do it by hand)" >&2
    exit 1
  fi
  "$@"
}
export DEBIAN_FRONTEND=noninteractive
updated=
if [ -n "${arm64:-}" ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
  as_root dpkg --add-architecture arm64
  as_root apt-get update -qq
  updated=1
fi

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "ensure-deps: installing ${missing[*]}" >&2
  [ -n "$updated" ] || as_root apt-get update -qq
  as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The arm64 libbacktrace (under libutils) needs the arm64 7z.so of p7zip-full. That package is
# Multi-Arch: foreign, so apt is satisfied by the amd64 copy: the arm64 one is downloaded and
# unpacked into the build tree (build/deps/arm64), where the arm64 link and qemu-user find it.
if [ -n "${arm64:-}" ]; then
  root=$(cd "$(dirname "$0")/.." && pwd)
  deps="$root/build/deps/arm64"
  if [ ! -f "$deps/usr/lib/p7zip/7z.so" ]; then
    mkdir -p "$deps/debs"
    (cd "$deps/debs" && apt-get download -qq -o APT::Sandbox::User=root p7zip-full:arm64)
    dpkg-deb -x "$deps"/debs/p7zip-full_*_arm64.deb "$deps"
  fi
fi
exit 0
