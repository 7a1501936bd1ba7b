# toolchain(PROCESSOR TRIPLE QEMU ARCHITECTURE): Debian's cross compiler, libraries of
# the target under build/sysroot/ARCHITECTURE (script/cross puts them there), tests
# run by qemu-user.
macro(toolchain processor triple qemu architecture)
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR ${processor})
  set(CMAKE_CXX_COMPILER ${triple}-g++)
  set(CMAKE_C_COMPILER ${triple}-gcc)
  get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${architecture}
                         ABSOLUTE)
  set(CMAKE_CXX_FLAGS_INIT "-isystem ${sysroot}/usr/include/${triple}")  # opensslconf.h
  set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
  set(CMAKE_FIND_ROOT_PATH ${sysroot} /usr/${triple})
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      ${qemu};-L;/usr/${triple};-E;LD_LIBRARY_PATH=${sysroot}/usr/lib/${triple})
endmacro()
