# The platform as a device SDK brings it: the contract headers in include/ and the five libraries in lib/ below
# NYR_PLATFORM_ROOT. Makes the same targets as the reference platform.
add_library(nyr-contract INTERFACE)
target_include_directories(nyr-contract INTERFACE ${NYR_PLATFORM_ROOT}/include)

foreach(library vlog mavo vpk-pil rlv-client nyr-common-client)
  find_library(NYR_DEVICE_${library} NAMES ${library} PATHS ${NYR_PLATFORM_ROOT}/lib ${NYR_PLATFORM_ROOT}/usr/lib
               NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  add_library(${library} SHARED IMPORTED)
  set_target_properties(${library} PROPERTIES IMPORTED_LOCATION ${NYR_DEVICE_${library}} IMPORTED_NO_SONAME OFF)
  target_link_libraries(${library} INTERFACE nyr-contract)
endforeach()
