# Settings every target of the project shares.

# Windows 10 APIs, wide-character Windows headers, msvcrt's own printf family
# (so wide formats follow the Windows width rules), strict warnings, and images
# that Wine can map.
function(omk_target_settings target)
  target_compile_definitions(${target} PRIVATE
    UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
    _WIN32_WINNT=0x0A00 WINVER=0x0A00 __USE_MINGW_ANSI_STDIO=0)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:C,CXX>:-Wall -Wextra -Werror -Wno-unknown-pragmas -Wno-cast-function-type>)
  # Sections at page offsets in the file, as in memory: Wine then maps an image
  # from its file instead of reading it whole into private memory, so what a
  # process never touches (the debug information) stays out of its working set.
  target_link_options(${target} PRIVATE -Wl,--file-alignment,0x1000)
endfunction()

# Links the helpers built with their test seams (UtilityHelperLib/CMakeLists.txt)
# into a test or bench program, whole and first, so that they stand in for the
# shipped helpers. Call before any other target_link_libraries of the program.
function(omk_link_test_seams target)
  target_link_libraries(${target} PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,OmkTestSeams>")
endfunction()

# A GoogleTest program run under Wine as one CTest entry.
function(omk_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  omk_target_settings(${name})
  if(TARGET OmkTestSeams)
    omk_link_test_seams(${name})
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} OmkTestSupport GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name} --gtest_color=no)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  # Wine can end a crashed program with exit code 0: its crash report fails the test.
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    FAIL_REGULAR_EXPRESSION "Unhandled exception|wine: Unhandled")
endfunction()

# CLI11 and nlohmann-json, header-only host packages (libcli11-dev,
# nlohmann-json3-dev), for a target's own sources. /usr/include itself must
# never be on a target's include path (its C headers would hide mingw's): the
# target gets a folder of the build holding links to those two alone.
function(omk_use_host_headers target)
  set(dir ${CMAKE_BINARY_DIR}/host-include)
  foreach(name CLI nlohmann)
    if(NOT EXISTS /usr/include/${name})
      message(FATAL_ERROR "/usr/include/${name} is missing: scripts/test installs it (OMK_PACKAGES)")
    endif()
    if(NOT EXISTS ${dir}/${name})
      file(MAKE_DIRECTORY ${dir})
      file(CREATE_LINK /usr/include/${name} ${dir}/${name} SYMBOLIC)
    endif()
  endforeach()
  target_include_directories(${target} SYSTEM PRIVATE ${dir})
endfunction()
