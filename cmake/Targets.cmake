# How this project makes its libraries and programs, so that each is made the same way.
#
# There are four kinds of targets. Rooms are static libraries that stay inside. Shared libraries are made of rooms, for
# others. A module is a part of a shared library that it loads when needed. Programs link rooms or shared libraries. No
# target lists a source of another folder.
include(${CMAKE_CURRENT_LIST_DIR}/Hardening.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/WideTypes.cmake)
include(CheckLinkerFlag)
# Debian's C library for armhf has no static program that can be anywhere in memory: there it has its fixed place.
check_linker_flag(CXX -static-pie ORBAMIRA_HAS_STATIC_PIE)

# Where an installed program finds the libraries installed with it, relative to itself: an install staged in any folder
# runs there.
set(ORBAMIRA_BIN_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
cmake_path(ABSOLUTE_PATH ORBAMIRA_HELPERS_DESTINATION BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE ORBAMIRA_INSTALLED_HELPERS_FOLDER)
file(RELATIVE_PATH libraries_from_helpers ${ORBAMIRA_INSTALLED_HELPERS_FOLDER} ${CMAKE_INSTALL_FULL_LIBDIR})
set(ORBAMIRA_HELPERS_RPATH "$ORIGIN/${libraries_from_helpers}:$ORIGIN/${libraries_from_helpers}/orbamira/lib")

# In the build folder they find the libraries relative to themselves too, so that no byte depends on where it is.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# What everything of this project is compiled and linked with.
add_library(orbamira_options INTERFACE)
target_compile_features(orbamira_options INTERFACE cxx_std_20)
target_compile_options(orbamira_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow ${ORBAMIRA_HARDENING_COMPILE_OPTIONS})
target_compile_definitions(orbamira_options INTERFACE ${ORBAMIRA_WIDE_DEFINITIONS})
target_include_directories(orbamira_options INTERFACE ${PROJECT_SOURCE_DIR})
# What a target does not use of the libraries that its rooms name is not loaded with it.
target_link_options(orbamira_options INTERFACE ${ORBAMIRA_HARDENING_LINK_OPTIONS} LINKER:--as-needed)

# orbamira_use_options(TARGET)
#
# For every target that is compiled here; the functions below do it for theirs.
function(orbamira_use_options target)
  target_link_libraries(${target} PRIVATE orbamira_options)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON
    COMPILE_WARNING_AS_ERROR ${ORBAMIRA_WERROR})
endfunction()

# orbamira_add_room(NAME SOURCES file... [LIBRARIES target...])
#
# A static library of this project's own, from which a program or shared library takes what it uses. LIBRARIES are what
# its sources use.
function(orbamira_add_room name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  orbamira_use_options(${name})
  target_link_libraries(${name} PUBLIC ${ARG_LIBRARIES})
endfunction()

# orbamira_add_library(NAME SOURCES file... [ROOMS room...] HEADERS file... [ON NAME]
#   [PUBLIC target...] [PRIVATE target...])
#
# The shared library NAME of the SOURCES and of all that is in the ROOMS. It exports nothing but this project's own
# namespaces. HEADERS are the public ones: they are installed as orbamira/<folder>/<header>, and others see the library
# as Orbamira::<NAME without orbamira_>. ON is the library of this project on which it stands.
#
# The same as a room is NAME_static: tests reach internals by it, and it is for programs that load no library of ours.
function(orbamira_add_library name)
  cmake_parse_arguments(ARG "" "ON" "SOURCES;ROOMS;HEADERS;PUBLIC;PRIVATE" ${ARGN})
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  string(REPLACE orbamira_ "" export_name ${name})
  set(static_base ${ARG_ON})
  list(TRANSFORM static_base APPEND _static)

  orbamira_add_room(${name}_static
    SOURCES ${ARG_SOURCES}
    LIBRARIES ${static_base} ${ARG_ROOMS} ${ARG_PUBLIC} ${ARG_PRIVATE})

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_static>)
  foreach(room IN LISTS ARG_ROOMS)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${room}>)
  endforeach()
  orbamira_use_options(${name})
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARG_HEADERS})
  # <orbamira/updater/...>, beside what the file set gives: <updater/...>.
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} INTERFACE cxx_std_17)
  target_compile_definitions(${name} INTERFACE ${ORBAMIRA_WIDE_DEFINITIONS})
  # Its base comes first, so that no room of the base gives what the base exports.
  target_link_libraries(${name} PUBLIC ${ARG_ON} ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  target_link_options(${name} PRIVATE LINKER:--version-script=${exports})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${export_name}
    LINK_DEPENDS ${exports}
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} EXPORT OrbamiraUpdaterTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orbamira COMPONENT development)
endfunction()

