# Record dumps under Wine: through KORU_MFT.DLL into vmft.exe's stream, compared with
# the Linux vmft (KORU_LINUX_VMFT, when given). Raw reads through a drive are
# WineDriveD's (tests/platform).
if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX AND TARGET mft_tests)
  add_test(NAME windows.vmft_record_through_the_dll
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/mft/wine_vmft_record.sh $<TARGET_FILE:vmft> "${KORU_LINUX_VMFT}"
            ${CMAKE_CROSSCOMPILING_EMULATOR} ${CMAKE_SOURCE_DIR}/../shared/images)
  set_tests_properties(windows.vmft_record_through_the_dll PROPERTIES LABELS unit SKIP_RETURN_CODE 77)
endif()
