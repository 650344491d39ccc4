# For a library of others that is built and shipped with this project: CMake includes it in that library's own project,
# and all that is built there is as safe as what is built here.
include(${CMAKE_CURRENT_LIST_DIR}/Hardening.cmake)
add_compile_options(${ORBAMIRA_HARDENING_COMPILE_OPTIONS})
add_link_options(${ORBAMIRA_HARDENING_LINK_OPTIONS})
