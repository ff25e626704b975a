# Build-time constants for the version line of the log: a dotted version, a
# decimal build number (VELORANE_BUILD_NUMBER from the environment, else the
# number of commits), the date and the time of the configure run.

set(VELORANE_VERSION_TEXT "${PROJECT_VERSION}")
if(DEFINED ENV{VELORANE_BUILD_NUMBER})
    set(VELORANE_BUILD_NUMBER "$ENV{VELORANE_BUILD_NUMBER}")
else()
    execute_process(
        COMMAND git rev-list --count HEAD
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
        OUTPUT_VARIABLE VELORANE_BUILD_NUMBER
        OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET
        RESULT_VARIABLE _velorane_git_result)
    if(NOT _velorane_git_result EQUAL 0 OR NOT VELORANE_BUILD_NUMBER MATCHES "^[0-9]+$")
        set(VELORANE_BUILD_NUMBER "0")
    endif()
endif()
string(TIMESTAMP VELORANE_BUILD_DATE "%Y-%m-%d")
string(TIMESTAMP VELORANE_BUILD_TIME "%H:%M")

configure_file(${CMAKE_SOURCE_DIR}/cmake/BuildInfo.h.in
               ${CMAKE_BINARY_DIR}/generated/BuildInfo.h @ONLY)
