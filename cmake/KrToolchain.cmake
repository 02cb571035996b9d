# Compiler, language and the flags that every target of the project shares. Warnings are the presets' business.

if(NOT CMAKE_CXX_COMPILER_ID MATCHES "^(GNU|Clang)$")
  message(FATAL_ERROR "krsdnhal: compiler ${CMAKE_CXX_COMPILER_ID} is not supported: install g++ (12 or later) or clang (14 or later)")
elseif(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
  message(FATAL_ERROR "krsdnhal: g++ ${CMAKE_CXX_COMPILER_VERSION} is too old: install g++ 12 or later")
elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 14)
  message(FATAL_ERROR "krsdnhal: clang ${CMAKE_CXX_COMPILER_VERSION} is too old: install clang 14 or later")
endif()

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# Linux interfaces (accept4, pipe2, struct timeval ...) beside strict C and C++; paths stay relative in the binaries.
add_compile_definitions(_GNU_SOURCE)
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -fno-omit-frame-pointer)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()
# At -O3 g++ 12 raises false alarms (-Wrestrict, -Warray-bounds) in the standard library that it inlines.
string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

set(KR_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")
if(KR_SANITIZE)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS -fsanitize=${KR_SANITIZE})
  check_cxx_source_compiles("int main() {}" KR_SANITIZE_WORKS)
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT KR_SANITIZE_WORKS)
    message(FATAL_ERROR "krsdnhal: ${CMAKE_CXX_COMPILER_ID} has no -fsanitize=${KR_SANITIZE} here: apt-get install libgcc-12-dev (g++) or libclang-rt-14-dev (clang)")
  endif()
  add_compile_options(-fsanitize=${KR_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KR_SANITIZE})
endif()

option(KR_COVERAGE "Count lines and branches" OFF)
if(KR_COVERAGE)
  add_compile_options(--coverage -O0 -fprofile-update=atomic) # the tests have threads
  add_link_options(--coverage)
endif()

find_package(Threads REQUIRED)
