# zelrzp-manager install and history: the installation on this machine, its journal and its
# history (manager/install), built on the check's rules (manager/check) and librpm.
target_sources(zelrzp-manager PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/command.cpp
  ${CMAKE_CURRENT_LIST_DIR}/command_line.cpp
  ${CMAKE_CURRENT_LIST_DIR}/component.cpp
  ${CMAKE_CURRENT_LIST_DIR}/config_files.cpp
  ${CMAKE_CURRENT_LIST_DIR}/history.cpp
  ${CMAKE_CURRENT_LIST_DIR}/install.cpp
  ${CMAKE_CURRENT_LIST_DIR}/journal.cpp
  ${CMAKE_CURRENT_LIST_DIR}/output.cpp
  ${CMAKE_CURRENT_LIST_DIR}/prompt.cpp
  ${CMAKE_CURRENT_LIST_DIR}/rpm.cpp
  ${CMAKE_CURRENT_LIST_DIR}/trust.cpp)
target_include_directories(zelrzp-manager PRIVATE ${CMAKE_CURRENT_LIST_DIR})
