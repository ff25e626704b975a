# The fuzz tree (VELORANE_FUZZ=ON): clang's libFuzzer with AddressSanitizer
# and UndefinedBehaviorSanitizer. Every object of ours is instrumented for
# coverage (fuzzer-no-link); only the fuzz targets link libFuzzer's main.
# The tree builds the targets of Tests/Fuzz and what they link, nothing else
# (scripts/fuzz.sh builds the "fuzz-targets" target).

macro(velorane_apply_fuzzing)
    if(VELORANE_FUZZ)
        if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
            message(FATAL_ERROR
                "VELORANE_FUZZ needs clang (libFuzzer): configure with -DCMAKE_CXX_COMPILER=clang++-14 "
                "(Debian packages clang-14 and libclang-rt-14-dev, scripts/install-deps.sh)")
        endif()
        if(VELORANE_SANITIZE)
            message(FATAL_ERROR "VELORANE_FUZZ brings its own sanitizers; leave VELORANE_SANITIZE empty")
        endif()
        add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                            -fno-sanitize-recover=all -gline-tables-only)
        add_link_options(-fsanitize=address,undefined)
        message(STATUS "Velorane: fuzz tree (libFuzzer, address, undefined)")
    endif()
endmacro()

# One libFuzzer target: bin/fuzz_<name>, its corpus in Tests/Fuzz/corpus/<name>.
function(velorane_add_fuzz_target name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    set(target fuzz_${name})
    velorane_add_executable(${target} SOURCES ${ARG_SOURCES} LIBS ${ARG_LIBS})
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    target_compile_definitions(${target} PRIVATE QT_NO_KEYWORDS)
    if(NOT TARGET fuzz-targets)
        add_custom_target(fuzz-targets)
    endif()
    add_dependencies(fuzz-targets ${target})
endfunction()
