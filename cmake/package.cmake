# The Debian package of the desk build, "bundlerun-desk": bundlerun, the desk tools, their manual
# pages and bash completion, under /usr (scripts/package makes and checks it). Its dependencies
# are computed by dpkg-shlibdeps; the Android host libraries are found in their own directory.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bundlerun-desk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The bundlerun Authors")
set(CPACK_PACKAGE_CONTACT "The bundlerun Authors <bundlerun@yonda.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "OS-update client of a device's update boot environment, on a desk")
set(CPACK_PACKAGE_DESCRIPTION
    "bundlerun is the online OS-update client of an Android device's update boot
environment. This package holds its desk build and the tools that play the
device's surroundings: bundlerun-ui, a terminal front end that runs a whole
update; bundlerun-update-server, the update server and package mirrors; and
make-sample-rom, which makes a sample ROM package. Run them inside a sandbox:
bundlerun writes /cache and /tmp, mounts a tmpfs and sets the clock.")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://bundlerun.yonda.example/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${ANDROID_LIB_DIR})
# make-sample-rom zips the package; the rest is found by dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "zip")
set(CPACK_STRIP_FILES ON)

# What Debian's policy asks of every package: its copyright (bundlerun's, and libcurl's, which
# is linked in), a changelog, and lintian's overrides with their reasons.
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_PACKAGE_NAME})
file(READ ${libcurl_prefix}/share/doc/COPYING libcurl_copying)
string(REGEX REPLACE "\n\n" "\n.\n" libcurl_copying "${libcurl_copying}")
string(REGEX REPLACE "\n([^\n])" "\n \\1" libcurl_copying "${libcurl_copying}")
configure_file(packaging/copyright.in ${CMAKE_BINARY_DIR}/package/copyright @ONLY)
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.Debian.in ${CMAKE_BINARY_DIR}/package/changelog.Debian @ONLY)
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/package/changelog.Debian.gz
  COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/package/changelog.Debian
  DEPENDS ${CMAKE_BINARY_DIR}/package/changelog.Debian
  VERBATIM)
add_custom_target(package_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/package/changelog.Debian.gz)
install(FILES ${CMAKE_BINARY_DIR}/package/copyright
              ${CMAKE_BINARY_DIR}/package/changelog.Debian.gz
        DESTINATION ${doc_dir})
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME ${CPACK_PACKAGE_NAME})

include(CPack)
