# eas_add_test(NAME [SERIAL] LABELS label SOURCES file... [LIBRARIES target...] [TIMEOUT seconds]
#              [FIXTURES name] [HEADERS target])
#
# One GoogleTest program; CTest then runs every case of it in a process of its own, since the
# library keeps process-wide state. CONTRIBUTING.md says what the labels mean; a program has one,
# for gtest_discover_tests takes no list as a property's value. HEADERS names the target whose
# precompiled headers it reads (eas_test_support); it must be compiled with that target's options.

find_package(GTest REQUIRED)
include(GoogleTest)

set(EAS_TEST_LABELS "" CACHE STRING "Test programs of these labels are built, or all")

# What is under test is compiled as it ships; the tests themselves need no optimisation, and debug
# information in a debug build only.
function(eas_compile_as_test name)
    target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE
                                           $<$<NOT:$<CONFIG:Debug>>:-g0>)
endfunction()

function(eas_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "SERIAL" "LABELS;TIMEOUT;FIXTURES;HEADERS"
                          "SOURCES;LIBRARIES")
    if(arg_UNPARSED_ARGUMENTS OR NOT arg_LABELS OR NOT arg_SOURCES)
        message(FATAL_ERROR "eas_add_test(${name}): one label, sources, and not "
                            "\"${arg_UNPARSED_ARGUMENTS}\"")
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE eas_options eas_objects eas_test_support GTest::gmock
                                          GTest::gtest_main ${arg_LIBRARIES})
    eas_compile_as_test(${name})
    if(NOT arg_HEADERS)
        set(arg_HEADERS eas_test_support)
    endif()
    target_precompile_headers(${name} REUSE_FROM ${arg_HEADERS})
    eas_unite_rooms(${name} 4)
    if(EAS_TEST_LABELS AND NOT arg_LABELS IN_LIST EAS_TEST_LABELS)
        set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
        return()
    endif()
    set(properties LABELS ${arg_LABELS} TIMEOUT ${arg_TIMEOUT})
    if(arg_SERIAL)  # it holds times against each other
        list(APPEND properties RUN_SERIAL TRUE)
    endif()
    if(arg_FIXTURES)
        list(APPEND properties FIXTURES_REQUIRED ${arg_FIXTURES})
    endif()
    if(EAS_SANITIZE MATCHES address)
        # A cancelled thread leaves its stack poisoned: the frames that it unwinds through do not
        # return. Taking down the alternate signal stack at its end would trip over that.
        list(APPEND properties ENVIRONMENT ASAN_OPTIONS=use_sigaltstack=0)
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60
                         PROPERTIES ${properties})
endfunction()

# eas_runs_many_programs(TEST...): one of these at a time, and from the beginning: they run a site's
# servers, and mostly wait for them.
function(eas_runs_many_programs)
    set_tests_properties(${ARGN} PROPERTIES RESOURCE_LOCK site COST 100)
endfunction()

# eas_tests_left_out(REASON): says which tests are not built, and why; in CI that is an error.
function(eas_tests_left_out reason)
    if("$ENV{CI}" STREQUAL "true")
        message(FATAL_ERROR "${reason}")
    endif()
    message(WARNING "${reason}")
endfunction()
