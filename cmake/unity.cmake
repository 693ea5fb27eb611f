# unity.cmake - with ZEL_UNITY on, a target's sources are compiled as a few large translation
# units (CMake's unity build, UNITY_BUILD_MODE GROUP) instead of file by file:
#   zel_unity_by_folder(Target)  one translation unit per source folder: every source file of
#                                the project's tree is included with the other sources of the
#                                same folder that the target compiles;
#   zel_unity_whole(Target)      one translation unit for all of the target's sources in the
#                                project's tree, for a program whose folders all include the
#                                same heavy headers and instantiate the same templates.
# Call them after every source is added; sources added later, and generated ones, are compiled
# on their own.
#
# The files of one translation unit then share one scope: two of them must not define the same
# name with internal linkage (a static function, anything in an anonymous namespace). The
# compiler says so ("redefinition"); give one of them another name, or share the function
# through a header. Configure with -DZEL_UNITY=OFF to compile file by file (a single edited
# file recompiles faster that way).
function(zel_unity_groups Target Whole)
  if(NOT ZEL_UNITY)
    return()
  endif()
  get_target_property(Sources ${Target} SOURCES)
  get_target_property(SourceDir ${Target} SOURCE_DIR)
  foreach(Source IN LISTS Sources)
    if(Source MATCHES "^\\$<")
      continue() # objects of another target
    endif()
    cmake_path(ABSOLUTE_PATH Source BASE_DIRECTORY ${SourceDir} NORMALIZE OUTPUT_VARIABLE Path)
    cmake_path(IS_PREFIX PROJECT_SOURCE_DIR ${Path} NORMALIZE InTree)
    cmake_path(IS_PREFIX PROJECT_BINARY_DIR ${Path} NORMALIZE Generated)
    if(NOT InTree OR Generated)
      continue()
    endif()
    if(Whole)
      string(MAKE_C_IDENTIFIER "${Target}" Group)
    else()
      cmake_path(GET Path PARENT_PATH Folder)
      cmake_path(RELATIVE_PATH Folder BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
      string(MAKE_C_IDENTIFIER "${Folder}" Group)
    endif()
    set_source_files_properties(${Path} TARGET_DIRECTORY ${Target} PROPERTIES UNITY_GROUP ${Group})
  endforeach()
  set_target_properties(${Target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
endfunction()

function(zel_unity_by_folder Target)
  zel_unity_groups(${Target} OFF)
endfunction()

function(zel_unity_whole Target)
  zel_unity_groups(${Target} ON)
endfunction()
