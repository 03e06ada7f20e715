# `cmake --install`: headers, both libraries, a CMake package and a pkg-config file.

include(CMakePackageConfigHelpers)

install(TARGETS tarn tarn_static EXPORT tarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/tarn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tarnTargets NAMESPACE tarn:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tarnConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tarnConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
# Relative to the file, so that the tree can be moved; absolute where it was configured so.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${up}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  string(TOLOWER pc_${dir} variable)
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    set(${variable} ${CMAKE_INSTALL_${dir}})
  else()
    set(${variable} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarn.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tarn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
