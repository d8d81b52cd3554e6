# Cross-build for 64-bit Arm Linux with Debian's g++-aarch64-linux-gnu; tests and tools run under
# qemu-user (scripts/ensure-deps.sh arm64 installs both).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(FBM_ARM64_SYSROOT /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${FBM_ARM64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and test discovery run the target's programs through this.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${FBM_ARM64_SYSROOT})
