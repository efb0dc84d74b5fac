# Cross build for little-endian MIPS routers with Debian's cross compiler and
# the target's libraries from Debian's mipsel architecture:
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mipsel.cmake
set(BANDHERD_CROSS_TRIPLE mipsel-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(BANDHERD_CROSS_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-debian-cross.cmake)
