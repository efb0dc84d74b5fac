# Writes the version and build strings of the daemon; run at every build.
# In: SRC_DIR, OUT, VERSION, PLATFORM, COMPILER.
execute_process(COMMAND git describe --always --dirty --abbrev=10
                WORKING_DIRECTORY ${SRC_DIR}
                OUTPUT_VARIABLE rev OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR rev STREQUAL "")
  set(rev "unknown")
endif()
string(TIMESTAMP now "%Y-%m-%d %H:%M:%S UTC" UTC)
set(text "// Generated at build time.
#include \"steer_version.h\"
const char g_steer_version[] = \"${VERSION} (${rev})\";
const char g_steer_build[] = \"${now}, ${COMPILER}, ${PLATFORM} platform\";
")
if(EXISTS ${OUT})
  file(READ ${OUT} old)
else()
  set(old "")
endif()
if(NOT old STREQUAL text)
  file(WRITE ${OUT} "${text}")
endif()
