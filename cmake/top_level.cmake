# How this project is compiled when it is built for itself.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(TAVRO_CCACHE ccache)
if(TAVRO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${TAVRO_CCACHE})
endif()

# Code that can be loaded anywhere: the command as a hardened program needs it, and the library can
# go into a plug-in.
include(CheckPIESupported)
check_pie_supported()
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE) # such code has branches of its own to be counted
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()

# A release is hardened, where other builds have the sanitizers, and does not tell where it was built.
set(release_options
  -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
add_compile_options("$<$<CONFIG:Release>:${release_options}>")
add_link_options("$<$<CONFIG:Release>:-Wl,-z,relro,-z,now>")
