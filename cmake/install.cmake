# What `cmake --install` lays out: the library, the stand-in host, their headers, and what build systems
# find them by. The tree may be moved as a whole afterwards: nothing holds an absolute path.
#
#   pkg-config --cflags --libs qvrt      find_package(qvrt CONFIG)   qvrt::qvrt
#   pkg-config --cflags --libs qvhost                                qvrt::qvhost
include(CMakePackageConfigHelpers)

# The host and the tools install themselves from their own lists; the host joins the export set `qvrt`.
install(TARGETS qvrt EXPORT qvrt LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

# What people read and type about the tools. The pages are mdoc, which man reads as it is.
file(GLOB qvrt_man_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.1)
install(FILES ${qvrt_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
file(GLOB qvrt_completions CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/completions/*)
install(FILES ${qvrt_completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

set(qvrt_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qvrt)
install(EXPORT qvrt NAMESPACE qvrt:: FILE qvrtTargets.cmake DESTINATION ${qvrt_package_dir})
configure_package_config_file(cmake/qvrtConfig.cmake.in ${PROJECT_BINARY_DIR}/qvrtConfig.cmake
  INSTALL_DESTINATION ${qvrt_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvrtConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvrtConfig.cmake ${PROJECT_BINARY_DIR}/qvrtConfigVersion.cmake
  DESTINATION ${qvrt_package_dir})

# From the pkg-config files' folder back to the prefix.
file(RELATIVE_PATH qvrt_prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name qvrt qvhost)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
