# What the sanitizers say of libraries.
set(WATCHPOST_SANITIZER_ENVIRONMENT
  "LSAN_OPTIONS=suppressions='${CMAKE_SOURCE_DIR}/cmake/lsan.supp':print_suppressions=0"
  "TSAN_OPTIONS=suppressions='${CMAKE_SOURCE_DIR}/cmake/tsan.supp':print_suppressions=0")

# watchpost_test(NAME SOURCES... [LIBS...]): a test program that ctest starts in the sandbox, a
# private copy of the machine, because the code under test works on absolute paths.
function(watchpost_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${CMAKE_SOURCE_DIR}/test/sandbox $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT 240
    ENVIRONMENT "${WATCHPOST_SANITIZER_ENVIRONMENT}")
endfunction()
