# What the Windows build needs beyond the portable targets. Included right after
# koru_core is defined; settings for later targets are deferred to the end of the
# top-level directory.
if(NOT WIN32)
  return()
endif()

# Win32 "W" calls only, and nothing older than Windows 7 (GetProductInfo, the
# geometry IOCTL and FindFirstFileNameW are all Vista and later).
target_compile_definitions(koru_core PUBLIC UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
  _WIN32_WINNT=0x0601 WINVER=0x0601)
if(MSVC)
  target_compile_definitions(koru_core PUBLIC _CRT_SECURE_NO_WARNINGS)
endif()

# CLI11 is header-only; a cross build finds it on the build machine. Only its
# directory is linked in, never the host's /usr/include as a whole.
if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX)
  find_path(KORU_HOST_CLI11_INCLUDE CLI/CLI.hpp PATHS /usr/include /usr/local/include
    NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(KORU_HOST_CLI11_INCLUDE)
    set(KORU_CLI11_SHIM ${CMAKE_BINARY_DIR}/host-include)
    file(MAKE_DIRECTORY ${KORU_CLI11_SHIM})
    file(CREATE_LINK ${KORU_HOST_CLI11_INCLUDE}/CLI ${KORU_CLI11_SHIM}/CLI SYMBOLIC)
  endif()
endif()

function(koru_windows_targets)
  if(TARGET vmft AND KORU_CLI11_SHIM)
    target_include_directories(vmft SYSTEM PRIVATE ${KORU_CLI11_SHIM})
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL koru_windows_targets)
