# Helpers that give every target of this project the same warnings and include root.

add_library(latixel_options INTERFACE)
target_compile_options(latixel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
target_link_libraries(latixel_options INTERFACE Threads::Threads)

# latixel_sources(VAR): all sources of the current folder.
function(latixel_sources var)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(${var} ${sources} PARENT_SCOPE)
endfunction()

# latixel_room(name deps...): the object library `latixel_<name>` from the sources of src/<name>.
function(latixel_room name)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  if(sources)
    add_library(latixel_${name} OBJECT ${sources})
    target_include_directories(latixel_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(latixel_${name} PRIVATE latixel_options)
    target_compile_options(latixel_${name} PRIVATE -fvisibility=hidden -fvisibility-inlines-hidden)
  endif()
endfunction()

# latixel_test(name libs...): the GoogleTest program `<name>_test` from the sources of tests/<name>, one ctest
# entry for each test case.
function(latixel_test name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  if(sources)
    add_executable(${name}_test ${sources})
    target_include_directories(${name}_test PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}
                                                    ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name}_test PRIVATE latixel_options GTest::gtest GTest::gmock GTest::gtest_main ${ARGN})
  endif()
endfunction()
