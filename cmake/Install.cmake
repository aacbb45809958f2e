# Installs the library so that find_package(mlnn) and pkg-config find it, from any prefix,
# also one that was moved after the installation.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(MLNN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mlnn)

install(TARGETS mlnn EXPORT mlnnTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn COMPONENT development
  FILE_SET c_headers DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn)
if(TARGET mlnn_analysis)
  install(TARGETS mlnn_analysis EXPORT mlnnTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn COMPONENT development
    FILE_SET c_headers DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mlnn)
endif()
install(EXPORT mlnnTargets NAMESPACE mlnn:: DESTINATION ${MLNN_CMAKE_DIR} COMPONENT development)

configure_package_config_file(cmake/mlnnConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/mlnnConfig.cmake
  INSTALL_DESTINATION ${MLNN_CMAKE_DIR})
# While the major version is 0, a new minor version may change the interface.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/mlnnConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/mlnnConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/mlnnConfigVersion.cmake
  DESTINATION ${MLNN_CMAKE_DIR} COMPONENT development)

# The .pc file tells its prefix by its own place.
cmake_path(SET pkgconfig_dir NORMALIZE "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pkgconfig_dir}
  OUTPUT_VARIABLE MLNN_PC_PREFIX)
foreach(dir LIBDIR INCLUDEDIR)
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_${dir} BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
    OUTPUT_VARIABLE MLNN_PC_${dir})
endforeach()
get_target_property(definitions mlnn INTERFACE_COMPILE_DEFINITIONS)
list(TRANSFORM definitions PREPEND -D)
list(APPEND definitions ${MLNN_CALL_OPTIONS})
list(JOIN definitions " " MLNN_PC_DEFINITIONS)
set(MLNN_PC_THREADS)
if(Threads_FOUND)
  set(MLNN_PC_THREADS " -pthread")
endif()
configure_file(cmake/mlnn.pc.in ${CMAKE_CURRENT_BINARY_DIR}/mlnn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/mlnn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
if(TARGET mlnn_analysis)
  configure_file(cmake/mlnn-analysis.pc.in ${CMAKE_CURRENT_BINARY_DIR}/mlnn-analysis.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/mlnn-analysis.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endif()
