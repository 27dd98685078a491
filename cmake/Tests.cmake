# What the sanitizers say of libraries.
set(WATCHPOST_SANITIZER_ENVIRONMENT
  "LSAN_OPTIONS=suppressions='${CMAKE_SOURCE_DIR}/cmake/lsan.supp':print_suppressions=0"
  "TSAN_OPTIONS=suppressions='${CMAKE_SOURCE_DIR}/cmake/tsan.supp':print_suppressions=0")

# watchpost_test(NAME SOURCES... [LIBS...] [SHARDS n]): a test program that ctest starts in the sandbox, a
# private copy of the machine, because the code under test works on absolute paths. One that takes long can
# run in shards, each with some of its tests.
function(watchpost_test name)
  cmake_parse_arguments(ARG "" "SHARDS" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  if(NOT ARG_SHARDS)
    set(ARG_SHARDS 1)
  endif()
  foreach(shard RANGE 1 ${ARG_SHARDS})
    set(test ${name})
    if(ARG_SHARDS GREATER 1)
      set(test ${name}_${shard})
    endif()
    math(EXPR index "${shard} - 1")
    add_test(NAME ${test} COMMAND ${CMAKE_SOURCE_DIR}/test/sandbox $<TARGET_FILE:${name}>)
    set_tests_properties(${test} PROPERTIES TIMEOUT 240
      ENVIRONMENT "${WATCHPOST_SANITIZER_ENVIRONMENT};GTEST_TOTAL_SHARDS=${ARG_SHARDS};GTEST_SHARD_INDEX=${index}")
  endforeach()
endfunction()
