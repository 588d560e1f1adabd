# Runs at every build (cmake -P): writes the build-stamp source with the time
# of this build and the repository's change number. The file is rewritten only
# when its text changes, so an unchanged stamp costs no recompilation.
execute_process(COMMAND date "+%b %d %Y %H:%M:%S %Z"
                OUTPUT_VARIABLE stamp_when OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND git -C "${SOURCE_DIR}" rev-list --count HEAD
                OUTPUT_VARIABLE stamp_change OUTPUT_STRIP_TRAILING_WHITESPACE
                RESULT_VARIABLE stamp_rc ERROR_QUIET)
if(NOT stamp_rc EQUAL 0 OR stamp_change STREQUAL "")
  set(stamp_change 0)
endif()
set(stamp_text "// Generated at build time; do not edit.\n#include \"DlrBuildStamp.h\"\n\nconst char* DlrBuildDateAndVersion()\n{\n    return \"linked ${stamp_when} _${stamp_change}\";\n}\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" stamp_old)
else()
  set(stamp_old "")
endif()
if(NOT stamp_old STREQUAL stamp_text)
  file(WRITE "${OUTPUT}" "${stamp_text}")
endif()
