# The platform as a device SDK brings it: the contract headers in include/ and the five libraries in lib/ below
# NYR_PLATFORM_ROOT, or both below its usr/. Makes the same targets as the reference platform. What is wrong with the
# folder is told here, before anything is compiled.
function(refuse_platform)
  string(JOIN "\n" text ${ARGN})
  message(FATAL_ERROR "NYR_PLATFORM_ROOT=${NYR_PLATFORM_ROOT}: ${text}")
endfunction()

if(NOT IS_DIRECTORY ${NYR_PLATFORM_ROOT})
  refuse_platform("there is no such folder")
endif()
find_path(NYR_DEVICE_INCLUDE vlog/vlog.h PATHS ${NYR_PLATFORM_ROOT} PATH_SUFFIXES include usr/include
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH NO_CACHE)
if(NOT NYR_DEVICE_INCLUDE)
  refuse_platform("no contract headers, such as vlog/vlog.h, in its include/ or usr/include/")
endif()
foreach(header mavo/database.h mavo/exception.h mavo/rmi.h nyr/report.h rlv/rlv.h vpk-pil/vpk-pil.h)
  if(NOT EXISTS ${NYR_DEVICE_INCLUDE}/${header})
    refuse_platform("no ${header} beside vlog/vlog.h in ${NYR_DEVICE_INCLUDE}")
  endif()
endforeach()
add_library(nyr-contract INTERFACE)
target_include_directories(nyr-contract INTERFACE ${NYR_DEVICE_INCLUDE})

set(library_folders lib lib64 lib/${CMAKE_LIBRARY_ARCHITECTURE} usr/lib usr/lib64 usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
foreach(library vlog mavo vpk-pil rlv-client nyr-common-client)
  # Shared ones alone: host and plugin meet in them.
  find_library(NYR_DEVICE_${library} NAMES lib${library}${CMAKE_SHARED_LIBRARY_SUFFIX} PATHS ${NYR_PLATFORM_ROOT}
               PATH_SUFFIXES ${library_folders} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH NO_CACHE)
  if(NOT NYR_DEVICE_${library})
    string(JOIN "/, " folders ${library_folders})
    refuse_platform("no shared library lib${library}${CMAKE_SHARED_LIBRARY_SUFFIX} in its ${folders}/")
  endif()
  add_library(${library} SHARED IMPORTED)
  # Linked by name: where a library has no run-time name of its own, its path here would become that.
  set_target_properties(${library} PROPERTIES IMPORTED_LOCATION ${NYR_DEVICE_${library}} IMPORTED_NO_SONAME ON)
  target_link_libraries(${library} INTERFACE nyr-contract)
  get_filename_component(folder ${NYR_DEVICE_${library}} DIRECTORY)
  target_link_options(${library} INTERFACE -Wl,-rpath-link,${folder}) # they may need each other
  list(APPEND platform_libraries ${NYR_DEVICE_${library}})
endforeach()

# What they need themselves is the device's business.
file(WRITE ${CMAKE_BINARY_DIR}/link-platform.cpp "int main() {}\n")
try_compile(platform_links ${CMAKE_BINARY_DIR}/link-platform ${CMAKE_BINARY_DIR}/link-platform.cpp
            LINK_OPTIONS -Wl,--allow-shlib-undefined LINK_LIBRARIES ${platform_libraries} OUTPUT_VARIABLE said)
if(NOT platform_links)
  string(REGEX MATCHALL "[^\n]*(error|file in wrong format|incompatible|not recognized)[^\n]*" said "${said}")
  refuse_platform("${CMAKE_CXX_COMPILER} cannot link with its libraries:" ${said})
endif()
