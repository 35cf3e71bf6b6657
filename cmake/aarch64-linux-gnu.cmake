# Cross build for 64-bit Arm with Debian's cross toolchain (g++-aarch64-linux-gnu)
# and the arm64 packages of the multiarch tree (/usr/lib/aarch64-linux-gnu).
# Programs built here run on this machine under qemu user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Test discovery and ctest run the built programs through the emulator. They
# load with the loader and C library of the arm64 packages (libc6:arm64), not the
# cross toolchain's copy under /usr/aarch64-linux-gnu, which is for linking only:
# that loader with the other package's C library hangs in pthread_create.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)

# Libraries, headers and package files only of the target; host programs (the
# emulator, python3) from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
