# Language level, warnings and instrumentation, the same for every target of the tree.
option(KESA_BENCH "Build the benchmarks" OFF)
option(KESA_FUZZ "Build the fuzz targets (clang)" OFF)
option(KESA_COVERAGE "Measure line coverage" OFF)
set(KESA_SANITIZE "" CACHE STRING "Sanitizers, as for -fsanitize=")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
# Optimised builds keep their assertions; debug information is kept small.
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wformat=2 -Wundef)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wduplicated-cond -Wlogical-op)
  if(CMAKE_UNITY_BUILD)
    add_compile_options(-Wno-subobject-linkage) # takes the files that are built as one for headers
  endif()
  if(KESA_SANITIZE)
    # GCC 12 reports false positives of these two in instrumented code.
    add_compile_options(-Wno-maybe-uninitialized -Wno-stringop-overflow)
  endif()
endif()

if(KESA_SANITIZE)
  add_compile_options(-fsanitize=${KESA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${KESA_SANITIZE})
endif()
if(KESA_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

# Files are named from the root of the tree, in assertions and in debug information: nothing that is built tells where. (A
# compiler cache may name files relative to the build folder; of several that match, the last counts. Coverage needs the
# real names.)
if(NOT KESA_COVERAGE AND NOT CMAKE_BINARY_DIR STREQUAL CMAKE_SOURCE_DIR)
  cmake_path(RELATIVE_PATH CMAKE_SOURCE_DIR BASE_DIRECTORY ${CMAKE_BINARY_DIR} OUTPUT_VARIABLE root)
  add_compile_options(-ffile-prefix-map=${root}/= -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)
endif()
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_package(Threads REQUIRED)
