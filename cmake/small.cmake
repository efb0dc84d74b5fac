# The size-optimised build (BANDHERD_SMALL) for routers, included after the
# daemon's directories (src, platform) so that it reaches their targets.
#
# Everything (daemon and unit tests, which link the same objects) is compiled
# for size (-Os), one section per function and datum so that the linker drops
# what nothing uses, and without position independence (on MIPS that code
# makes the daemon a tenth bigger; the libraries stay randomised). The daemon's own
# targets also go without unwind tables, exceptions and RTTI (it uses none),
# keep their symbols to themselves and are optimised across modules at link
# time; the daemon is stripped. BANDHERD_MIPS16 compiles the daemon's code in
# the MIPS16e encoding, a fifth smaller, for cores that have it (24K, 34K,
# 74K, 1004K, interAptiv).

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
  option(BANDHERD_MIPS16 "Size-optimised build: the daemon's code in MIPS16e" OFF)
else()
  set(BANDHERD_MIPS16 OFF)
endif()

if(NOT BANDHERD_SMALL)
  if(BANDHERD_MIPS16)
    message(FATAL_ERROR "BANDHERD_MIPS16 goes with BANDHERD_SMALL")
  endif()
  return()
endif()
if(BANDHERD_SANITIZE)
  message(FATAL_ERROR "BANDHERD_SMALL and BANDHERD_SANITIZE do not go together")
endif()

include(CheckIPOSupported)
check_ipo_supported(RESULT ipo_ok OUTPUT ipo_log LANGUAGES CXX)
if(NOT ipo_ok)
  message(FATAL_ERROR "BANDHERD_SMALL needs link-time optimisation: ${ipo_log}")
endif()

set(small_all -Os -ffunction-sections -fdata-sections -fmerge-all-constants -fno-pie)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
  # Code for an executable, not a shared library; its calls to the shared
  # libraries through a PLT. In MIPS16 a call that passes or returns a double
  # in floating-point registers goes through a call stub that the linker's
  # garbage collection drops (GCC 12, binutils 2.40): the daemon makes such
  # calls from standard-encoding functions only (STEER_FLOAT_CALLS), and
  # scripts/cross.sh fails a MIPS16 daemon that makes one from MIPS16 code.
  list(APPEND small_all -mno-shared -mplt)
endif()
if(BANDHERD_MIPS16)
  # Standard-encoding code (the tests, the libraries) may call MIPS16 code.
  list(APPEND small_all -minterlink-compressed)
endif()
# No tail calls: on MIPS (abicalls) and ARM a tail call to another module or
# library costs more code than the call and return it saves.
set(small_daemon -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-unwind-tables
    -fvisibility=hidden -fvisibility-inlines-hidden -fno-optimize-sibling-calls)
if(BANDHERD_MIPS16)
  list(APPEND small_daemon -mips16)
endif()

# Every target of the build, and the daemon's own.
function(bandherd_small_collect dir out)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    bandherd_small_collect(${sub} more)
    list(APPEND targets ${more})
  endforeach()
  set(${out} ${targets} PARENT_SCOPE)
endfunction()

bandherd_small_collect(${PROJECT_SOURCE_DIR} every_target)
bandherd_small_collect(${PROJECT_SOURCE_DIR}/src daemon_targets)
bandherd_small_collect(${PROJECT_SOURCE_DIR}/platform platform_targets)
list(APPEND daemon_targets ${platform_targets})

foreach(t IN LISTS every_target)
  get_target_property(type ${t} TYPE)
  if(type MATCHES "^(STATIC_LIBRARY|EXECUTABLE|OBJECT_LIBRARY)$")
    target_compile_options(${t} PRIVATE ${small_all})
  endif()
  if(type STREQUAL "EXECUTABLE")
    target_link_options(${t} PRIVATE -no-pie)
    # The linker's garbage collection drops the stub through which
    # standard-encoding code calls a MIPS16 function with a floating-point
    # argument (binutils 2.40): the tests make such calls into the daemon's
    # code; in the daemon only MIPS16 code calls it (the libraries call back
    # with pointers alone), so it is collected there.
    if(NOT BANDHERD_MIPS16 OR t STREQUAL "bandherd")
      target_link_options(${t} PRIVATE -Wl,--gc-sections)
    endif()
  endif()
endforeach()
foreach(t IN LISTS daemon_targets)
  get_target_property(type ${t} TYPE)
  if(type MATCHES "^(STATIC_LIBRARY|EXECUTABLE|OBJECT_LIBRARY)$")
    target_compile_options(${t} PRIVATE ${small_daemon})
    set_property(TARGET ${t} PROPERTY INTERPROCEDURAL_OPTIMIZATION ON)
  endif()
endforeach()
# The daemon's file: stripped, no build id, and no padding of the file to a
# page boundary between code and data (no saving of a page of memory at the
# cost of up to a page of file: -z common-page-size). The loadable segments
# keep their alignment (max-page-size), and where the target has RELRO its
# read-only part still ends on a page boundary, so it stays protected.
# The daemon is optimised as one unit at link time (one partition): every call
# between its modules is then a local one (in MIPS16 a direct `jal` instead of
# a load and `jalr`). Equal constants are merged there too: the same packed
# text at many call sites is stored once (no code compares their addresses).
target_link_options(bandherd PRIVATE -s -Wl,--build-id=none -Wl,-z,common-page-size=16
                    -flto-partition=one -fmerge-all-constants)
