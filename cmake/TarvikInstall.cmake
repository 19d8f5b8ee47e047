# Two components: "platform" is what a machine needs to run behaviors,
# "development" what modules are built with. Another project finds both
# libraries with find_package(tarvik COMPONENTS vu zb).

include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tarvik)

# Module libraries reach vu and zb from where they stand, wherever the prefix
# has been moved to.
file(RELATIVE_PATH libraries_from_modules /${TARVIK_MODULE_INSTALL_DIR} /${CMAKE_INSTALL_LIBDIR})
file(RELATIVE_PATH libraries_from_executables /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
get_property(modules GLOBAL PROPERTY TARVIK_MODULES)
set_target_properties(${modules} PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_modules})
set_target_properties(tarvik tarvikd PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_executables})
set_target_properties(vu zb PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
  INSTALL_RPATH $ORIGIN)

install(TARGETS vu zb EXPORT tarvik
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT tarvik NAMESPACE tarvik:: FILE tarvik-targets.cmake DESTINATION ${config_dir} COMPONENT development)

configure_package_config_file(cmake/tarvik-config.cmake.in tarvik-config.cmake
  INSTALL_DESTINATION ${config_dir} PATH_VARS TARVIK_MODULE_INSTALL_DIR)
write_basic_package_version_file(tarvik-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvik-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/tarvik-config-version.cmake
  DESTINATION ${config_dir} COMPONENT development)

# The headers and the README point to the documents.
install(FILES LICENSE README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT platform)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT platform)
