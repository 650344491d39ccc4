# What the distribution builds its own programs with, so that a fault in memory ends a program instead of serving an
# attacker: the flags of dpkg-buildflags with hardening=+all, and two more that later releases of Debian add to them.
# Sanitizers find the same faults by other means.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  return()
endif()

add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat -Werror=format-security)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i[3-6]86)$")
  add_compile_options(-fcf-protection)
endif()
# The C library checks sizes only where the compiler optimizes, and warns where it does not.
set(optimized $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
add_compile_options("$<${optimized}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
# With all addresses known at the start, the tables that hold them can be made read-only. Programs are independent of
# their place in memory, as the compiler makes them by default.
add_link_options(LINKER:-z,relro,-z,now)
