# For a third-party library that is built and shipped with this project: CMake includes this file in that library's
# project, so that it gets the same hardening.
include(${CMAKE_CURRENT_LIST_DIR}/Hardening.cmake)
add_compile_options(${ORBAMIRA_HARDENING_COMPILE_OPTIONS})
add_link_options(${ORBAMIRA_HARDENING_LINK_OPTIONS})
