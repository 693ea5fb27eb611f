# packaging.cmake - where `cmake --install` and the Debian package put everything: the two
# programs, the private transport library, the manuals (built from docs/man with scdoc), the
# bash completion, the docs and the example bundle; and the DEB package made by CPack.
# The version is the project's, set once in project(VERSION).

# The transport library is private to the sub-service: Debian keeps such libraries in
# /usr/lib/<multiarch>/<package> (no ldconfig, no shlibs), found through the executables'
# RUNPATH.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(ZEL_PRIVATE_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE}/zelparser)
else()
  set(ZEL_PRIVATE_LIBDIR lib/zelparser)
endif()
set_target_properties(zelparser zelrzp-manager PROPERTIES
  INSTALL_RPATH "\$ORIGIN/../${ZEL_PRIVATE_LIBDIR}")
target_compile_definitions(zelparser PRIVATE ZEL_VERSION="${PROJECT_VERSION}")

install(TARGETS zelparser zelrzp-manager RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS zelrzptransport LIBRARY DESTINATION ${ZEL_PRIVATE_LIBDIR} NAMELINK_SKIP
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# The manuals: scdoc turns each docs/man/NAME.SECTION.scd into roff, gzip -9n compresses it
# (no name or time stamp in the header, so the package is reproducible).
find_program(SCDOC scdoc REQUIRED)
set(ZEL_MANUALS zelrzp-manager.1 zelparser.8)
set(ZEL_MANUAL_FILES)
foreach(Manual ${ZEL_MANUALS})
  set(Source ${PROJECT_SOURCE_DIR}/docs/man/${Manual}.scd)
  set(Roff ${CMAKE_BINARY_DIR}/man/${Manual})
  add_custom_command(OUTPUT ${Roff} ${Roff}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${SCDOC} < ${Source} > ${Roff}
    COMMAND gzip -9n -c ${Roff} > ${Roff}.gz
    DEPENDS ${Source} VERBATIM)
  list(APPEND ZEL_MANUAL_FILES ${Roff} ${Roff}.gz)
  string(REGEX REPLACE ".*\\." "" Section ${Manual})
  install(FILES ${Roff}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${Section})
endforeach()
add_custom_target(manuals ALL DEPENDS ${ZEL_MANUAL_FILES})

# Bash completion, where bash-completion loads it on demand (by the command's name).
# Lintian's verdicts that do not apply, each with its reason (packaging/lintian-overrides).
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME zelparser)

install(FILES completion/zelrzp-manager
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

# Docs and the example bundle; Debian's copyright file and changelog beside them.
set(ZEL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/zelparser)
install(FILES README.md docs/bundle-format.md docs/xml-dialect.md docs/manager.md docs/lint.md
  docs/wire-format.md docs/check.md docs/snapshot.md docs/install.md packaging/copyright
  DESTINATION ${ZEL_DOCDIR})
# The install journal's state directory belongs to the package (install makes it when missing).
install(DIRECTORY DESTINATION /var/lib/zelparser)
install(DIRECTORY examples/ DESTINATION ${ZEL_DOCDIR}/examples)
configure_file(packaging/changelog.in ${CMAKE_BINARY_DIR}/packaging/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
  COMMAND gzip -9n -c ${CMAKE_BINARY_DIR}/packaging/changelog
    > ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
  DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog VERBATIM)
add_custom_target(debian-changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz DESTINATION ${ZEL_DOCDIR})

# The Debian package: `cpack` in the build directory writes zelparser_VERSION-1_ARCH.deb.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelparser)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "parser sub-service of a server deployment tool")
# CPack puts the summary first and indents these lines; an empty line becomes " .".
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "zelparser reads a bundle directory of driver and management-agent packages,
detects the installed Linux distribution, picks the bundle that supports it
and hands every component's install record to the manager program over a
packet protocol.

zelrzp-manager plays the manager's side: it shows the install plan a bundle
yields on any of eight simulated distributions, its support matrix, a lint of
the bundle's XML (also as SARIF) and an HTML report page.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zelparser developers <zelparser@example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
