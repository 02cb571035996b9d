# What `cmake --install` puts where Linux expects it: the library, the software platform, the headers of each in a
# directory of its own, pkg-config files and a CMake package.
include(CMakePackageConfigHelpers)

set(KR_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/krsdnhal)
set(KR_PLATFORM_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/krplatform)
set(KR_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/krsdnhal)

# The library finds its platform beside it, wherever both are installed.
set_target_properties(krsdnhal PROPERTIES INSTALL_RPATH "$ORIGIN")
target_include_directories(krsdnhal INTERFACE $<INSTALL_INTERFACE:${KR_HEADER_DIR}>)
target_include_directories(krplatform INTERFACE $<INSTALL_INTERFACE:${KR_PLATFORM_HEADER_DIR}>)

install(TARGETS krsdnhal krplatform kr_platform_headers EXPORT krsdnhal
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${KR_HEADER_DIR})
set(KR_PUBLIC_HEADERS api/kr_sdn_hal.h tables/flow_record.h platform/include/kr_host_ifc.h platform/include/kr_status.h)
install(FILES ${KR_PUBLIC_HEADERS} DESTINATION ${KR_HEADER_DIR})
install(DIRECTORY platform/include/ DESTINATION ${KR_PLATFORM_HEADER_DIR} FILES_MATCHING PATTERN "*.h")
install(FILES platform/soft/control/kr_soft.h DESTINATION ${KR_PLATFORM_HEADER_DIR})
install(EXPORT krsdnhal NAMESPACE krsdnhal:: DESTINATION ${KR_PACKAGE_DIR})

configure_package_config_file(packaging/krsdnhal-config.cmake.in krsdnhal-config.cmake
  INSTALL_DESTINATION ${KR_PACKAGE_DIR})
write_basic_package_version_file(krsdnhal-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/krsdnhal-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/krsdnhal-config-version.cmake DESTINATION ${KR_PACKAGE_DIR})

# Relative to its own place, so that a prefix chosen at installation holds too.
file(RELATIVE_PATH KR_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(module krsdnhal krplatform)
  configure_file(packaging/${module}.pc.in ${module}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
