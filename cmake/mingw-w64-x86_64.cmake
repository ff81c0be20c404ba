# Cross build for Windows x64 with Debian's MinGW-w64 (posix threads, so that
# std::thread and std::mutex exist). Everything is linked statically: the
# programs and QorVarlok.dll need no MinGW runtime DLL beside them.
#
#   cmake -S . -B build/win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#         -DQORVARLOK_WINDOWS_DEPS=<prefix made by scripts/windows-deps.sh>
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${_triple}-windres)

# The libraries Debian ships for Linux only, built for Windows by
# scripts/windows-deps.sh into this prefix.
if(NOT QORVARLOK_WINDOWS_DEPS AND DEFINED ENV{QORVARLOK_WINDOWS_DEPS})
  set(QORVARLOK_WINDOWS_DEPS $ENV{QORVARLOK_WINDOWS_DEPS})
endif()
set(QORVARLOK_WINDOWS_DEPS "${QORVARLOK_WINDOWS_DEPS}" CACHE PATH "Prefix of the Windows builds of the dependencies")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QORVARLOK_WINDOWS_DEPS)
set(CMAKE_FIND_ROOT_PATH /usr/${_triple} ${QORVARLOK_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config sees only the Windows builds, never the host's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "${QORVARLOK_WINDOWS_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
