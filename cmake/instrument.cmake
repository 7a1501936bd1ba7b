# Compiler options for all targets: warnings, hardening and instrumentation.
add_library(weir_build INTERFACE)

option(WEIR_TESTS "Build the tests, with GoogleTest" OFF)
option(WEIR_BENCH "Build the benchmarks" OFF)
option(WEIR_FUZZ "Build the fuzz drivers (clang)" OFF)
option(WEIR_WERROR "Warnings are errors" OFF)
option(WEIR_HARDENED "PIE, full RELRO, fortified, stack protector" OFF)
set(WEIR_SANITIZE "" CACHE STRING "Comma-separated sanitizers; any report ends the program")
option(WEIR_COVERAGE "Instrument for gcov" OFF)

# On 32 bits the defaults make stat() fail for large inode numbers and time_t end in 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(weir_build INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# On some 32-bit processors (armel, mipsel, powerpc) 64-bit atomics are library calls.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("
  #include <atomic>
  #include <cstdint>
  std::atomic<std::uint64_t> count;
  int main() { return static_cast<int>(count.fetch_add(1)); }" WEIR_ATOMICS_ARE_BUILT_IN)
if(NOT WEIR_ATOMICS_ARE_BUILT_IN)
  target_link_libraries(weir_build INTERFACE atomic)
endif()

target_compile_options(weir_build INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(weir_build INTERFACE -Wthread-safety)
endif()
if(WEIR_WERROR)
  target_compile_options(weir_build INTERFACE -Werror)
endif()

if(WEIR_HARDENED)
  target_compile_options(weir_build INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection
    -fPIE -ffunction-sections -fdata-sections
    # Keep the paths of the build machine out of the binary.
    -ffile-prefix-map=${PROJECT_BINARY_DIR}/include/= -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  target_link_options(weir_build INTERFACE
    -pie -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
endif()

if(WEIR_SANITIZE)
  target_compile_options(weir_build INTERFACE
    -fsanitize=${WEIR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    -D_GLIBCXX_ASSERTIONS)
  target_link_options(weir_build INTERFACE -fsanitize=${WEIR_SANITIZE})
endif()

# Coverage feedback for libFuzzer, whose main() only the drivers link.
if(WEIR_FUZZ)
  target_compile_options(weir_build INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(WEIR_COVERAGE)
  target_compile_options(weir_build INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(weir_build INTERFACE --coverage)
endif()
