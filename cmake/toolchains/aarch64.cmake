include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
toolchain(aarch64 aarch64-linux-gnu qemu-aarch64-static arm64)
