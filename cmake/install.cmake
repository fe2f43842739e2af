# What an installation holds: the library, its header, the driver, and how CMake and pkg-config find them.
if(TARGET tolvan_api)
  include(CMakePackageConfigHelpers)
  set(TOLVAN_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/tolvan)

  install(TARGETS tolvan_api EXPORT tolvan_targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  if(TARGET tolvan)
    install(TARGETS tolvan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  install(FILES include/tolvan/tolvan_api.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvan)
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

  install(EXPORT tolvan_targets NAMESPACE tolvan:: DESTINATION ${TOLVAN_CMAKE_FOLDER})
  configure_package_config_file(cmake/tolvan-config.cmake.in ${CMAKE_BINARY_DIR}/tolvan-config.cmake
    INSTALL_DESTINATION ${TOLVAN_CMAKE_FOLDER})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/tolvan-config-version.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/tolvan-config.cmake ${CMAKE_BINARY_DIR}/tolvan-config-version.cmake
    DESTINATION ${TOLVAN_CMAKE_FOLDER})

  file(RELATIVE_PATH TOLVAN_INCLUDE_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  configure_file(cmake/tolvan.pc.in ${CMAKE_BINARY_DIR}/tolvan.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/tolvan.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
