# Helpers shared by every module, tool and test.

set(TAVIT_SANITIZE_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)

# tavit_module(NAME <name> SOURCES ... [DEPS ...] [QT] [SANITIZED])
# Creates the static library tavit_<name> with src/ on the include path.
# QT turns on moc for the module. SANITIZED also creates tavit_<name>_san,
# the same sources built with ASan/UBSan, for fuzz tests.
function(tavit_module)
  cmake_parse_arguments(M "QT;SANITIZED" "NAME" "SOURCES;DEPS;SAN_DEPS" ${ARGN})
  set(t tavit_${M_NAME})
  add_library(${t} STATIC ${M_SOURCES})
  target_include_directories(${t} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${t} PUBLIC ${M_DEPS})
  if(M_QT)
    set_target_properties(${t} PROPERTIES AUTOMOC ON)
  endif()
  if(M_SANITIZED)
    add_library(${t}_san STATIC ${M_SOURCES})
    target_include_directories(${t}_san PUBLIC ${CMAKE_SOURCE_DIR}/src)
    if(M_SAN_DEPS)
      target_link_libraries(${t}_san PUBLIC ${M_SAN_DEPS})
    else()
      target_link_libraries(${t}_san PUBLIC ${M_DEPS})
    endif()
    target_compile_options(${t}_san PRIVATE ${TAVIT_SANITIZE_FLAGS} -O1)
    target_link_options(${t}_san PUBLIC ${TAVIT_SANITIZE_FLAGS})
    if(M_QT)
      set_target_properties(${t}_san PROPERTIES AUTOMOC ON)
    endif()
  endif()
endfunction()

# tavit_test(NAME <name> SOURCES ... [LIBS ...] [SANITIZED] [TIMEOUT s] [GTEST|QTEST])
# Builds a test executable into tests-bin/ and registers it with CTest. Every
# test runs headless with its own settings directory, so no test touches the
# user's settings.
function(tavit_test)
  cmake_parse_arguments(T "SANITIZED;QTEST" "NAME;TIMEOUT" "SOURCES;LIBS;ARGS" ${ARGN})
  set(exe test_${T_NAME})
  add_executable(${exe} ${T_SOURCES})
  set_target_properties(${exe} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${TAVIT_TEST_BIN_DIR} AUTOMOC ON)
  target_include_directories(${exe} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/tests)
  # "if (x) EXPECT_EQ(...)" is idiomatic with GoogleTest's macros.
  target_compile_options(${exe} PRIVATE -Wno-dangling-else)
  if(T_QTEST)
    target_link_libraries(${exe} PRIVATE ${T_LIBS} Qt6::Test)
  else()
    target_link_libraries(${exe} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  endif()
  if(T_SANITIZED)
    target_compile_options(${exe} PRIVATE ${TAVIT_SANITIZE_FLAGS})
    target_link_options(${exe} PRIVATE ${TAVIT_SANITIZE_FLAGS})
  endif()
  add_test(NAME ${T_NAME} COMMAND ${exe} ${T_ARGS} WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set(tmp ${CMAKE_BINARY_DIR}/test-tmp/${T_NAME})
  file(MAKE_DIRECTORY ${tmp}/settings ${tmp}/runtime)
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT}
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;XDG_RUNTIME_DIR=${tmp}/runtime;TAVIT_SETTINGS_DIR=${tmp}/settings;TAVIT_TEST_TMP=${tmp};TAVIT_SOURCE_DIR=${CMAKE_SOURCE_DIR};TAVIT_BUILD_DIR=${CMAKE_BINARY_DIR};ASAN_OPTIONS=detect_leaks=0;UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
endfunction()
