# Shared build rules: one static library per subsystem folder, one test
# executable per test folder, warnings on everywhere.

set(TB_WARNINGS -Wall -Wextra)
# Clang proves the locking annotations of foundation/mutex.h; the beta set adds the
# checks of the declared lock order (ACQUIRED_BEFORE).
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  list(APPEND TB_WARNINGS -Wthread-safety -Wthread-safety-beta -Werror=thread-safety)
endif()

if(TB_SANITIZE STREQUAL "asan")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(TB_SANITIZE STREQUAL "tsan")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(TB_SANITIZE STREQUAL "fuzz")
  # Coverage for libFuzzer in every library; only fuzz targets link the driver.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  set(TB_FUZZ ON)
elseif(NOT TB_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TB_SANITIZE must be empty, asan or tsan")
endif()

# tb_library(NAME [DEPS lib...]): static library tb_NAME from every .cpp in
# src/NAME and src/NAME/posix; headers are reached as "NAME/header.h".
function(tb_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/posix/*.cpp)
  if(NOT sources)
    add_library(tb_${name} INTERFACE)
    target_include_directories(tb_${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(tb_${name} INTERFACE ${ARG_DEPS})
    return()
  endif()
  add_library(tb_${name} STATIC ${sources})
  target_include_directories(tb_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(tb_${name} PRIVATE ${TB_WARNINGS})
  target_link_libraries(tb_${name} PUBLIC ${ARG_DEPS})
endfunction()

# tb_tests(NAME [DEPS lib...]): one GoogleTest executable from every .cpp in
# the current folder plus tests/support; each test case becomes a CTest test.
function(tb_tests name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE ${TB_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock
                        GTest::gtest_main Threads::Threads)
  target_compile_definitions(${name} PRIVATE
    TB_BINARY_DIR="${PROJECT_BINARY_DIR}" TB_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 120 LABELS ${name})
endfunction()

# tb_tool(NAME SOURCES... DEPS lib...): an executable for people.
function(tb_tool name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${TB_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
endfunction()

# Adds each listed subfolder, in the given order. A listed folder without a CMakeLists.txt
# is an error: a misspelt or removed folder must not quietly drop out of the build.
function(tb_add_folders)
  foreach(dir ${ARGN})
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/CMakeLists.txt)
      message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR}/${dir}: listed but has no CMakeLists.txt")
    endif()
    add_subdirectory(${dir})
  endforeach()
endfunction()

# tb_fuzz(NAME SOURCE file DEPS lib...): in the fuzz build, a libFuzzer target fuzz-NAME;
# in every other build, replay-NAME, the same entry point driven by a plain main that
# replays fuzz/corpus/NAME as the CTest test Fuzz.NAME, so the target always compiles and
# its corpus keeps passing.
function(tb_fuzz name)
  cmake_parse_arguments(ARG "" "SOURCE" "DEPS" ${ARGN})
  if(TB_FUZZ)
    add_executable(fuzz-${name} ${ARG_SOURCE})
    target_link_options(fuzz-${name} PRIVATE -fsanitize=fuzzer)
  else()
    set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    if(NOT IS_DIRECTORY ${corpus})
      message(FATAL_ERROR "fuzz target ${name} has no corpus folder ${corpus}")
    endif()
    add_executable(fuzz-${name} ${ARG_SOURCE} ${CMAKE_CURRENT_SOURCE_DIR}/replay-main.cpp)
    set_target_properties(fuzz-${name} PROPERTIES OUTPUT_NAME replay-${name})
    add_test(NAME Fuzz.${name} COMMAND fuzz-${name} ${corpus})
    set_tests_properties(Fuzz.${name} PROPERTIES TIMEOUT 120 LABELS fuzz_replay)
  endif()
  target_compile_options(fuzz-${name} PRIVATE ${TB_WARNINGS})
  target_link_libraries(fuzz-${name} PRIVATE ${ARG_DEPS})
endfunction()
