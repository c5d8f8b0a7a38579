# access_options: what every target of the project is compiled and linked with.
add_library(access_options INTERFACE)

target_compile_options(access_options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wcast-align -Wmissing-declarations
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
  -fno-omit-frame-pointer)

# Hardening. Fortify needs an optimised build and gets in the way of the sanitizers.
target_compile_options(access_options INTERFACE -fstack-protector-strong -fstack-clash-protection)
target_link_options(access_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
if(NOT ACCESS_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(access_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

if(ACCESS_SANITIZE)
  target_compile_options(access_options INTERFACE -fsanitize=${ACCESS_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(access_options INTERFACE -fsanitize=${ACCESS_SANITIZE})
endif()
if(ACCESS_FUZZ)
  target_compile_options(access_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(ACCESS_COVERAGE)
  target_compile_options(access_options INTERFACE --coverage)
  target_link_options(access_options INTERFACE --coverage)
endif()
