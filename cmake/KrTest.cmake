# kr_add_test(<name> SOURCES ... [LIBS ...] [LABELS ...] [TIMEOUT seconds]): a GoogleTest program that is one CTest test.
# Programs whose privileges may be missing exit with 77 after saying why; CTest then shows them as skipped.
function(kr_add_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77)
endfunction()
