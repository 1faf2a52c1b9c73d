# kesa_module(NAME [SEES module...] [LINKS module...] [LIBS lib...] [INCLUDE dir...] [SOURCES dir...] [HEADERS path...]
#             [LAYERS dir...] [PURE dir...] [OPENS module...])
# One layer of the system: a static archive kesa_NAME of every src/*.cpp, whose users see its include/.
#   SEES     the modules it may include, and what those see
#   LINKS    modules that it needs in a program and does not include
#   LIBS     external libraries, private to the module
# The rest is for tools/check_house, which reads it here:
#   HEADERS  the module's own, where several share a folder: files, patterns, folders
#   LAYERS   folders of the module, lowest first: each includes itself and those before it. "a|b" are two side by side,
#            which do not include each other; one inside of another stands before it
#   PURE     folders without sockets, threads, locks and clocks
#   OPENS    modules that may include what is not installed of this one
# The shared libraries are made of these archives' objects; unit tests link the archives, so they reach what is hidden.
function(kesa_module name)
  cmake_parse_arguments(M "" "" "SEES;LINKS;LIBS;INCLUDE;SOURCES;HEADERS;LAYERS;PURE;OPENS" ${ARGN})
  if(NOT M_SOURCES)
    set(M_SOURCES src)
  endif()
  if(NOT M_INCLUDE)
    set(M_INCLUDE include)
  endif()
  set(sources)
  foreach(dir IN LISTS M_SOURCES)
    file(GLOB_RECURSE found RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS ${dir}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  list(FILTER sources EXCLUDE REGEX "(^|/)tests/") # of the module: the tree itself may lie below a folder of that name
  list(TRANSFORM sources PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  list(TRANSFORM M_SEES PREPEND kesa_)
  # In normal form, so that headers have the same names in every build: a compiler cache turns "src/../include" into "include".
  set(includes)
  foreach(dir IN LISTS M_INCLUDE)
    cmake_path(ABSOLUTE_PATH dir BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} NORMALIZE)
    string(REGEX REPLACE "/$" "" dir ${dir}) # of "."
    list(APPEND includes ${dir})
  endforeach()
  if(sources)
    add_library(kesa_${name} STATIC ${sources})
    target_include_directories(kesa_${name} PUBLIC ${includes} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(kesa_${name} PUBLIC ${M_SEES} Threads::Threads PRIVATE ${M_LIBS})
    if(KESA_FUZZ) # what looks for new ways through the code; a fifth of the time to compile
      target_compile_options(kesa_${name} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
  else()
    add_library(kesa_${name} INTERFACE)
    target_include_directories(kesa_${name} INTERFACE ${includes})
    target_link_libraries(kesa_${name} INTERFACE ${M_SEES} Threads::Threads)
  endif()
  foreach(module IN LISTS M_LINKS)
    target_link_libraries(kesa_${name} INTERFACE $<LINK_ONLY:kesa_${module}>)
  endforeach()
endfunction()

# kesa_test_headers(TARGET): what every test includes. The first target precompiles it, the others take that.
function(kesa_test_headers target)
  get_property(first GLOBAL PROPERTY KESA_TEST_HEADERS)
  if(first)
    target_precompile_headers(${target} REUSE_FROM ${first})
  else()
    target_precompile_headers(${target} PRIVATE <gmock/gmock.h> <gtest/gtest.h> <memory> <string> <vector>)
    set_property(GLOBAL PROPERTY KESA_TEST_HEADERS ${target})
  endif()
endfunction()

# kesa_tests(NAME [SEES module...] [LIBS lib...] [DIR dir]): the module's unit tests, one binary kesa_NAME_tests of DIR/*.cpp.
function(kesa_tests name)
  if(NOT BUILD_TESTING)
    return()
  endif()
  cmake_parse_arguments(T "" "DIR;TIMEOUT" "SEES;LIBS" ${ARGN})
  if(NOT T_DIR)
    set(T_DIR tests)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${T_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  find_package(GTest REQUIRED)
  list(TRANSFORM T_SEES PREPEND kesa_)
  add_executable(kesa_${name}_tests ${sources})
  target_include_directories(kesa_${name}_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}
    ${PROJECT_SOURCE_DIR}/platform/tracing/testing ${PROJECT_SOURCE_DIR}/tests/support)
  target_link_libraries(kesa_${name}_tests PRIVATE ${T_SEES} ${T_LIBS} GTest::gmock GTest::gtest_main)
  kesa_test_headers(kesa_${name}_tests)
  add_test(NAME ${name} COMMAND kesa_${name}_tests)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
endfunction()
