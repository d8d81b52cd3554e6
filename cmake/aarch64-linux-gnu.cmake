# Cross-build for 64-bit Arm Linux with Debian's g++-aarch64-linux-gnu; tests and tools run under
# qemu-user (scripts/ensure-deps.sh arm64 installs both).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# The multiarch folder of the arm64 builds of Debian's Android libraries (/usr/lib/<this>/android).
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(FBM_ARM64_SYSROOT /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${FBM_ARM64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The arm64 7z.so that the arm64 libbacktrace (under libutils) needs, unpacked into the build
# tree by scripts/ensure-deps.sh arm64: found through it at link time and under qemu-user.
get_filename_component(FBM_ARM64_P7ZIP "${CMAKE_CURRENT_LIST_DIR}/../build/deps/arm64/usr/lib/p7zip" ABSOLUTE)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${FBM_ARM64_P7ZIP}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${FBM_ARM64_P7ZIP}")

# ctest and test discovery run the target's programs through this, on the arm64 runtime that
# multiarch installed with the Android libraries (libc6:arm64 under /lib/aarch64-linux-gnu): the
# cross sysroot's glibc is another build, and a loader of one with the C library of the other
# hangs at the first thread.
set(FBM_ARM64_RUNTIME /)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${FBM_ARM64_RUNTIME} -E LD_LIBRARY_PATH=${FBM_ARM64_P7ZIP})
