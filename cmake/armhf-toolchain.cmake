# Cross-compiling for 32-bit ARM (armhf) with Debian's arm-linux-gnueabihf
# toolchain; scripts/cross-armhf uses it.
#
# DC_ARMHF_SIDE_DIR is the directory where the armhf packages of the
# libraries were unpacked with `dpkg -x` (usr/include, usr/lib/arm-linux-gnueabihf);
# the C library and libstdc++ are the toolchain's own (/usr/arm-linux-gnueabihf).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Libraries are looked for in <prefix>/lib/arm-linux-gnueabihf.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# try_compile projects read this file again and need the side directory too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DC_ARMHF_SIDE_DIR)
if(NOT DC_ARMHF_SIDE_DIR)
  message(FATAL_ERROR "set DC_ARMHF_SIDE_DIR to the unpacked armhf packages (scripts/cross-armhf does)")
endif()

# Libraries, headers and CMake packages come from the side directory only;
# tools run at build time (the Thrift compiler) are the host's.
set(CMAKE_FIND_ROOT_PATH ${DC_ARMHF_SIDE_DIR})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${DC_ARMHF_SIDE_DIR}/usr/lib/arm-linux-gnueabihf/pkgconfig:${DC_ARMHF_SIDE_DIR}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${DC_ARMHF_SIDE_DIR})

# The architecture's own headers (opensslconf.h...) come before the shared ones.
# -Wno-psabi: GCC notes on every std::vector iterator that the ARM calling
# convention changed in GCC 7.1, which concerns only code mixed with GCC < 7.
foreach(lang C CXX)
  string(APPEND CMAKE_${lang}_FLAGS_INIT
    " -Wno-psabi -isystem ${DC_ARMHF_SIDE_DIR}/usr/include/arm-linux-gnueabihf -isystem ${DC_ARMHF_SIDE_DIR}/usr/include")
endforeach()

set(dc_side_libs ${DC_ARMHF_SIDE_DIR}/usr/lib/arm-linux-gnueabihf ${DC_ARMHF_SIDE_DIR}/lib/arm-linux-gnueabihf)
# The linker follows the libraries' own dependencies (libcurl on libssl...) there.
foreach(dir ${dc_side_libs})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
endforeach()

# ctest and gtest_discover_tests run the test programs through qemu-arm
# (binfmt_misc is not needed): -L gives the toolchain's loader and C library,
# -E the target's library path for the side directory.
list(JOIN dc_side_libs ":" dc_library_path)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=${dc_library_path})
