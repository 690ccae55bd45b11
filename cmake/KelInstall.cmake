# What is installed of the library, and the files by which CMake and pkg-config find it, the host kit
# and the C interface, which install themselves.
install(TARGETS ${KEL_INSTALLED_TARGETS} EXPORT KelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/kel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT KelTargets NAMESPACE Kel:: FILE KelTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kel COMPONENT development)
configure_package_config_file(cmake/KelConfig.cmake.in KelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kel)
write_basic_package_version_file(KelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
# The pkg-config file finds the prefix from where it stands, wherever that is moved to.
file(RELATIVE_PATH KEL_PREFIX_FROM_PKGCONFIG
     "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
# What a static library needs when a linker for C puts the program together.
set(KEL_PRIVATE_LIBS "")
foreach(name ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
  if(name MATCHES "^(stdc\\+\\+|c\\+\\+|c\\+\\+abi|m)$")
    string(APPEND KEL_PRIVATE_LIBS " -l${name}")
  endif()
endforeach()
string(STRIP "${KEL_PRIVATE_LIBS}" KEL_PRIVATE_LIBS)
set(KEL_PKGCONFIG_FILES kel)
if(KEL_BUILD_HOST)
  list(APPEND KEL_PKGCONFIG_FILES kel-host)
endif()
if(KEL_BUILD_C)
  list(APPEND KEL_PKGCONFIG_FILES kelc)
endif()
foreach(name ${KEL_PKGCONFIG_FILES})
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kel COMPONENT development)
