# 32-bit big-endian MIPS with Debian's cross compiler (g++-mips-linux-gnu), run under qemu-mips
# (qemu-user).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)

# Programs are linked dynamically, as on the device, so that their sizes are those of our own code;
# the emulator finds the loader and the C library below -L.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L /usr/mips-linux-gnu)

set(CMAKE_FIND_ROOT_PATH /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The linker's default is ready for pages of 64 kB, at the price of up to that much padding in the
# file; the kernels of such devices have pages of 4 or 16 kB.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-z,max-page-size=16384)
