include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
toolchain(arm arm-linux-gnueabihf qemu-arm-static armhf)
