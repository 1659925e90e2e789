# Cross-compiles for Windows x64 with Debian's mingw-w64 (posix threading
# model) and runs the resulting programs under Wine.
#
#   cmake -S . -B build/windows-x64 -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
#
# Boost is used header-only on this leg. Debian's headers live in
# /usr/include/boost; putting /usr/include itself on the include path would
# bring the host's C library headers in ahead of mingw's, so a staging
# directory in the build tree holds just a `boost` link to them.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TESSERA_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TESSERA_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TESSERA_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${TESSERA_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${TESSERA_MINGW_PREFIX})
# Programs come from the host; libraries, headers and packages only from the
# target's root, so that nothing of the Linux host is linked in.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)

# Debug information in DWARF 4: the newest version Wine's debug-help library
# reads, so that backtraces under Wine name functions and lines.
foreach(lang C CXX)
  set(CMAKE_${lang}_FLAGS_DEBUG_INIT "-g -gdwarf-4")
  set(CMAKE_${lang}_FLAGS_RELWITHDEBINFO_INIT "-O2 -g -gdwarf-4 -DNDEBUG")
endforeach()

# ---- Boost headers through a staging directory ----
set(TESSERA_BOOST_STAGE ${CMAKE_BINARY_DIR}/boost-headers)
if(NOT EXISTS ${TESSERA_BOOST_STAGE}/boost/version.hpp)
  file(MAKE_DIRECTORY ${TESSERA_BOOST_STAGE})
  file(CREATE_LINK /usr/include/boost ${TESSERA_BOOST_STAGE}/boost SYMBOLIC)
endif()
# FindBoost in module mode takes the headers from here; the host's
# BoostConfig.cmake (which would point at the host's libraries) is never read.
set(Boost_NO_BOOST_CMAKE ON CACHE BOOL "")
set(Boost_NO_SYSTEM_PATHS ON CACHE BOOL "")
set(Boost_INCLUDE_DIR ${TESSERA_BOOST_STAGE} CACHE PATH "Boost headers for the Windows leg")
