# Install rules: headers, the shared library, the reference host (a static library), an exported
# CMake package with a version file, and a pkg-config file for the shared library.
include(CMakePackageConfigHelpers)

set(CONNECTOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ConnectorCommonServices)

install(TARGETS connector_framework connector_common_services connector_host
  EXPORT ConnectorCommonServicesTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(dir framework foundation services commands host)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/connector/${dir}
    FILES_MATCHING PATTERN "*.h"
    PATTERN detail EXCLUDE)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/include/foundation/Export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/connector/foundation)

install(EXPORT ConnectorCommonServicesTargets
  NAMESPACE connector::
  DESTINATION ${CONNECTOR_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ConnectorCommonServicesConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ConnectorCommonServicesConfig.cmake
  INSTALL_DESTINATION ${CONNECTOR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ConnectorCommonServicesConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ConnectorCommonServicesConfig.cmake
  ${PROJECT_BINARY_DIR}/ConnectorCommonServicesConfigVersion.cmake
  DESTINATION ${CONNECTOR_CMAKE_DIR})

# Relocatable: the prefix is found from where the .pc file lies, not from where it was built.
file(RELATIVE_PATH CONNECTOR_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/connector-common-services.pc.in
  ${PROJECT_BINARY_DIR}/connector-common-services.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/connector-common-services.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
