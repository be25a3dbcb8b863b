# Compiler and linker flags that every target of the project shares, as the interface target
# `gateway_flags`.

include(CheckCXXCompilerFlag)
include(CheckPIESupported)

# Compilers differ in whether they make position-independent programs by default.
check_pie_supported(LANGUAGES CXX)

add_library(gateway_flags INTERFACE)
target_include_directories(gateway_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)

target_compile_options(
  gateway_flags
  INTERFACE
    -Wall
    -Wextra
    -Wpedantic
    -Wshadow
    -Wformat=2
    -Wcast-align
    -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<BOOL:${GATEWAY_WERROR}>:-Werror>)

# g++ 12 mistakes the concatenation of a literal and a string for an overlapping copy.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(gateway_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()

# Paths in log lines, assertions and debug information start at the project's root, so that a build
# gives the same bytes wherever it runs.
target_compile_options(
  gateway_flags
  INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -fdebug-prefix-map=${PROJECT_SOURCE_DIR}=.
            -ffile-prefix-map=${PROJECT_BINARY_DIR}/= -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.)

target_compile_options(gateway_flags INTERFACE -fstack-protector-strong)
# The flag that guards jumps depends on the processor. clang++ accepts a wrong one, but warns.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(guard -mbranch-protection=standard)
else()
  set(guard -fcf-protection)
endif()
foreach(flag -fstack-clash-protection ${guard})
  string(MAKE_C_IDENTIFIER "GATEWAY_HAS${flag}" has_flag)
  check_cxx_compiler_flag(${flag} ${has_flag})
  if(${has_flag})
    target_compile_options(gateway_flags INTERFACE ${flag})
  endif()
endforeach()
target_link_options(gateway_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

if(GATEWAY_SANITIZE)
  target_compile_options(
    gateway_flags INTERFACE -fsanitize=${GATEWAY_SANITIZE} -fno-sanitize-recover=all
                            -fno-omit-frame-pointer)
  target_link_options(gateway_flags INTERFACE -fsanitize=${GATEWAY_SANITIZE})
else()
  # This needs optimisation, and would hide from the sanitizers what they look for.
  target_compile_definitions(
    gateway_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

if(GATEWAY_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "GATEWAY_FUZZ needs clang++: configure with -DCMAKE_CXX_COMPILER=clang++")
  endif()
  # Coverage, which guides the fuzzer.
  target_compile_options(gateway_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(gateway_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
