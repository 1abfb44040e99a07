# Install rules and Debian packages: the runtime library, the development files and the programs.
include(CMakePackageConfigHelpers)

# One library's files: the shared library (runtime component), and its header, link, CMake
# package and pkg-config file (development component).
function(tarvo_install_library name runtime development)
  set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
  install(TARGETS ${name} EXPORT ${name}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${runtime} NAMELINK_COMPONENT ${development}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${development})
  install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${cmake_dir} COMPONENT ${development})
  set(TARVO_PACKAGE_NAME ${name})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/packageConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake INSTALL_DESTINATION ${cmake_dir})
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake ${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
    DESTINATION ${cmake_dir} COMPONENT ${development})

  # The pkg-config file is finished at install time, when the prefix is known (cmake --install
  # --prefix may name one the configuration never saw). Under /usr, the distribution's place, it
  # names /usr itself, so that pkg-config leaves the system directories out of the flags; anywhere
  # else it finds the prefix from its own location, so the whole tree may move later.
  set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  set(TARVO_PC_PREFIX @TARVO_PC_PREFIX@)
  set(TARVO_PC_NAME ${name})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc.in @ONLY)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(relative_prefix "")
  else()
    file(RELATIVE_PATH relative_prefix /prefix/${pc_dir} /prefix)
    string(REGEX REPLACE "/$" "" relative_prefix "${relative_prefix}")
  endif()
  install(CODE "
    set(TARVO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    if(NOT TARVO_PC_PREFIX STREQUAL \"/usr\" AND NOT \"${relative_prefix}\" STREQUAL \"\")
      set(TARVO_PC_PREFIX \"\\\${pcfiledir}/${relative_prefix}\")
    endif()
    configure_file(\"${CMAKE_CURRENT_BINARY_DIR}/${name}.pc.in\" \"${CMAKE_CURRENT_BINARY_DIR}/${name}.pc\" @ONLY)
    " COMPONENT ${development})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${pc_dir} COMPONENT ${development})
endfunction()

tarvo_install_library(tarvoafipdriver runtime development)
if(TARGET tarvoafipinvoicing)
  tarvo_install_library(tarvoafipinvoicing invoicing_runtime invoicing_development)
endif()

# Debian wants every package to carry the copyright and a compressed changelog in its doc folder.
set(tarvo_components runtime development)
set(tarvo_package_names libtarvoafipdriver1 libtarvoafipdriver-dev)
if(TARGET tarvoafipinvoicing)
  list(APPEND tarvo_components invoicing_runtime invoicing_development)
  list(APPEND tarvo_package_names libtarvoafipinvoicing1 libtarvoafipinvoicing-dev)
endif()
if(TARVO_BUILD_TOOLS)
  list(APPEND tarvo_components tools)
  list(APPEND tarvo_package_names tarvoafip-tools)
endif()
if(tarvo_top_level)
  add_subdirectory(${PROJECT_SOURCE_DIR}/bindings ${PROJECT_BINARY_DIR}/bindings)
  list(APPEND tarvo_components ${tarvo_binding_components})
  list(APPEND tarvo_package_names ${tarvo_binding_packages})
endif()
execute_process(COMMAND gzip -9n -c ${CMAKE_CURRENT_LIST_DIR}/changelog
  OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
foreach(component package IN ZIP_LISTS tarvo_components tarvo_package_names)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
endforeach()

# A man page per program, compressed as Debian installs them.
function(tarvo_install_program target page)
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  get_filename_component(name ${page} NAME)
  add_custom_command(OUTPUT ${name}.gz COMMAND gzip -9n -c ${page} > ${name}.gz DEPENDS ${page} VERBATIM)
  add_custom_target(${target}_manual ALL DEPENDS ${name}.gz)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()

# cpack -G DEB: dependencies computed from the binaries by dpkg-shlibdeps, binaries stripped.
set(CPACK_PACKAGE_NAME tarvoafipdriver)
set(CPACK_PACKAGE_VENDOR "Tarvo")
set(CPACK_PACKAGE_CONTACT "Tarvo developers <dev@tarvo.example>")
# CPack's own default summary: each package's description then brings its own first line.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library for AFIP's SOAP web services
The shared library that point-of-sale, ERP and invoicing programs load to call
the web services of AFIP, the Argentine tax agency, through twelve C functions:
it obtains and caches WSAA access tickets, signs the login request as CMS with
the host's PKCS#12 certificate, and posts the host's SOAP requests.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtarvoafipdriver1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "client library for AFIP's SOAP web services (development files)
The C header, the pkg-config file and the CMake package for building hosts
against libtarvoafipdriver.")
set(CPACK_DEBIAN_INVOICING_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
# Printed vouchers embed this font; the libraries come from dpkg-shlibdeps.
set(CPACK_DEBIAN_INVOICING_RUNTIME_PACKAGE_DEPENDS "fonts-dejavu-core")
set(CPACK_DEBIAN_INVOICING_RUNTIME_DESCRIPTION "invoicing core for AFIP's electronic vouchers
The shared library that point-of-sale and invoicing programs call, through a
small C interface with JSON in and out, to authorise AFIP vouchers at most once
per sale: it keeps every sale in a SQLite ledger, recovers lost answers, sends
batches, makes AFIP's QR code, looks customers up in AFIP's registry, prints
vouchers (A4 and 80 mm PDF, ESC/POS) and issues under a CAEA when AFIP is down.")
set(CPACK_DEBIAN_INVOICING_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_INVOICING_DEVELOPMENT_PACKAGE_DEPENDS "libtarvoafipinvoicing1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_INVOICING_DEVELOPMENT_DESCRIPTION "invoicing core for AFIP's electronic vouchers (development files)
The C header, the pkg-config file and the CMake package for building hosts
against libtarvoafipinvoicing.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "libtarvoafipdriver1 (= ${PROJECT_VERSION}), libtarvoafipinvoicing1 (= ${PROJECT_VERSION})")
# The programs link the core built beside them, which dpkg-shlibdeps finds there but cannot map to
# a package: the dependency on it is named above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "AFIP simulator and command-line host for libtarvoafipdriver
afip_simulator stands in for AFIP's WSAA and WSFEv1 services on loopback;
tarvoafip_cli sends one SOAP request through the library, or authorises
vouchers given as JSON through the invoicing core, at most once per sale, and
lists the ledger of what was sold.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3, libtarvoafipdriver1 (>= ${PROJECT_VERSION}), libtarvoafipinvoicing1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "client library for AFIP's SOAP web services (Python 3)
The module tarvoafip calls libtarvoafipdriver through ctypes;
tarvoafip.invoicing calls the invoicing core libtarvoafipinvoicing, which
authorises vouchers at most once per sale with a ledger, recovers a lost
answer, sends batches and makes AFIP's QR code.")
set(CPACK_DEBIAN_JAVA_PACKAGE_SECTION java)
set(CPACK_DEBIAN_JAVA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_JAVA_PACKAGE_DEPENDS "default-jre-headless | java11-runtime-headless, libjna-java, \
libtarvoafipdriver1 (>= ${PROJECT_VERSION}), libtarvoafipinvoicing1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_JAVA_DESCRIPTION "client library for AFIP's SOAP web services (Java)
The jar tarvoafip.jar calls, through JNA, libtarvoafipdriver (class
ar.tarvo.afip.TarvoAfip) and the invoicing core libtarvoafipinvoicing (class
ar.tarvo.afip.Invoicing): vouchers authorised at most once through a ledger,
batches, the ledger's sales, FECAESolicitar answers read and AFIP's QR code,
as JSON text.")
set(CPACK_DEBIAN_PASCAL_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PASCAL_PACKAGE_DEPENDS "fp-compiler-${tarvo_fpc_version}, fp-units-fcl-${tarvo_fpc_version}, \
libtarvoafipdriver-dev (= ${PROJECT_VERSION}), libtarvoafipinvoicing-dev (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PASCAL_DESCRIPTION "client library for AFIP's SOAP web services (Free Pascal units)
The units tarvoafip (libtarvoafipdriver's functions) and tarvoafipinvoicing
(the invoicing core libtarvoafipinvoicing: vouchers authorised at most once
through a ledger, batches, the ledger's sales, FECAESolicitar answers read and
AFIP's QR code, as JSON text for fpjson), compiled where Free Pascal finds
them, and their sources for hosts that load the libraries at run time.")
