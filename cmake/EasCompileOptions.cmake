# The options that every target of the project is compiled with: eas_options carries them.

find_package(Threads REQUIRED)

add_library(eas_options INTERFACE)
target_compile_features(eas_options INTERFACE cxx_std_17 c_std_11)
set(CMAKE_CXX_EXTENSIONS OFF)

target_compile_options(
    eas_options
    INTERFACE # Predictions must come out the same to the bit everywhere: no fused, no reordered arithmetic.
              -ffp-contract=off
              -fno-fast-math
              -fvisibility=hidden
              $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
              -Wall
              -Wextra
              -Wpedantic
              -Wshadow
              -Wconversion
              -Wcast-qual
              -Wformat=2
              -Wundef
              $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
              $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
              $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
              $<$<BOOL:${EAS_WERROR}>:-Werror>)

# A compiler cache tells precompiled headers apart by these.
target_compile_options(
    eas_options INTERFACE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>
                          "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:SHELL:-Xclang -fno-pch-timestamp>")

# What ships names no folder of the machine that built it; a debugger and gcov want to find it.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_options(eas_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

# Hardening: the library runs inside a daemon of root.
target_compile_options(eas_options INTERFACE -fstack-protector-strong -fcf-protection=full
                                             -fstack-clash-protection)
target_link_options(
    eas_options
    INTERFACE
    LINKER:-z,relro
    LINKER:-z,now
    LINKER:-z,noexecstack
    LINKER:--as-needed
    LINKER:--hash-style=gnu
    LINKER:-O1)

if(EAS_SANITIZE)
    target_compile_options(eas_options INTERFACE -fsanitize=${EAS_SANITIZE}
                                                 -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(EAS_BUILD_TESTS)
        # This check opens a pipe to read an object, and takes an object for a wrong one where a
        # test leaves no descriptor. The fuzzers run with it.
        target_compile_options(eas_options INTERFACE -fno-sanitize=vptr)
    endif()
    target_link_options(eas_options INTERFACE -fsanitize=${EAS_SANITIZE})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_definitions(eas_options INTERFACE _FORTIFY_SOURCE=2)
endif()
if(EAS_BUILD_FUZZ)
    # Coverage for the fuzzers to be guided by; a number that its new type cannot hold is a finding.
    target_compile_options(eas_options INTERFACE -fsanitize=fuzzer-no-link,float-cast-overflow
                                                 -fno-sanitize-recover=all)
endif()
if(EAS_COVERAGE)
    target_compile_options(eas_options INTERFACE --coverage)
    target_link_options(eas_options INTERFACE --coverage)
endif()

# eas_precompile(TARGET [WITH_ANY_COMPILER]): reads the standard headers that most of its files include
# once, which saves a third of the compile time. clang does without, unless it is told: so CI sees
# whether each file of the libraries includes what it uses.
function(eas_precompile target)
    if("WITH_ANY_COMPILER" IN_LIST ARGN OR NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
        target_precompile_headers(${target} PRIVATE <algorithm> <array> <cstring> <functional> <map>
                                  <memory> <mutex> <optional> <string> <string_view> <vector>)
    endif()
endfunction()

# eas_unite_rooms(TARGET FILES): compiles up to FILES neighbouring files of a room as one (a unity
# build): what their headers bring is read, and made into code, once. A file that has a group of its
# own, or is left out of such builds, stays as it is. Called when all files of the target are known.
function(eas_unite_rooms target most)
    if(NOT EAS_UNITE)
        return()
    endif()
    get_target_property(files ${target} SOURCES)
    set(last_room "")
    foreach(file ${files})
        get_source_file_property(group ${file} UNITY_GROUP)
        get_source_file_property(alone ${file} SKIP_UNITY_BUILD_INCLUSION)
        if(group OR alone)
            continue()
        endif()
        get_filename_component(room ${file} ABSOLUTE)
        get_filename_component(room ${room} DIRECTORY)
        file(RELATIVE_PATH room ${PROJECT_SOURCE_DIR} ${room})
        string(MAKE_C_IDENTIFIER ${room} room)
        if(NOT room STREQUAL last_room)
            set(last_room ${room})
            set(count 0)
        endif()
        math(EXPR number "${count} / ${most}")
        math(EXPR count "${count} + 1")
        set_source_files_properties(${file} PROPERTIES UNITY_GROUP ${room}_${number})
    endforeach()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
endfunction()
