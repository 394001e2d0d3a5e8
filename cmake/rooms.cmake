# Helpers that give every target of this project the same warnings and include root.

add_library(latixel_options INTERFACE)
target_compile_options(latixel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
# g++ 12 reports these falsely from inside the standard library's strings and vectors when it optimises.
target_compile_options(latixel_options INTERFACE -Wno-restrict -Wno-array-bounds -Wno-stringop-overflow
                                                 -Wno-stringop-overread -Wno-maybe-uninitialized)
target_link_libraries(latixel_options INTERFACE Threads::Threads)

# latixel_sources(VAR): all sources of the current folder and those below it.
function(latixel_sources var)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(${var} ${sources} PARENT_SCOPE)
endfunction()

# latixel_room(name deps...): the object library `latixel_<name>` from the sources of src/<name>.
function(latixel_room name)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/entry\\.cpp$") # belongs to the shared library alone
  if(sources)
    add_library(latixel_${name} OBJECT ${sources})
    target_include_directories(latixel_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(latixel_${name} PRIVATE latixel_options)
    target_compile_options(latixel_${name} PRIVATE -fvisibility=hidden -fvisibility-inlines-hidden)
  endif()
endfunction()

# latixel_test(name [ROOMS rooms...] [LIBS libs...]): the GoogleTest program `<name>_test` from the sources of
# tests/<name>. It links the named rooms of src/ alone, so that a room that reaches upwards does not link.
function(latixel_test name)
  cmake_parse_arguments(ARG "" "" "ROOMS;LIBS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name}_test ${sources})
  target_include_directories(${name}_test PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}
                                                  ${PROJECT_SOURCE_DIR}/tests ${FTDI_INCLUDE_DIRS})
  foreach(room IN LISTS ARG_ROOMS)
    if(TARGET latixel_${room})
      target_link_libraries(${name}_test PRIVATE latixel_${room})
    endif()
  endforeach()
  target_link_libraries(${name}_test PRIVATE latixel_options GTest::gtest GTest::gmock GTest::gtest_main ${ARG_LIBS})
  if(LATIXEL_SANITIZE)
    # Half of the time to compile; what is tested stays optimised.
    target_compile_options(${name}_test PRIVATE -O0)
  endif()
  gtest_discover_tests(${name}_test TEST_PREFIX ${name}. PROPERTIES TIMEOUT 120 DISCOVERY_TIMEOUT 60)
endfunction()
