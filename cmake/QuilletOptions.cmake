# SPDX-License-Identifier: GPL-2.0-or-later
# What every target of the project is compiled with.
add_library(quillet_options INTERFACE)
target_compile_features(quillet_options INTERFACE cxx_std_20)
target_compile_options(quillet_options INTERFACE -Wall -Wextra -Wconversion -Wshadow)
if(QUILLET_WERROR)
    target_compile_options(quillet_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # These two warn inside the standard library's own strings and vectors there (GCC bugs 105329, 105651, 106199).
    set(quiet -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread -Wno-unknown-warning-option)
    target_compile_options(quillet_options INTERFACE ${quiet})
    target_link_options(quillet_options INTERFACE ${quiet})  # where optimizing goes on when it links
endif()
target_include_directories(quillet_options INTERFACE ${PROJECT_SOURCE_DIR})
if(QUILLET_SANITIZE)
    target_compile_options(quillet_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all
                                                     -fno-omit-frame-pointer)
    target_link_options(quillet_options INTERFACE -fsanitize=address,undefined)
endif()
if(QUILLET_FUZZ)
    target_compile_options(quillet_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The system proper is compiled without exceptions and run-time type information, on both platforms.
add_library(quillet_proper_options INTERFACE)
target_compile_options(quillet_proper_options INTERFACE -fno-exceptions -fno-rtti)
target_link_libraries(quillet_proper_options INTERFACE quillet_options)
if(WIN32)
    target_compile_definitions(quillet_proper_options INTERFACE UNICODE _UNICODE _WIN32_WINNT=0x0601)
endif()

# quillet_proper(NAME SOURCE... [USES LIBRARY...]): one layer of the system proper. Each source unit is compiled alone.
function(quillet_proper name)
    cmake_parse_arguments(arg "" "" "USES" ${ARGN})
    add_library(${name} STATIC ${arg_UNPARSED_ARGUMENTS})
    set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
    target_link_libraries(${name} PUBLIC ${arg_USES} PRIVATE quillet_proper_options)
endfunction()

# quillet_room(NAME SOURCE... [USES LIBRARY...]): one room of the offline platform.
function(quillet_room name)
    cmake_parse_arguments(arg "" "" "USES" ${ARGN})
    add_library(${name} STATIC ${arg_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PUBLIC ${arg_USES} PRIVATE quillet_options)
endfunction()

# quillet_test(NAME SOURCE... [USES LIBRARY...]): one GoogleTest program, its cases discovered by CTest, each in a
# session of its own.
function(quillet_test name)
    cmake_parse_arguments(arg "" "" "USES" ${ARGN})
    add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE ${arg_USES} test_support quillet_options GTest::gtest_main)
    target_precompile_headers(${name} REUSE_FROM test_support)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# quillet_fuzz(NAME SOURCE... [USES LIBRARY...]): one libFuzzer program, where those are asked for.
function(quillet_fuzz name)
    if(NOT QUILLET_FUZZ)
        return()
    endif()
    cmake_parse_arguments(arg "" "" "USES" ${ARGN})
    add_executable(${name} ${arg_UNPARSED_ARGUMENTS} ${PROJECT_SOURCE_DIR}/tests/support/fuzz_session.cpp)
    target_link_libraries(${name} PRIVATE ${arg_USES} offline_base quillet_options)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
