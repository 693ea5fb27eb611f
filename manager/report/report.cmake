# report.cmake - `zelrzp-manager report`: its sources, its template compiled in, and the
# template library (mstch, from libmstch-dev).
find_package(mstch REQUIRED)

# The template becomes a string constant; editing it reconfigures and rebuilds.
set(ZEL_REPORT_DIR ${CMAKE_CURRENT_LIST_DIR})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ZEL_REPORT_DIR}/report.mustache)
file(READ ${ZEL_REPORT_DIR}/report.mustache ZEL_REPORT_TEMPLATE)
configure_file(${ZEL_REPORT_DIR}/report_template.cpp.in
  ${CMAKE_BINARY_DIR}/generated/report_template.cpp @ONLY)

target_sources(zelrzp-manager PRIVATE ${ZEL_REPORT_DIR}/report.cpp
  ${CMAKE_BINARY_DIR}/generated/report_template.cpp)
target_include_directories(zelrzp-manager PRIVATE ${ZEL_REPORT_DIR})
target_link_libraries(zelrzp-manager PRIVATE mstch::mstch)
