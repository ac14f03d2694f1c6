# Shared part of the toolchain files: compilers named after the target
# triplet, pkg-config and find_* looking only at the target's files, and
# qemu-user as the emulator when it is installed (CTest then runs a test
# build's binaries through it).
set(CMAKE_C_COMPILER ${NETMGR_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NETMGR_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NETMGR_TARGET_TRIPLET})

# Try-compile projects see the toolchain file again but not the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NETMGR_SYSROOT NETMGR_TARGET_TRIPLET)
if(NOT NETMGR_SYSROOT AND DEFINED ENV{NETMGR_SYSROOT})
  set(NETMGR_SYSROOT $ENV{NETMGR_SYSROOT})
endif()

if(NETMGR_SYSROOT)
  set(CMAKE_SYSROOT ${NETMGR_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${NETMGR_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${NETMGR_SYSROOT})
  set(pc_root ${NETMGR_SYSROOT})
else()
  # Multiarch: the target's files live beside the host's under /usr.
  unset(ENV{PKG_CONFIG_SYSROOT_DIR})
  set(pc_root "")
endif()
set(ENV{PKG_CONFIG_LIBDIR}
  "${pc_root}/usr/lib/${NETMGR_TARGET_TRIPLET}/pkgconfig:${pc_root}/usr/lib/pkgconfig:${pc_root}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

find_program(NETMGR_QEMU NAMES qemu-${CMAKE_SYSTEM_PROCESSOR}-static qemu-${CMAKE_SYSTEM_PROCESSOR})
if(NETMGR_QEMU)
  if(NETMGR_SYSROOT)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${NETMGR_QEMU} -L ${NETMGR_SYSROOT})
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${NETMGR_QEMU})
  endif()
endif()
