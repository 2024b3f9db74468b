# How every target of the tree is built: language level, warnings, sanitizers, dependencies.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

set(MIRADOR_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
option(MIRADOR_FUZZ "Build the libFuzzer targets (clang only)" OFF)

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
pkg_check_modules(FUSE REQUIRED IMPORTED_TARGET fuse>=2.9)
pkg_check_modules(BLKID REQUIRED IMPORTED_TARGET blkid)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)

add_library(mirador_options INTERFACE)
target_include_directories(mirador_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_definitions(mirador_options INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(mirador_options INTERFACE
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(mirador_options INTERFACE -Wthread-safety)
else()
  # Optimising, g++ 12 reports overlaps inside its own std::string that cannot be.
  target_compile_options(mirador_options INTERFACE -Wno-restrict)
endif()
if(MIRADOR_SANITIZE)
  add_compile_options(-fsanitize=${MIRADOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MIRADOR_SANITIZE})
endif()
if(MIRADOR_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# What a build for one purpose needs: the programs in bin, the tests of modules with threads, the fuzz targets.
add_custom_target(programs)
add_custom_target(thread_tests)
add_custom_target(fuzz_targets)

# mirador_library(NAME SOURCES source... USES target...): one folder's static library. It sees only what
# stands behind USES, so an include that points up the table of folders does not link.
function(mirador_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC mirador_options ${ARG_USES})
endfunction()

# mirador_program(NAME SOURCES source... USES target...): one program in build/<preset>/bin.
function(mirador_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE mirador_options ${ARG_USES})
  add_dependencies(programs ${name})
endfunction()

# mirador_unit_test(PATH USES target... [LABELS label...]): tests/PATH.cc as a GoogleTest program, one
# ctest entry named PATH with label "unit" and those given.
function(mirador_unit_test path)
  cmake_parse_arguments(ARG "" "" "USES;LABELS" ${ARGN})
  get_filename_component(name ${path} NAME)
  add_executable(${name} ${CMAKE_SOURCE_DIR}/tests/${path}.cc)
  target_link_libraries(${name} PRIVATE mirador_options ${ARG_USES} GTest::gmock_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${path} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${path} PROPERTIES LABELS "unit;${ARG_LABELS}" TIMEOUT 120)
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(thread_tests ${name})
  endif()
endfunction()
