# Windows-only checks of the build itself, and the drive Wine reads raw.

# The DLL exports the VMFT members and carries its version resource.
if(CMAKE_OBJDUMP AND NOT MSVC)
  add_test(NAME windows.dll_exports_and_resource
    COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${CMAKE_OBJDUMP} -DDLL=$<TARGET_FILE:koru_mft>
            -P ${CMAKE_CURRENT_SOURCE_DIR}/platform/windows_dll_check.cmake)
  set_tests_properties(windows.dll_exports_and_resource PROPERTIES LABELS unit)
endif()

# Under Wine, drive D: is an mkntfs image made here at test time; the raw-read
# test compares the MFT ranges read through \\.\D: with those the Linux vmft
# reports for the image (KORU_LINUX_VMFT, when given).
if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX AND TARGET platform_tests)
  set(KORU_LINUX_VMFT "" CACHE FILEPATH "The Linux build's vmft, to cross-check the Windows answers")
  set(wine_drive_dir ${CMAKE_BINARY_DIR}/wine-drive)
  add_test(NAME windows.wine_drive_d
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/platform/wine_drive_d.sh ${wine_drive_dir} "${KORU_LINUX_VMFT}")
  set_tests_properties(windows.wine_drive_d PROPERTIES LABELS unit FIXTURES_SETUP wine_drive_d)
  target_compile_definitions(platform_tests PRIVATE KORU_WINE_DRIVE_DIR="Z:${wine_drive_dir}")
  # The fixture is named on every platform test; gtest_discover_tests has no per-test filter.
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/wine_fixture.cmake)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/wine_fixture.cmake
    "foreach(t IN LISTS platform_tests_TESTS)\n  set_tests_properties(\${t} PROPERTIES FIXTURES_REQUIRED wine_drive_d)\nendforeach()\n")
endif()

# The version resource is read from the DLL itself.
if(TARGET platform_tests)
  add_dependencies(platform_tests koru_mft)
  target_compile_definitions(platform_tests PRIVATE KORU_DLL_PATH="${KORU_TEST_HOST_PREFIX}$<TARGET_FILE:koru_mft>")
endif()
