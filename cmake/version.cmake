# Writes what carries the version of the desk tools, at every build, so that the git commit
# stays current: the header the C++ tools include and make-sample-rom. A file is rewritten only
# when its text changes.
#
#   cmake -DSOURCE_DIR=... -DBINARY_DIR=... -DVERSION=... -P cmake/version.cmake

set(GIT_COMMIT "")
find_program(GIT git)
if(GIT AND EXISTS ${SOURCE_DIR}/.git)
  execute_process(COMMAND ${GIT} -C ${SOURCE_DIR} describe --always --dirty
                  OUTPUT_VARIABLE GIT_COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
configure_file(${SOURCE_DIR}/cmake/bundlerun_version.h.in
               ${BINARY_DIR}/generated/bundlerun_version.h @ONLY)
configure_file(${SOURCE_DIR}/tools/sample-rom/make-sample-rom.in
               ${BINARY_DIR}/tools/sample-rom/make-sample-rom @ONLY)
