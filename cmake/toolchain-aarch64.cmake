# Cross build for 64-bit ARM Linux with Debian's aarch64 cross compiler
# (g++-aarch64-linux-gnu). Test programs run through qemu's user-mode
# emulator, which finds the arm64 C library under the cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(VEMOPROC_AARCH64_SYSROOT /usr/aarch64-linux-gnu)
# The loader comes from the sysroot (-L); the C library must come from there
# too. Multiarch arm64 packages (libjpeg's) bring Debian's own arm64 C library
# into /lib/aarch64-linux-gnu, which the loader searches first; a C library of
# another build than the loader hangs on the first new thread. So the
# sysroot's lib folder is searched before the system folders.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L ${VEMOPROC_AARCH64_SYSROOT}
  -E LD_LIBRARY_PATH=${VEMOPROC_AARCH64_SYSROOT}/lib)

# Libraries come from the arm64 sysroot (and prefixes passed in
# CMAKE_PREFIX_PATH, e.g. a cross-built GoogleTest); programs from the host.
# Header-only packages (xtensor, xtl, CLI11) are architecture-independent, so
# their host CMake packages serve both.
list(APPEND CMAKE_FIND_ROOT_PATH ${VEMOPROC_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# Debian ships xtensor's CMake package in the host's multiarch folder; the
# package is header-only, so it is searched there as well.
execute_process(COMMAND dpkg-architecture -qDEB_BUILD_MULTIARCH
  OUTPUT_VARIABLE VEMOPROC_BUILD_MULTIARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(VEMOPROC_BUILD_MULTIARCH)
  list(APPEND CMAKE_PREFIX_PATH /usr/lib/${VEMOPROC_BUILD_MULTIARCH}/cmake)
endif()
# Debian's multiarch arm64 packages (scripts/setup.sh arm64 installs
# libjpeg62-turbo-dev:arm64) put the library in /usr/lib/aarch64-linux-gnu and
# its architecture-specific header (jconfig.h) in /usr/include/aarch64-linux-gnu,
# both outside the cross sysroot; jpeglib.h itself is shared with the host.
set(JPEG_LIBRARY /usr/lib/aarch64-linux-gnu/libjpeg.so CACHE FILEPATH "arm64 libjpeg")
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES /usr/include/aarch64-linux-gnu)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES /usr/include/aarch64-linux-gnu)
