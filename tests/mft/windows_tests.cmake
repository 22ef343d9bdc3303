# Record dumps under Wine: through \\.\E:, an mkntfs image, with the statically
# linked core (mft_tests), and through KORU_MFT.DLL into vmft.exe's stream; both
# compared with the Linux vmft (KORU_LINUX_VMFT, when given).
if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX AND TARGET mft_tests)
  set(wine_drive_e_dir ${CMAKE_BINARY_DIR}/wine-drive-e)
  add_test(NAME windows.wine_drive_e
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/mft/wine_drive_e.sh ${wine_drive_e_dir} "${KORU_LINUX_VMFT}")
  set_tests_properties(windows.wine_drive_e PROPERTIES LABELS unit FIXTURES_SETUP wine_drive_e)
  target_compile_definitions(mft_tests PRIVATE KORU_WINE_DRIVE_E_DIR="Z:${wine_drive_e_dir}")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/wine_drive_e_fixture.cmake)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/wine_drive_e_fixture.cmake
    "foreach(t IN LISTS mft_tests_TESTS)\n  set_tests_properties(\${t} PROPERTIES FIXTURES_REQUIRED wine_drive_e)\nendforeach()\n")

  add_test(NAME windows.vmft_record_through_the_dll
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/mft/wine_vmft_record.sh $<TARGET_FILE:vmft> "${KORU_LINUX_VMFT}"
            ${CMAKE_CROSSCOMPILING_EMULATOR} ${CMAKE_SOURCE_DIR}/../shared/images)
  set_tests_properties(windows.vmft_record_through_the_dll PROPERTIES LABELS unit SKIP_RETURN_CODE 77)
endif()
