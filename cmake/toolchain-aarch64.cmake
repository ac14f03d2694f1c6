# Cross build for aarch64 Linux with Debian's cross compilers
# (crossbuild-essential-arm64). The target's libraries come either from Debian
# multiarch (:arm64 -dev packages installed on the build machine; the default)
# or from a sysroot unpacked from the target's packages, given with
# -DNETMGR_SYSROOT=DIR or the environment variable NETMGR_SYSROOT.
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(NETMGR_TARGET_TRIPLET aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
