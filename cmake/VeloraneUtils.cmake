# Warnings and sanitizers, set once and applied to every target of ours.

function(velorane_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# Sanitizers apply to the whole tree so that every object of ours is
# instrumented the same way.
macro(velorane_apply_sanitizers)
    if(VELORANE_SANITIZE)
        string(REPLACE "," ";" _velorane_sanitizers "${VELORANE_SANITIZE}")
        foreach(_s IN LISTS _velorane_sanitizers)
            if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
                message(FATAL_ERROR "VELORANE_SANITIZE: unknown sanitizer '${_s}'")
            endif()
        endforeach()
        # GCC's flow analysis sees through the sanitizers' instrumentation
        # badly and reports uninitialised values in the standard library
        # (std::regex) that aren't there; the plain tree keeps the warning.
        add_compile_options(-fsanitize=${VELORANE_SANITIZE} -fno-omit-frame-pointer
                            -fno-sanitize-recover=all -Wno-maybe-uninitialized)
        add_link_options(-fsanitize=${VELORANE_SANITIZE})
        message(STATUS "Velorane: sanitizers ${VELORANE_SANITIZE}")
    endif()
endmacro()

# One static library per subsystem folder. The repository root is the
# include root: code includes "Common/Platform/Src/Scheduler.h".
function(velorane_add_library target)
    cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    add_library(${target} STATIC ${ARG_SOURCES})
    target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)
    target_link_libraries(${target} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
    velorane_set_warnings(${target})
endfunction()

function(velorane_add_executable target)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${target} ${ARG_SOURCES})
    target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)
    target_link_libraries(${target} PRIVATE ${ARG_LIBS})
    velorane_set_warnings(${target})
endfunction()

# A GoogleTest executable; each test case becomes its own CTest test. LABELS
# lets the test script pick suites (for example "nonqt" for the TSan run).
# ENVIRONMENT takes one NAME=value pair.
function(velorane_add_test target)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT;RESOURCE_LOCK" ${ARGN})
    velorane_add_executable(${target} SOURCES ${ARG_SOURCES}
        LIBS ${ARG_LIBS} GTest::gmock GTest::gtest GTest::gtest_main Threads::Threads)
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    # The discovered tests take one label: the list joined with "-", so
    # "nonqt;video" becomes "nonqt-video" and `ctest -L nonqt` still finds it
    # (a list would be split apart on its way to the generated test script).
    string(REPLACE ";" "-" _labels "${ARG_LABELS}")
    set(_properties TIMEOUT ${ARG_TIMEOUT} LABELS "${_labels}")
    if(ARG_ENVIRONMENT)
        list(APPEND _properties ENVIRONMENT "${ARG_ENVIRONMENT}")
    endif()
    # Tests that hold a fixed resource (the audio driver's port 9002) run
    # one at a time with the others that hold it.
    if(ARG_RESOURCE_LOCK)
        list(APPEND _properties RESOURCE_LOCK "${ARG_RESOURCE_LOCK}")
    endif()
    gtest_discover_tests(${target}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES ${_properties})
endfunction()
