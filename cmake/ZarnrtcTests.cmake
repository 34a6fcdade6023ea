# zarnrtc_discover_tests(TARGET PREFIX name [TIMEOUT s] [LABELS ...] [ENVIRONMENT ...]
#                        [FIXTURES_REQUIRED ...] [ARGS ...])
#
# One CTest test per GoogleTest case, named PREFIX.Suite.Case, listed when ctest
# runs (so cross builds list them under the emulator). A case that calls GTEST_SKIP
# is reported as skipped, not passed.
#
# The properties are set by a script of our own that runs after the discovery:
# gtest_discover_tests(PROPERTIES ...) flattens list values, so an ENVIRONMENT of
# more than one variable would keep only the first.
include(GoogleTest)

function(zarnrtc_discover_tests target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PREFIX;TIMEOUT"
                        "LABELS;ENVIRONMENT;FIXTURES_REQUIRED;ARGS")
  if(NOT arg_PREFIX)
    message(FATAL_ERROR "zarnrtc_discover_tests(${target}): PREFIX missing")
  endif()
  gtest_discover_tests(${target}
    TEST_PREFIX "${arg_PREFIX}."
    TEST_LIST ${target}_TESTS
    EXTRA_ARGS ${arg_ARGS}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60)

  set(props "")
  foreach(name TIMEOUT LABELS ENVIRONMENT FIXTURES_REQUIRED)
    if(DEFINED arg_${name})
      string(APPEND props "\n    ${name} [==[${arg_${name}}]==]")
    endif()
  endforeach()
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}_properties.cmake)
  file(WRITE ${script}
    "if(${target}_TESTS)\n"
    "  set_tests_properties(\${${target}_TESTS} PROPERTIES"
    "${props}\n"
    "    SKIP_REGULAR_EXPRESSION [==[\\[  SKIPPED \\]]==])\n"
    "endif()\n")
  # After the discovery's own include file, which defines ${target}_TESTS.
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()
