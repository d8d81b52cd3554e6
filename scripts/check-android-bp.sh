#!/usr/bin/env bash
# Checks Android.bp as the device build would read it:
#   1. bpfmt (Debian's blueprint-tools, the real Blueprint parser): it parses and is formatted
#      canonically;
#   2. mini-soong (Debian's minimal Soong) turns it into a Makefile, which builds the vendor library
#      for arm64 with clang against the arm64 builds of liblog, libcutils and libutils, beside a
#      stand-in of the vendor camera stack (scripts/soong/vendor-standin.bp);
#   3. the library links with --no-undefined and exports its entry points only.
# The cc_test module of the tests is parsed and formatted by bpfmt and read by mini-soong, which
# knows the module type but builds nothing for it (its cc_test is a no-op): it is checked here as
# far as it is read, and built on a device.
# Usage: scripts/check-android-bp.sh   (scripts/ensure-deps.sh soong installs what it needs)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bad=$(bpfmt -l Android.bp scripts/soong/vendor-standin.bp)
if [ -n "$bad" ]; then
  echo "check-android-bp: not in canonical form (bpfmt -d shows how): $bad" >&2
  exit 1
fi

stage=build/soong
rm -rf "$stage"
mkdir -p "$stage/vendor" "$stage/gen/vexlor"
ln -s "$root/Android.bp" "$root/fbm" "$root/include" "$root/platform" "$stage/"
ln -s "$root/platform" "$stage/vendor/platform"
cp scripts/soong/vendor-standin.bp "$stage/vendor/Android.bp"
cd "$stage"
DEB_HOST_ARCH=arm64 DEB_HOST_MULTIARCH=aarch64-linux-gnu mini-soong '**/Android.bp' soong.mk 2>warnings.txt
grep -v '^WARNING: genrule not yet supported$' warnings.txt >&2 && { echo "check-android-bp: mini-soong warned" >&2; exit 1; }

# What real Soong does and mini-soong does not: run the genrule (a copy of four headers), give
# the header library's include folder and the Android libraries' headers, use cpp_std and
# version_script, keep -Werror. Soong
# compiles with clang; the arm64 libutils needs the arm64 7z.so that ensure-deps unpacked.
cp "$root/platform/include/vexlor/Clock.h" "$root/platform/include/vexlor/LogScheme.h" \
  "$root/platform/include/vexlor/ThreadAnnotations.h" "$root/platform/include/vexlor/Trace.h" gen/vexlor/
cat > Makefile <<MK
include soong.mk
CC = clang --target=aarch64-linux-gnu
CXXFLAGS += -std=c++17
CFLAGS += -Werror -I/usr/include/android
LDFLAGS += -Wl,--no-undefined -Wl,-rpath-link,$root/build/deps/arm64/usr/lib/p7zip
libvexlor_pipeline_fbm_CFLAGS += -Igen -Ivendor/platform/include
# -L.: mini-soong adds it only for modules of recipes read before this one (vendor/ comes after).
libvexlor_pipeline_fbm_LDFLAGS += -L. -Wl,--version-script=fbm/libvexlor_pipeline_fbm.map.txt
MK
make -s -j"$(nproc)" libvexlor_pipeline_fbm.so

exported=$(aarch64-linux-gnu-nm -D --defined-only libvexlor_pipeline_fbm.so | awk '{print $3}' | grep -v '^$')
file -L libvexlor_pipeline_fbm.so | grep -q 'ARM aarch64' || { echo "check-android-bp: not an arm64 library" >&2; exit 1; }
want=$(printf '%s\n' createFrameBufferManager getFrameBufferManagerState printFrameBufferManagerState)
if [ "$(sort <<<"$exported")" != "$want" ]; then
  echo "check-android-bp: exports other than its entry points:" >&2
  echo "$exported" >&2
  exit 1
fi
grep -q 'name: "libvexlor_pipeline_fbm_tests"' soong.mk 2>/dev/null ||
  grep -q 'cc_test {' Android.bp || { echo "check-android-bp: no cc_test module" >&2; exit 1; }
echo "Android.bp: canonical, builds for arm64 with --no-undefined, exports only its entry points; its cc_test is read (not built: mini-soong's cc_test builds nothing)"
