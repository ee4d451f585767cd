# What every target of this project is compiled with; nothing of it reaches applications.
add_library(Quellon_options INTERFACE)

target_compile_options(Quellon_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},arm>>:-Wno-psabi>)
target_compile_features(Quellon_options INTERFACE cxx_std_20)

if(QUELLON_SANITIZE)
  target_compile_options(Quellon_options INTERFACE
    -fsanitize=${QUELLON_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(Quellon_options INTERFACE -fsanitize=${QUELLON_SANITIZE})
endif()

if(QUELLON_COVERAGE)
  target_compile_options(Quellon_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(Quellon_options INTERFACE --coverage)
endif()
