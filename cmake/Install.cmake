# What `cmake --install` puts where. Three components:
#   Plugin       the plugin; the only one when it is built alone against a device's platform
#   Platform     programs and shared libraries of the reference platform
#   Development  contract headers, and what finds headers and libraries: links, CMake package, pkg-config files
# Nothing that is installed knows where: the whole may be moved, and staged with DESTDIR. Programs find the libraries
# where the dynamic linker looks; a prefix of one's own needs ld.so.conf(5) or LD_LIBRARY_PATH.
install(TARGETS nyr-firewall-plugin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/vpk COMPONENT Plugin)
if(NYR_PLATFORM_ROOT)
  return()
endif()

include(CMakePackageConfigHelpers)
set(package nyr-firewall-platform)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/${package})

install(TARGETS vpkd rlvd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT Platform)
install(TARGETS vpkctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Platform)
install(TARGETS vlog mavo vpk-pil rlv-client nyr-common-client nyr-contract EXPORT ${package}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Platform NAMELINK_COMPONENT Development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
        FILES_MATCHING PATTERN "*.h")
install(EXPORT ${package} NAMESPACE nyr:: FILE ${package}-targets.cmake DESTINATION ${package_folder}
        COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${package}-config.cmake.in
                              ${PROJECT_BINARY_DIR}/${package}-config.cmake INSTALL_DESTINATION ${package_folder}
                              NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${package}-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${package}-config.cmake ${PROJECT_BINARY_DIR}/${package}-config-version.cmake
        DESTINATION ${package_folder} COMPONENT Development)

# One pkg-config file for each library: its name, what it is, and what its header needs besides itself.
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
file(RELATIVE_PATH libdir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
function(install_pc library description)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT Development)
endfunction()
install_pc(vlog "Log service of the policy platform")
install_pc(mavo "Utility library of the policy platform: database and remote methods")
install_pc(vpk-pil "Plugin interface of the policy host")
install_pc(rlv-client "Client of the traffic-control service")
install_pc(nyr-common-client "Client of the report service")
