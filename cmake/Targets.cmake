# How this project makes its libraries and programs, so that each is made the same way.

# The folders of the programs that the library runs, and of the maker's settings; the same as in platform/constants.cpp.
set(ORBAMIRA_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/orbamira)
set(ORBAMIRA_DATADIR ${CMAKE_INSTALL_DATADIR}/orbamira)

# Where an installed program finds the libraries installed with it, relative to itself: an install staged in any folder
# runs there.
set(ORBAMIRA_BIN_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}:$ORIGIN/../${CMAKE_INSTALL_LIBDIR}/orbamira/lib")
set(ORBAMIRA_LIBEXEC_RPATH
  "$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}:$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}/orbamira/lib")

# orbamira_add_library(NAME SOURCES file... HEADERS file... PUBLIC target... PRIVATE target...)
#
# Makes the object library NAME_objects, which the tests link to reach internals, and the shared library NAME, which
# exports nothing but this project's own namespaces. HEADERS are the public ones: they are installed as
# orbamira/<folder>/<header>, and others see the library as Orbamira::<NAME without orbamira_>.
function(orbamira_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
  set(objects ${name}_objects)
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  string(REPLACE orbamira_ "" export_name ${name})

  add_library(${objects} OBJECT ${ARG_SOURCES})
  target_link_libraries(${objects} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})

  add_library(${name} SHARED $<TARGET_OBJECTS:${objects}>)
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARG_HEADERS})
  # <orbamira/updater/...>, beside what the file set gives: <updater/...>.
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} INTERFACE cxx_std_17)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  target_link_options(${name} PRIVATE LINKER:--version-script=${exports} LINKER:--as-needed)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${export_name}
    LINK_DEPENDS ${exports}
    INSTALL_RPATH "$ORIGIN:$ORIGIN/orbamira/lib")
  install(TARGETS ${name} EXPORT OrbamiraUpdaterTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orbamira COMPONENT development)
endfunction()
