# The directory walk under Wine: drive H: is a folder of the build tree with hard
# links, made at test time (wine_drive_h.sh).
if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX AND TARGET hardlinks_tests)
  set(wine_drive_h_dir ${CMAKE_BINARY_DIR}/wine-drive-h)
  add_test(NAME windows.wine_drive_h COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/hardlinks/wine_drive_h.sh ${wine_drive_h_dir})
  set_tests_properties(windows.wine_drive_h PROPERTIES LABELS unit FIXTURES_SETUP wine_drive_h)
  target_compile_definitions(hardlinks_tests PRIVATE KORU_WINE_DRIVE_H_DIR="Z:${wine_drive_h_dir}")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/wine_drive_h_fixture.cmake)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/wine_drive_h_fixture.cmake
    "foreach(t IN LISTS hardlinks_tests_TESTS)\n  set_tests_properties(\${t} PROPERTIES FIXTURES_REQUIRED wine_drive_h)\nendforeach()\n")
endif()
