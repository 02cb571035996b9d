# What the project needs from the distribution. A missing package ends the configuration with one line that names it.

find_package(PkgConfig)
if(NOT PkgConfig_FOUND)
  message(FATAL_ERROR "krsdnhal: pkg-config is missing: apt-get install pkg-config")
endif()

# kr_require_pkg(<prefix> <pkg-config module> <Debian package>): makes the imported target PkgConfig::<prefix>.
macro(kr_require_pkg prefix module package)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET ${module})
  if(NOT ${prefix}_FOUND)
    message(FATAL_ERROR "krsdnhal: ${module} is missing: apt-get install ${package}")
  endif()
endmacro()

kr_require_pkg(NL_ROUTE libnl-route-3.0 libnl-route-3-dev)
kr_require_pkg(INIH inih libinih-dev)

find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY pcap)
if(NOT PCAP_INCLUDE_DIR OR NOT PCAP_LIBRARY)
  message(FATAL_ERROR "krsdnhal: libpcap is missing: apt-get install libpcap-dev")
endif()

if(KR_BUILD_TESTS)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    message(FATAL_ERROR "krsdnhal: GoogleTest is missing: apt-get install libgtest-dev libgmock-dev (or configure with -DKR_BUILD_TESTS=OFF)")
  endif()
endif()
if(KR_BUILD_BENCH)
  find_package(benchmark QUIET)
  if(NOT benchmark_FOUND)
    message(FATAL_ERROR "krsdnhal: Google Benchmark is missing: apt-get install libbenchmark-dev (or configure with -DKR_BUILD_BENCH=OFF)")
  endif()
endif()
