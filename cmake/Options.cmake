# What this project's targets are compiled and linked with; nothing of it reaches applications.
#
#   Quellon_options       the libraries and what is shipped: warnings, instruments
#   Quellon_test_options  the tests: the same warnings, but instruments only where a test needs them.
#                         What a test itself does wrong with memory is found by valgrind alone.
add_library(Quellon_options INTERFACE)
add_library(Quellon_test_options INTERFACE)

foreach(options Quellon_options Quellon_test_options)
  target_compile_options(${options} INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},arm>>:-Wno-psabi>)
  # Sources that are put together hide names of each other, and share what is each one's own.
  if(CMAKE_UNITY_BUILD)
    target_compile_options(${options} INTERFACE
      $<$<CXX_COMPILER_ID:GNU>:-Wno-shadow;-Wno-subobject-linkage>)
  endif()
  # g++ need not look for garbage in its first gigabyte, which is a tenth of its time.
  target_compile_options(${options} INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:--param=ggc-min-heapsize=1000000>)
  target_compile_features(${options} INTERFACE cxx_std_20)
  # The widths and the standard library's plain containers are part of the interface, whatever the
  # builds of whole systems ask for.
  target_compile_options(${options} INTERFACE ${width_options} -U_GLIBCXX_DEBUG)
endforeach()

# Packages are the same in whatever folder they are built.
if(QUELLON_DEBIAN_PACKAGES)
  target_compile_options(Quellon_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
endif()

if(QUELLON_SANITIZE)
  set(sanitize -fsanitize=${QUELLON_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_compile_options(Quellon_options INTERFACE ${sanitize})
  target_link_options(Quellon_options INTERFACE -fsanitize=${QUELLON_SANITIZE})
  target_link_options(Quellon_test_options INTERFACE -fsanitize=${QUELLON_SANITIZE})
  if(QUELLON_SANITIZE MATCHES "address|leak")
    target_compile_definitions(Quellon_options INTERFACE QUELLON_LEAK_CHECKER)  # see Abandon.h
  endif()
  # Data races lie between two threads, and one of them may be the test's own.
  if(QUELLON_SANITIZE MATCHES thread)
    target_compile_options(Quellon_test_options INTERFACE ${sanitize})
  endif()
endif()

if(QUELLON_COVERAGE)
  target_compile_options(Quellon_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(Quellon_options INTERFACE --coverage)
  target_link_options(Quellon_test_options INTERFACE --coverage)
endif()
