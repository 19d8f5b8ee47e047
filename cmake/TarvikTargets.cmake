# What every target of the tree has in common, as functions.

# Which precompiled headers the libraries of a folder begin with.
set(TARVIK_PRECOMPILED all)

add_library(tarvik_options INTERFACE)
target_compile_features(tarvik_options INTERFACE cxx_std_20)
# Position-independent, whatever it becomes part of: so all sources can share
# what is compiled beforehand.
target_compile_options(tarvik_options INTERFACE -Wall -Wextra -Wpedantic -fPIC)
if(TARVIK_WERROR)
  target_compile_options(tarvik_options INTERFACE -Werror)
endif()
if(TARVIK_SANITIZE)
  target_compile_options(tarvik_options INTERFACE -fsanitize=${TARVIK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tarvik_options INTERFACE -fsanitize=${TARVIK_SANITIZE})
  if(TARVIK_SANITIZE MATCHES thread)
    # The thread sanitizer knows no fences; Asio has its locks besides.
    target_compile_definitions(tarvik_options INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
endif()

# The tests themselves need not be fast, but compiled soon.
add_library(tarvik_test_options INTERFACE)
target_compile_options(tarvik_test_options INTERFACE -O0)
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Fixtures stand in unnamed namespaces, of which each source has its own.
  target_compile_options(tarvik_test_options INTERFACE -Wno-subobject-linkage)
endif()

# tarvik_precompiled(KIND LIBRARIES...): precompiled/KIND.hpp, compiled once for
# all targets that tarvik_precompile() names. Half of the time to compile goes
# into those headers otherwise; each source still includes what it needs.
function(tarvik_precompiled kind)
  set(source ${CMAKE_BINARY_DIR}/precompiled/${kind}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "")
  add_library(precompiled_${kind} OBJECT ${source})
  target_link_libraries(precompiled_${kind} PRIVATE tarvik_options ${ARGN})
  target_precompile_headers(precompiled_${kind} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/precompiled/${kind}.hpp)
endfunction()

function(tarvik_precompile target kind)
  if(TARVIK_PRECOMPILE)
    target_precompile_headers(${target} REUSE_FROM precompiled_${kind})
  endif()
endfunction()

# tarvik_library(NAME ALIAS KIND SOURCES...): a library of this layer, its
# include/ folder public and each of its headers compiled alone by the target
# all_verify_interface_header_sets.
function(tarvik_library name alias kind)
  add_library(${name} ${kind} ${ARGN})
  add_library(${alias} ALIAS ${name})
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/include/*.hpp)
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${CMAKE_CURRENT_SOURCE_DIR}/include FILES ${headers})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:tarvik_options>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  tarvik_precompile(${name} ${TARVIK_PRECOMPILED})
endfunction()

# Where module libraries stand: beside each other, so that the host finds them.
set(TARVIK_MODULE_OUTPUT_DIR ${CMAKE_BINARY_DIR}/modules)
set(TARVIK_MODULE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/tarvik/modules)

# tarvik_module(NAME ENTRY LIBRARY): the loadable library libNAME.so made of the
# entry point's source and an object-code library; it exports what
# EXPORTS lists (linker patterns) besides the entry point, and nothing else.
# The host loads the modules in the order of these calls, which the global
# property TARVIK_MODULES keeps; each may use those before it.
function(tarvik_module name entry library)
  cmake_parse_arguments(PARSE_ARGV 3 module "" "" "EXPORTS")
  add_library(${name} MODULE ${entry})
  target_link_libraries(${name} PRIVATE tarvik_options ${library})
  tarvik_precompile(${name} modules)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.exports)
  list(JOIN module_EXPORTS " " exports)
  file(WRITE ${script} "{ global: zbLoadModule; ${exports} local: *; };\n")
  target_link_options(${name} PRIVATE -Wl,--version-script=${script})
  if(NOT TARVIK_SANITIZE) # a sanitizer's functions are the program's
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${TARVIK_MODULE_OUTPUT_DIR}
    LINK_DEPENDS ${script})
  install(TARGETS ${name} LIBRARY DESTINATION ${TARVIK_MODULE_INSTALL_DIR} COMPONENT platform)
  set_property(GLOBAL APPEND PROPERTY TARVIK_MODULES ${name})
endfunction()

# tarvik_platform_module(NAME SOURCES ... LIBRARIES ... TESTS ... TEST_LIBRARIES ...):
# a module of the platform, which src/entry.cpp registers; NAME_objects is what
# it is made of, for tests.
function(tarvik_platform_module name)
  cmake_parse_arguments(PARSE_ARGV 1 module "" "" "SOURCES;LIBRARIES;TESTS;TEST_LIBRARIES")
  add_library(${name}_objects STATIC ${module_SOURCES})
  target_include_directories(${name}_objects PUBLIC src)
  target_link_libraries(${name}_objects PUBLIC tarvik::zb ${module_LIBRARIES} PRIVATE tarvik_options)
  tarvik_precompile(${name}_objects modules)
  tarvik_module(${name} src/entry.cpp ${name}_objects)
  tarvik_test(${name}_tests modules SOURCES ${module_TESTS} LIBRARIES ${name}_objects ${module_TEST_LIBRARIES})
endfunction()

# tarvik_test(NAME LABEL SOURCES... LIBRARIES ...): a test program whose tests
# ctest runs one by one. PRECOMPILED names another kind of headers than "tests".
function(tarvik_test name label)
  cmake_parse_arguments(PARSE_ARGV 2 test "" "TIMEOUT;PRECOMPILED" "SOURCES;LIBRARIES")
  if(NOT TARVIK_BUILD_TESTS)
    return()
  endif()
  if(NOT test_TIMEOUT)
    set(test_TIMEOUT 120)
  endif()
  if(NOT test_PRECOMPILED)
    set(test_PRECOMPILED tests)
  endif()
  add_executable(${name} ${test_SOURCES})
  target_link_libraries(${name} PRIVATE tarvik_options tarvik_test_options ${test_LIBRARIES} tarvik::testing GTest::gmock GTest::gtest_main)
  tarvik_precompile(${name} ${test_PRECOMPILED})
  gtest_discover_tests(${name} PROPERTIES LABELS ${label} TIMEOUT ${test_TIMEOUT} DISCOVERY_TIMEOUT 60)
endfunction()
