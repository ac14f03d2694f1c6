# Cross build for armhf Linux with Debian's cross compilers
# (crossbuild-essential-armhf). The target's libraries come either from Debian
# multiarch (:armhf -dev packages installed on the build machine; the default)
# or from a sysroot unpacked from the target's packages, given with
# -DNETMGR_SYSROOT=DIR or the environment variable NETMGR_SYSROOT.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(NETMGR_TARGET_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
