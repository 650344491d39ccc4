# What the distribution builds its own programs with, so that a fault in memory ends a program instead of serving an
# attacker: the flags of dpkg-buildflags with hardening=+all, and those that later releases of Debian add to them for a
# processor.
# ORBAMIRA_HARDENING_COMPILE_OPTIONS and ORBAMIRA_HARDENING_LINK_OPTIONS are lists for whoever includes this file.
set(ORBAMIRA_HARDENING_COMPILE_OPTIONS "")
set(ORBAMIRA_HARDENING_LINK_OPTIONS "")

# Sanitizers find the same faults by other means.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  list(APPEND ORBAMIRA_HARDENING_COMPILE_OPTIONS
    -fstack-protector-strong -Wformat -Werror=format-security)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i[3-6]86)$")
    list(APPEND ORBAMIRA_HARDENING_COMPILE_OPTIONS -fstack-clash-protection -fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    list(APPEND ORBAMIRA_HARDENING_COMPILE_OPTIONS -fstack-clash-protection -mbranch-protection=standard)
  endif()
  # The C library checks sizes only where the compiler optimizes, and warns where it does not.
  set(optimized $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  list(APPEND ORBAMIRA_HARDENING_COMPILE_OPTIONS
    $<${optimized}:-U_FORTIFY_SOURCE> $<${optimized}:-D_FORTIFY_SOURCE=2>)
  # With all addresses known at the start, the tables that hold them can be made read-only. Programs are independent of
  # their place in memory, as the compiler makes them by default.
  list(APPEND ORBAMIRA_HARDENING_LINK_OPTIONS LINKER:-z,relro,-z,now)
endif()
