# What `cmake --install` puts under its prefix:
#   bin/                      quolvent, quolvent-mpi and quolvent-gpu where built
#   lib/                      the layer libraries (static)
#   include/quolvent/         the public headers (run.hpp, matrix.hpp)
#   include/quolvent/detail/  the headers of src/ those include, and no others
#   lib/cmake/quolvent/       the package: find_package(quolvent), quolvent::quolvent
include(CMakePackageConfigHelpers)

# quolvent_header_closure(OUT FILES...): the headers of src/ (paths relative to
# it) that FILES include, directly or through one another.
function(quolvent_header_closure out)
  set(todo)
  set(seen)
  set(scanned ${ARGN})
  while(scanned)
    list(POP_FRONT scanned file)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]+\"[a-z_/]+\\.hpp\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]+\"([a-z_/]+\\.hpp)\".*" "\\1" header "${line}")
      if(NOT header IN_LIST seen)
        if(NOT EXISTS ${CMAKE_SOURCE_DIR}/src/${header})
          message(FATAL_ERROR "${file}: includes ${header}, which is not in src/")
        endif()
        list(APPEND seen ${header})
        list(APPEND scanned ${CMAKE_SOURCE_DIR}/src/${header})
      endif()
    endforeach()
  endwhile()
  set(${out} ${seen} PARENT_SCOPE)
endfunction()

file(GLOB public_headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/quolvent/*.hpp)
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quolvent)
quolvent_header_closure(detail_headers ${public_headers})
foreach(header IN LISTS detail_headers)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/src/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quolvent/detail/${folder})
endforeach()

set(installed_programs quolvent)
if(TARGET quolvent-mpi)
  list(APPEND installed_programs quolvent-mpi)
endif()
if(TARGET quolvent-gpu)
  list(APPEND installed_programs quolvent-gpu)
endif()
# The programs keep the build's path to libomp (outside the linker's default
# folders on Debian) and need no other: they are linked with it once, and
# installed as they are built.
set_target_properties(${installed_programs} PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON
                                                       BUILD_WITH_INSTALL_RPATH ON)
install(TARGETS ${installed_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quolvent)
list(TRANSFORM QUOLVENT_LAYERS PREPEND quolvent_ OUTPUT_VARIABLE layer_targets)
install(TARGETS ${layer_targets} quolvent_core EXPORT quolvent_targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT quolvent_targets NAMESPACE quolvent:: FILE quolventTargets.cmake
        DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/quolventConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/quolventConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quolventConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quolventConfig.cmake ${CMAKE_BINARY_DIR}/quolventConfigVersion.cmake
        DESTINATION ${package_dir})
