# The platform as a device SDK brings it: the contract headers in include/ and the five libraries in lib/ below
# NYR_PLATFORM_ROOT, or both below its usr/. Makes the same targets as the reference platform.
find_path(NYR_DEVICE_INCLUDE vlog/vlog.h PATHS ${NYR_PLATFORM_ROOT} PATH_SUFFIXES include usr/include
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH NO_CACHE REQUIRED)
add_library(nyr-contract INTERFACE)
target_include_directories(nyr-contract INTERFACE ${NYR_DEVICE_INCLUDE})

set(library_folders lib lib64 lib/${CMAKE_LIBRARY_ARCHITECTURE} usr/lib usr/lib64 usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
foreach(library vlog mavo vpk-pil rlv-client nyr-common-client)
  find_library(NYR_DEVICE_${library} NAMES ${library} PATHS ${NYR_PLATFORM_ROOT} PATH_SUFFIXES ${library_folders}
               NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH NO_CACHE REQUIRED)
  add_library(${library} SHARED IMPORTED)
  # Linked by name: where a library has no run-time name of its own, its path here would become that.
  set_target_properties(${library} PROPERTIES IMPORTED_LOCATION ${NYR_DEVICE_${library}} IMPORTED_NO_SONAME ON)
  target_link_libraries(${library} INTERFACE nyr-contract)
  get_filename_component(folder ${NYR_DEVICE_${library}} DIRECTORY)
  target_link_options(${library} INTERFACE -Wl,-rpath-link,${folder}) # they may need each other
endforeach()
