# collection.cmake - the Ansible collection zelparser.rollout (ansible/ansible_collections/
# zelparser/rollout): its version checked against the product's, its tarball built by
# ansible-galaxy (build/zelparser-rollout-VERSION.tar.gz) and unpacked as `ansible-galaxy
# collection install` would, for the packages to install at /usr/share/ansible/collections,
# where Debian's and RPM distributions' Ansible look.
set(ZEL_COLLECTION_SOURCE ${PROJECT_SOURCE_DIR}/ansible/ansible_collections/zelparser/rollout)
file(STRINGS ${ZEL_COLLECTION_SOURCE}/galaxy.yml ZEL_COLLECTION_VERSION REGEX "^version: ")
string(REGEX REPLACE "^version: *" "" ZEL_COLLECTION_VERSION "${ZEL_COLLECTION_VERSION}")
if(NOT ZEL_COLLECTION_VERSION STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "galaxy.yml has version ${ZEL_COLLECTION_VERSION}, the project ${PROJECT_VERSION}")
endif()

set(ZEL_COLLECTION_INSTALL_DIR
  ${CMAKE_INSTALL_DATADIR}/ansible/collections/ansible_collections/zelparser/rollout)
find_program(ANSIBLE_GALAXY ansible-galaxy)
if(ANSIBLE_GALAXY)
  set(ZEL_COLLECTION_TARBALL ${CMAKE_BINARY_DIR}/zelparser-rollout-${PROJECT_VERSION}.tar.gz)
  set(ZEL_COLLECTION_BUILT ${CMAKE_BINARY_DIR}/collection/ansible_collections/zelparser/rollout)
  file(GLOB_RECURSE ZEL_COLLECTION_FILES CONFIGURE_DEPENDS ${ZEL_COLLECTION_SOURCE}/*)
  # ansible-galaxy keeps its settings under ANSIBLE_HOME: one in the build directory.
  add_custom_command(OUTPUT ${ZEL_COLLECTION_TARBALL}
    COMMAND ${CMAKE_COMMAND} -E env ANSIBLE_HOME=${CMAKE_BINARY_DIR}/ansible-home
      ${ANSIBLE_GALAXY} collection build --force --output-path ${CMAKE_BINARY_DIR}
      ${ZEL_COLLECTION_SOURCE}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${ZEL_COLLECTION_BUILT}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${ZEL_COLLECTION_BUILT}
    COMMAND ${CMAKE_COMMAND} -E chdir ${ZEL_COLLECTION_BUILT} tar xzf ${ZEL_COLLECTION_TARBALL}
    DEPENDS ${ZEL_COLLECTION_FILES} VERBATIM)
  add_custom_target(collection ALL DEPENDS ${ZEL_COLLECTION_TARBALL})
  install(DIRECTORY ${ZEL_COLLECTION_BUILT}/ DESTINATION ${ZEL_COLLECTION_INSTALL_DIR})
else()
  # Without ansible-galaxy (the demo's set of packages): the source tree, without a tarball.
  message(STATUS "ansible-galaxy not found: the collection's tarball is not built")
  install(DIRECTORY ${ZEL_COLLECTION_SOURCE}/ DESTINATION ${ZEL_COLLECTION_INSTALL_DIR})
endif()
