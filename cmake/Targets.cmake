# How this project makes its libraries and programs, so that each is made the same way.

# Where an installed program finds the libraries installed with it, relative to itself: an install staged in any folder
# runs there.
set(ORBAMIRA_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/orbamira)
set(ORBAMIRA_BIN_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}:$ORIGIN/../${CMAKE_INSTALL_LIBDIR}/orbamira")
set(ORBAMIRA_LIBEXEC_RPATH "$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}:$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}/orbamira")

# orbamira_add_library(NAME SOURCES file... PUBLIC target... PRIVATE target...)
#
# Makes the object library NAME_objects, which the tests link to reach internals, and the shared library NAME, which
# exports nothing but this project's own namespaces.
function(orbamira_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  set(objects ${name}_objects)
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)

  add_library(${objects} OBJECT ${ARG_SOURCES})
  target_link_libraries(${objects} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})

  add_library(${name} SHARED $<TARGET_OBJECTS:${objects}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  target_link_options(${name} PRIVATE LINKER:--version-script=${exports} LINKER:--as-needed LINKER:-z,relro,-z,now)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${exports}
    INSTALL_RPATH "$ORIGIN:$ORIGIN/orbamira")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
