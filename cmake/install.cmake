# What `cmake --install` puts where, in two components:
#
#   command      the command, its man page and its completions
#   development  the module: headers, static library, CMake package, pkg-config file, man page
#
# All places are below the prefix, so a staging root (DESTDIR) and any prefix will do. For Debian
# packages, debian.cmake changes some of them.
option(TAVRO_DEBIAN_PACKAGES "Install as it lies in Debian packages, and let cpack make them" OFF)
set(command_pages man/tavro.1)
set(development_pages man/tavroops.3)
set(command_licences LICENSE packaging/copyright) # the headers compiled into the command have their own
set(development_licences LICENSE)
set(command_docs ${CMAKE_INSTALL_DATADIR}/doc/tavro)
set(development_docs ${CMAKE_INSTALL_DATADIR}/doc/tavroops)
set(zsh_dir ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(TAVRO_DEBIAN_PACKAGES)
  include(cmake/debian.cmake)
endif()

# -- The module --

install(FILES include/tavroops.h include/tavropane.h include/tavrotransfer.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS tavroops EXPORT tavroops
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${development_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
install(FILES ${development_licences} DESTINATION ${development_docs} COMPONENT development)

# find_package(tavroops 1.0) gives Tavro::tavroops. The module needs no other package, so what CMake
# writes of the target is the whole package. A newer 1.x serves who asks for an older, and nothing
# serves who asks for another major version.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tavroops)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavroopsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavroopsConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)
install(EXPORT tavroops NAMESPACE Tavro:: FILE tavroopsConfig.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The pkg-config file finds its prefix from where it lies itself, so the tree can be moved.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir} OUTPUT_VARIABLE pkgconfig_to_prefix)
configure_file(cmake/tavroops.pc.in tavroops.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavroops.pc DESTINATION ${pkgconfig_dir} COMPONENT development)

# -- The command --

if(TAVRO_BUILD_COMMAND)
  install(TARGETS tavro DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
  install(FILES ${command_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
  install(FILES cli/completions/tavro.bash RENAME tavro
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT command)
  install(FILES cli/completions/_tavro DESTINATION ${zsh_dir} COMPONENT command)
  install(FILES cli/completions/tavro.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT command)
  install(FILES ${command_licences} DESTINATION ${command_docs} COMPONENT command)
endif()
