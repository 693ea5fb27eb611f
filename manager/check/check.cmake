# zelrzp-manager check, snapshot and answers: kernel versions compared by librpm, PCI devices
# read through libpci (names from the PCI ID database).
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZEL_RPM REQUIRED IMPORTED_TARGET rpm)
pkg_check_modules(ZEL_PCI REQUIRED IMPORTED_TARGET libpci)
target_sources(zelrzp-manager PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/answers.cpp
  ${CMAKE_CURRENT_LIST_DIR}/check.cpp
  ${CMAKE_CURRENT_LIST_DIR}/check_output.cpp
  ${CMAKE_CURRENT_LIST_DIR}/evaluate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/facts.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fleet.cpp
  ${CMAKE_CURRENT_LIST_DIR}/locate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pci.cpp
  ${CMAKE_CURRENT_LIST_DIR}/plans.cpp
  ${CMAKE_CURRENT_LIST_DIR}/snapshot.cpp
  ${CMAKE_CURRENT_LIST_DIR}/version.cpp)
target_include_directories(zelrzp-manager PRIVATE ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(zelrzp-manager PRIVATE PkgConfig::ZEL_RPM PkgConfig::ZEL_PCI)
