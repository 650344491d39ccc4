# For a third-party library that is built and shipped with this project: CMake includes this file in that library's
# project, so that it gets the same hardening and the same types.
include(${CMAKE_CURRENT_LIST_DIR}/Hardening.cmake)
add_compile_options(${ORBAMIRA_HARDENING_COMPILE_OPTIONS})
include(${CMAKE_CURRENT_LIST_DIR}/WideTypes.cmake)
add_compile_definitions(${ORBAMIRA_WIDE_DEFINITIONS})
add_link_options(${ORBAMIRA_HARDENING_LINK_OPTIONS})
