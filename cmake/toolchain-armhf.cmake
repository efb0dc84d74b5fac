# Cross build for 32-bit ARM routers (hard float) with Debian's cross compiler
# and the target's libraries from Debian's armhf architecture:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(BANDHERD_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(BANDHERD_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-debian-cross.cmake)
