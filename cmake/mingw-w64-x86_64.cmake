# Cross build for 64-bit Windows with MinGW-w64 (Debian: g++-mingw-w64-x86-64-posix).
# The posix thread model is the one whose libstdc++ has std::mutex and std::thread.
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KORU_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KORU_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KORU_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${KORU_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${KORU_MINGW_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${KORU_MINGW_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH /usr/${KORU_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# No MinGW runtime DLLs beside the binaries: libgcc, libstdc++ and winpthread are linked in.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Tests run under Wine; scripts/test-windows prepares the prefix this points at.
find_program(KORU_WINE64 NAMES wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH)
if(NOT KORU_WINE64)
  find_program(KORU_WINE64 NAMES wine64 wine)
endif()
if(KORU_WINE64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORU_WINE64})
endif()
