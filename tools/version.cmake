# Writes the programs' version header: the project's version and, when built from a git clone, the
# git description of the tree ("0.9.0 (b6a24e4-dirty)"). The header changes only when the text
# does, so that an unchanged tree rebuilds nothing.
#   cmake -DVERSION=0.9.0 -DSOURCE=<tree> -DOUTPUT=<header> -P version.cmake
execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --tags OUTPUT_VARIABLE described
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
set(text "${VERSION}")
if(NOT failed AND described)
  set(text "${VERSION} (${described})")
endif()
set(header "#pragma once\n// Written by the build (tools/version.cmake).\n#define MKA_VERSION_TEXT \"${text}\"\n")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
endif()
if(NOT "${old}" STREQUAL "${header}")
  file(WRITE ${OUTPUT} "${header}")
endif()
