# Builds 32-bit x86 code on an x86-64 machine that cannot run it, with Debian's i686 cross
# compiler, against the libraries of a Debian i386 root (TARVO_I386_SYSROOT, or the variable of
# the same name in the environment). What is built runs inside that root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
if(NOT TARVO_I386_SYSROOT)
  set(TARVO_I386_SYSROOT "$ENV{TARVO_I386_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${TARVO_I386_SYSROOT}/usr/lib/i386-linux-gnu")
  message(FATAL_ERROR "TARVO_I386_SYSROOT must name a Debian i386 root")
endif()
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARVO_I386_SYSROOT)
set(CMAKE_SYSROOT "${TARVO_I386_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# A strip that exists in the root too, where the packages are made.
set(CMAKE_STRIP /usr/bin/strip CACHE FILEPATH "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
# As a native build for Debian's /usr would have it (GNUInstallDirs leaves multiarch out when
# cross-compiling).
set(CMAKE_INSTALL_LIBDIR lib/i386-linux-gnu CACHE PATH "")
