# Install rules and Debian packages: the runtime library, the development files and the programs.
include(CMakePackageConfigHelpers)

set(TARVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarvoafipdriver)

install(TARGETS tarvoafipdriver EXPORT tarvoafipdriverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT tarvoafipdriverTargets NAMESPACE tarvoafipdriver:: DESTINATION ${TARVO_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tarvoafipdriverConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriverConfig.cmake INSTALL_DESTINATION ${TARVO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriverConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarvoafipdriver.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriver.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriverConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriverConfigVersion.cmake DESTINATION ${TARVO_CMAKE_DIR} COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvoafipdriver.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# Debian wants every package to carry the copyright and a compressed changelog in its doc folder.
set(tarvo_components runtime development)
set(tarvo_package_names libtarvoafipdriver1 libtarvoafipdriver-dev)
if(TARVO_BUILD_TOOLS)
  list(APPEND tarvo_components tools)
  list(APPEND tarvo_package_names tarvoafip-tools)
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
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtarvoafipdriver1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "AFIP simulator and command-line host for libtarvoafipdriver
afip_simulator stands in for AFIP's WSAA and WSFEv1 services on loopback;
tarvoafip_cli sends one SOAP request through the library.")
