# What is installed, and that a prefix can be moved: programs and libraries find each other, and the library its
# catalogues, by their places relative to each other.
#
#   korvaks_install_program(TARGET)   a program beside the libraries, without any place of the build in it
#   KORVAKS_CATALOG_DESTINATION       where message catalogues are installed
#   KORVAKS_CATALOG_FROM_LIBRARY      the same, seen from the folder of libkorvaks.so
#   installed                         the target that builds all that `cmake --install` copies

include(CMakePackageConfigHelpers)

set(KORVAKS_CATALOG_DESTINATION ${CMAKE_INSTALL_DATADIR}/korvaks/nls)
file(RELATIVE_PATH KORVAKS_CATALOG_FROM_LIBRARY
  ${CMAKE_INSTALL_FULL_LIBDIR} ${CMAKE_INSTALL_FULL_DATADIR}/korvaks/nls)
file(RELATIVE_PATH KORVAKS_LIBRARY_FROM_PROGRAM ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

add_custom_target(installed)

function(korvaks_install_program target)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${KORVAKS_LIBRARY_FROM_PROGRAM}")
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  add_dependencies(installed ${target})
endfunction()

# korvaks.pc and the CMake package; called once, when the library is known.
function(korvaks_install_packages)
  set(pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH prefix_from_pc ${pc_dir} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
  file(RELATIVE_PATH include_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  file(RELATIVE_PATH library_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/korvaks.pc.in ${PROJECT_BINARY_DIR}/korvaks.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/korvaks.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/korvaks)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/korvaksConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/korvaksConfig.cmake ${PROJECT_BINARY_DIR}/korvaksConfigVersion.cmake
    DESTINATION ${package_dir})
  install(EXPORT korvaks NAMESPACE korvaks:: FILE korvaksTargets.cmake DESTINATION ${package_dir})
endfunction()
