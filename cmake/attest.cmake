# What the thread sanitizer is told of libraries that are not built for it is part of every program.
if(ATTEST_SANITIZE MATCHES thread)
  add_library(attest_thread_sanitizer OBJECT ${CMAKE_SOURCE_DIR}/tests/support/thread_sanitizer.cc)
  link_libraries($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:attest_thread_sanitizer>>)
endif()

# attest_library(NAME SOURCES... [LINK ...]): one room of the house as a static library.
function(attest_library name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PUBLIC attest_flags ${ARG_LINK})
endfunction()

# attest_program(NAME SOURCES... [LINK ...]): an installed program; the target `programs` builds them all.
add_custom_target(programs)
function(attest_program name)
  cmake_parse_arguments(ARG "" "DESTINATION" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE attest_flags ${ARG_LINK})
  if(NOT ARG_DESTINATION)
    set(ARG_DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  add_dependencies(programs ${name})
  install(TARGETS ${name} RUNTIME DESTINATION ${ARG_DESTINATION})
endfunction()

# attest_test(NAME SOURCES... [LINK ...]): a GoogleTest program, one test of CTest; it finds tests/data through
# ATTEST_TEST_DATA and the shared fixtures, where the checkout has them beside it, through ATTEST_FIXTURES. With
# OWN_MACHINE it runs on a disk and a shared memory of its own.
function(attest_test name)
  cmake_parse_arguments(ARG "OWN_MACHINE" "TIMEOUT" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE attest_flags ${ARG_LINK} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE ATTEST_TEST_DATA="${CMAKE_SOURCE_DIR}/tests/data"
                             ATTEST_FIXTURES="${CMAKE_SOURCE_DIR}/../shared/fixtures")
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(ARG_OWN_MACHINE)
    set(own_machine ${CMAKE_SOURCE_DIR}/tests/support/own_machine)
  endif()
  add_test(NAME ${name} COMMAND ${own_machine} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

# attest_bench(NAME SOURCES... [LINK ...]): a benchmark that pairs jobs with yardsticks (bench/ratio.h); bench/run finds
# it in the list that is kept here, and the target `benchmarks` builds them all.
add_custom_target(benchmarks)
file(WRITE ${CMAKE_BINARY_DIR}/benchmarks.txt "")
function(attest_bench name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE attest_flags ${ARG_LINK} attest_ratio)
  add_dependencies(benchmarks ${name})
  file(RELATIVE_PATH program ${CMAKE_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/${name})
  file(APPEND ${CMAKE_BINARY_DIR}/benchmarks.txt "${program}\n")
endfunction()

# Rooms add their tests and benchmarks as folders and files of their own; a list names them all. One that it forgets
# would not be built, and nobody would miss it.
macro(attest_add_subdirectories)
  file(GLOB present RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS */CMakeLists.txt)
  list(TRANSFORM present REPLACE "/CMakeLists.txt" "")
  list(REMOVE_ITEM present ${ARGN})
  if(present)
    message(FATAL_ERROR "in no list of ${CMAKE_CURRENT_SOURCE_DIR}: ${present}")
  endif()
  foreach(dir ${ARGN})
    add_subdirectory(${dir})
  endforeach()
endmacro()
