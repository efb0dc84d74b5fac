# What the cross toolchain files share: Debian's cross compiler for
# BANDHERD_CROSS_TRIPLE, the target's libraries and pkg-config files from the
# multiarch directories (/usr/lib/<triple>), never the host's, and qemu-user
# to run the target's test binaries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${BANDHERD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${BANDHERD_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${BANDHERD_CROSS_TRIPLE})

# Libraries, headers and CMake packages of the target only; programs (the
# build's tools) of the host.
set(CMAKE_FIND_ROOT_PATH /usr/${BANDHERD_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config reads the target's .pc files (libuv, cJSON) and none of the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${BANDHERD_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test binaries run under qemu-user (ctest, and GoogleTest's test discovery).
# The cross compiler's own C library must come first: the multiarch one that
# the target's packages bring is another build, and a forked child crashes
# with it. qemu's -E sets the variable for the target program only.
# A program that dies of a signal makes qemu write "qemu: uncaught target
# signal ..." on its standard error, into the output a death test checks,
# unless qemu fails to write the program's core file: a core size limit of one
# byte makes it fail, leaving only a 1 KiB qemu_*.core in the working directory.
find_program(BANDHERD_QEMU ${BANDHERD_CROSS_QEMU})
if(BANDHERD_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR /bin/sh -c "ulimit -c 1 && exec \"$@\"" qemu
      ${BANDHERD_QEMU}
      -L /usr/${BANDHERD_CROSS_TRIPLE}
      -E LD_LIBRARY_PATH=/usr/${BANDHERD_CROSS_TRIPLE}/lib)
endif()
