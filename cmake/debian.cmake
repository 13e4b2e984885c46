# The Debian packages tavro and libtavroops-dev, one of each component. packaging/build_packages.sh
# sets what else they need and calls cpack.

# -- Where Debian wants things other than elsewhere --

# compress(OUT_FILE FILE NAME): NAME.gz in the build directory, with no time in it.
function(compress out_file file name)
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${file}
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${file})
  set(${out_file} ${PROJECT_BINARY_DIR}/${name}.gz PARENT_SCOPE)
endfunction()

compress(command_pages man/tavro.1 tavro.1)
compress(development_pages man/tavroops.3 tavroops.3)
compress(changelog CHANGELOG.md changelog)
compress(debian_changelog packaging/changelog changelog.Debian)
set(command_licences packaging/copyright ${changelog} ${debian_changelog})
set(development_licences ${command_licences})
set(development_docs ${CMAKE_INSTALL_DATADIR}/doc/libtavroops-dev)
set(zsh_dir ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES packaging/lintian-overrides RENAME tavro
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT command)
install(FILES packaging/lintian-overrides RENAME libtavroops-dev
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT development)

# -- The packages --

# The newest entry of the changelog says which revision of the version this is.
file(STRINGS packaging/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^tavro \\(${PROJECT_VERSION}-([0-9]+)\\) ")
  message(FATAL_ERROR "packaging/changelog does not begin with tavro (${PROJECT_VERSION}-REVISION)")
endif()

set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_SOURCE tavro)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The Tavro authors") # who have no address of their own
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own below
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL command development)
set(CPACK_STRIP_FILES ON)
# Whatever the umask of the builder is.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME tavro)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMMAND_DESCRIPTION [[file operations that lose nothing
Copies, moves, renames, creates, trashes, restores, deletes and measures files
from the command line. It does what was asked for, or says in one sentence why
it did not. The newest 1,000 operations can be undone and redone. The trash is
the one that the desktop's other programs use, on other volumes too.]])

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavroops-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION [[file operations of a dual-pane file manager, for C++17
Typed text becomes a path, copies and moves are planned, entries are renamed,
created, deleted, moved to the home trash and back, and directories are
measured.
Every operation does exactly what its contract says or returns one sentence
that tells why it did not.
.
This package has the headers, a static library, and what CMake and pkg-config
need to find them.]])

include(CPack)
