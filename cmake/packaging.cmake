# packaging.cmake - where `cmake --install` and the packages put everything: the two programs,
# the private transport library, the manuals (built from docs/man with scdoc), the bash
# completion, the docs and the example bundle, the Ansible collection; and the DEB and RPM
# packages made by CPack (packaging/cpack-generators.cmake.in sets what differs between them).
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
install(FILES completion/zelrzp-manager
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

# Docs and the example bundle.
set(ZEL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/zelparser)
install(FILES README.md docs/bundle-format.md docs/xml-dialect.md docs/manager.md docs/lint.md
  docs/wire-format.md docs/check.md docs/snapshot.md docs/install.md docs/rollout.md
  DESTINATION ${ZEL_DOCDIR})
# The install journal's state directory belongs to the package (install makes it when missing).
install(DIRECTORY DESTINATION /var/lib/zelparser)
install(DIRECTORY examples/ DESTINATION ${ZEL_DOCDIR}/examples)

# What only one kind of package holds, each in its own install component (cpack picks them,
# packaging/cpack-generators.cmake.in): Debian's copyright file, changelog and lintian
# overrides (each with its reason, packaging/lintian-overrides); the RPM's licence text, where
# RPM distributions keep licences.
install(FILES packaging/copyright DESTINATION ${ZEL_DOCDIR} COMPONENT deb)
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME zelparser COMPONENT deb)
configure_file(packaging/changelog.in ${CMAKE_BINARY_DIR}/packaging/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
  COMMAND gzip -9n -c ${CMAKE_BINARY_DIR}/packaging/changelog
    > ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
  DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog VERBATIM)
add_custom_target(debian-changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz DESTINATION ${ZEL_DOCDIR}
  COMPONENT deb)
install(FILES COPYING DESTINATION ${CMAKE_INSTALL_DATADIR}/licenses/zelparser COMPONENT rpm)

# The packages: `cpack` in the build directory writes zelparser_VERSION-1_ARCH.deb and
# zelparser-VERSION-1.ARCH.rpm (`cpack -G DEB` or `-G RPM` for one of them).
set(CPACK_GENERATOR DEB RPM)
set(CPACK_PACKAGE_NAME zelparser)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "parser sub-service of a server deployment tool")
set(CPACK_PACKAGE_CONTACT "zelparser developers <zelparser@example.org>")
set(ZEL_PACKAGE_DESCRIPTION "zelparser reads a bundle directory of driver and management-agent packages,
detects the installed Linux distribution, picks the bundle that supports it
and hands every component's install record to the manager program over a
packet protocol.

zelrzp-manager plays the manager's side: it shows the install plan a bundle
yields on any of eight simulated distributions, its support matrix, a lint of
the bundle's XML (also as SARIF), an HTML report page, and the check of a
bundle against this machine or the snapshots of a fleet.

The Ansible collection zelparser.rollout rolls a bundle out across a fleet:
every server's snapshot checked first, then a canary and serial batches.")
# CPack puts the summary first and indents these lines; an empty line becomes " .".
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "${ZEL_PACKAGE_DESCRIPTION}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The collection needs Ansible; the programs do not.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS ansible-core)
# The RPM, for the servers that bundles go to: the same files, its dependencies found by
# rpmbuild's own scan of the programs (shared libraries by soname).
set(CPACK_RPM_PACKAGE_SUMMARY "Parser sub-service of a server deployment tool")
set(CPACK_RPM_PACKAGE_DESCRIPTION "${ZEL_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGE_VENDOR "zelparser developers")
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_PACKAGE_LICENSE GPL-2.0-or-later)
set(CPACK_RPM_PACKAGE_GROUP "Applications/System")
set(CPACK_RPM_PACKAGE_URL "https://zelparser.example.org/")
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_AUTOREQPROV ON)
set(CPACK_RPM_PACKAGE_SUGGESTS ansible-core)
# The transport library is private: not offered to other packages, nor required from one.
# No /usr/lib/.build-id links, which only a debuginfo package would use.
set(CPACK_RPM_SPEC_MORE_DEFINE "%define packager ${CPACK_PACKAGE_CONTACT}
%global __provides_exclude_from ^/usr/lib/.*/zelparser/.*$
%global __requires_exclude ^libzelrzptransport\\.so.*$
%define _build_id_links none")
set(CPACK_RPM_CHANGELOG_FILE ${CMAKE_BINARY_DIR}/packaging/rpm-changelog)
configure_file(packaging/rpm-changelog.in ${CMAKE_BINARY_DIR}/packaging/rpm-changelog @ONLY)
# The directories every RPM distribution's filesystem package owns are not claimed again.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/share/bash-completion
  /usr/share/bash-completion/completions /usr/share/licenses /usr/share/ansible
  /usr/share/man /usr/share/man/man1 /usr/share/man/man8 /var /var/lib
  /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
configure_file(packaging/cpack-generators.cmake.in
  ${CMAKE_BINARY_DIR}/packaging/cpack-generators.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/packaging/cpack-generators.cmake)
include(CPack)
