# A build for another architecture. Headers and libraries come from a Debian of that architecture in a folder, which
# scripts/setup --arch makes, and from the libraries that it builds; programs come from this machine. It is a folder
# because packages of another architecture beside this machine's own would change the machine, and some exclude each
# other.
#
# The file that includes this one sets `architecture`, as Debian calls it, and `triplet`, as its compilers do.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH project)
cmake_path(GET project PARENT_PATH project)
set(CMAKE_SYSROOT ${project}/build/root-${architecture})
set(CMAKE_CROSSCOMPILING_EMULATOR ${project}/tests/support/in_root ${architecture})
set(CMAKE_FIND_ROOT_PATH ${project}/build/deps-${architecture})
set(CMAKE_INSTALL_LIBDIR lib/${triplet} CACHE STRING "")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
