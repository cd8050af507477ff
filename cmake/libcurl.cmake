# libcurl for desk builds: Debian's curl source package built as a static library for HTTP and
# HTTPS over GnuTLS (scripts/build-libcurl), kept in a cache that every build tree of the checkout
# shares. Debian's shared libcurl brings libssh2 and with it OpenSSL's libcrypto into every
# process, beside the BoringSSL that bundlerun uses; this one brings no second crypto library.
#
# BUNDLERUN_LIBCURL_PREFIX names an already built prefix (include/, lib/libcurl.a) instead.

set(BUNDLERUN_LIBCURL_PREFIX "" CACHE PATH
    "Prefix of a static libcurl without SSH (default: built by scripts/build-libcurl)")
set(libcurl_prefix "${BUNDLERUN_LIBCURL_PREFIX}")
if(NOT libcurl_prefix)
  execute_process(
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/build-libcurl --triplet ${CMAKE_LIBRARY_ARCHITECTURE}
    OUTPUT_VARIABLE libcurl_prefix OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "scripts/build-libcurl failed for ${CMAKE_LIBRARY_ARCHITECTURE}")
  endif()
endif()
if(NOT EXISTS ${libcurl_prefix}/lib/libcurl.a)
  message(FATAL_ERROR "No static libcurl at ${libcurl_prefix}/lib/libcurl.a")
endif()

pkg_check_modules(GNUTLS REQUIRED IMPORTED_TARGET gnutls nettle)
add_library(bundlerun::libcurl STATIC IMPORTED)
set_target_properties(bundlerun::libcurl PROPERTIES
  IMPORTED_LOCATION ${libcurl_prefix}/lib/libcurl.a
  INTERFACE_INCLUDE_DIRECTORIES ${libcurl_prefix}/include
  INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB
  INTERFACE_LINK_LIBRARIES "PkgConfig::GNUTLS;Threads::Threads")