# orbamira_add_module(NAME OF library FILE file LOADER file SOURCES file... ROOM room [PRIVATE target...])
#
# What the shared library OF seldom needs, with the libraries that only this needs: the code in LOADER loads it from
# orbamira/FILE beside that library. It is made of the SOURCES and of all that is in the ROOM, which programs without
# shared libraries of ours link instead. The file's name has the library's number: two of them can be installed.
function(orbamira_add_module name)
  cmake_parse_arguments(ARG "" "OF;FILE;LOADER;ROOM" "SOURCES;PRIVATE" ${ARGN})
  set(file ${ARG_FILE}.${PROJECT_VERSION_MAJOR})
  set(about ORBAMIRA_VERSION="${PROJECT_VERSION}" ORBAMIRA_MODULE_FILE="orbamira/${file}")
  set_property(SOURCE ${ARG_SOURCES} ${ARG_LOADER} APPEND PROPERTY COMPILE_DEFINITIONS ${about})
  target_sources(${ARG_OF} PRIVATE ${ARG_LOADER})
  target_link_libraries(${ARG_OF} PRIVATE ${CMAKE_DL_LIBS})
  target_link_libraries(${ARG_OF}_static PUBLIC ${ARG_ROOM})

  set(exports ${PROJECT_SOURCE_DIR}/cmake/module.map)
  add_library(${name} MODULE ${ARG_SOURCES} $<TARGET_OBJECTS:${ARG_ROOM}>)
  orbamira_use_options(${name})
  # The library comes first, so that no room gives what it exports.
  target_link_libraries(${name} PRIVATE ${ARG_OF} ${ARG_PRIVATE})
  target_link_options(${name} PRIVATE LINKER:--version-script=${exports})
  set_target_properties(${name} PROPERTIES
    PREFIX "" OUTPUT_NAME ${file} SUFFIX ""
    LIBRARY_OUTPUT_DIRECTORY $<TARGET_FILE_DIR:${ARG_OF}>/orbamira
    LINK_DEPENDS ${exports}
    INSTALL_RPATH "$ORIGIN/..:$ORIGIN/lib")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/orbamira COMPONENT libraries)
endfunction()

# orbamira_add_program(NAME SOURCES file... [LIBRARIES target...])
function(orbamira_add_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  orbamira_use_options(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
endfunction()

# orbamira_add_helper(NAME [WITHOUT_LOADER] SOURCES file... LIBRARIES target...)
#
# A program that the library or the system runs, installed with the library. WITHOUT_LOADER links everything into it: an
# update starts some of them several times, and so they start in less than half the time. A loader that fails would end
# them with status 127 besides, which callers take for done. Sanitizers come as shared libraries.
function(orbamira_add_helper name)
  cmake_parse_arguments(ARG "WITHOUT_LOADER" "" "" ${ARGN})
  orbamira_add_program(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_compile_definitions(${name} PRIVATE ORBAMIRA_VERSION="${PROJECT_VERSION}" ${ORBAMIRA_PATH_DEFINITIONS})
  if(ARG_WITHOUT_LOADER AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_link_options(${name} PRIVATE $<IF:$<BOOL:${ORBAMIRA_HAS_STATIC_PIE}>,-static-pie,-static>)
  endif()
  install(TARGETS ${name} RUNTIME DESTINATION ${ORBAMIRA_HELPERS_DESTINATION} COMPONENT common)
endfunction()

# orbamira_add_helper_name(NAME HELPER)
#
# Another name of a helper, by which it is called; in the build tree as in the installed one.
function(orbamira_add_helper_name name helper)
  add_custom_command(TARGET ${helper} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E create_symlink ${helper} $<TARGET_FILE_DIR:${helper}>/${name})
  install(FILES $<TARGET_FILE_DIR:${helper}>/${name} DESTINATION ${ORBAMIRA_HELPERS_DESTINATION} COMPONENT common)
endfunction()
