# Chooses the INI reader by the option GATEWAY_INIH:
#
#   auto     the installed inih if it reads every conformance case as required, else our own reader
#   system   the installed inih; stops if it misreads a case
#   bundled  our own reader, src/ini
#
# Builds of inih differ in limits and switches that its header does not show, so a program that
# reads the cases of src/ini/conformance.h is compiled and run against the installed one.
#
# Sets GATEWAY_INIH_READER to `system` or `bundled`, and with `system` GATEWAY_INIH_INCLUDE_DIR and
# GATEWAY_INIH_LIBRARY, from which src/ini makes the target `ini`.

# gateway_judge_inih(VAR): sets VAR to the reason not to use the installed inih, or to "".
function(gateway_judge_inih objection)
  find_path(GATEWAY_INIH_INCLUDE_DIR ini.h DOC "Folder of the installed inih's ini.h")
  find_library(GATEWAY_INIH_LIBRARY inih DOC "The installed inih")
  mark_as_advanced(GATEWAY_INIH_INCLUDE_DIR GATEWAY_INIH_LIBRARY)

  if(NOT GATEWAY_INIH_INCLUDE_DIR OR NOT GATEWAY_INIH_LIBRARY)
    set(reason "no inih is installed")
  elseif(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(reason "cross-compiling without an emulator, the installed inih cannot be tried")
  else()
    gateway_probe_inih(reason)
  endif()
  set(${objection} "${reason}" PARENT_SCOPE)
endfunction()

# gateway_probe_inih(VAR): the same, by compiling and running the probe alone.
function(gateway_probe_inih objection)
  set(folder ${PROJECT_SOURCE_DIR}/src/ini)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${folder}/conformance-probe.cpp
                                         ${folder}/conformance.h)
  try_run(
    exit_code compiled
    SOURCES ${folder}/conformance-probe.cpp
    NO_CACHE
    CMAKE_FLAGS -DINCLUDE_DIRECTORIES=${GATEWAY_INIH_INCLUDE_DIR}
    LINK_LIBRARIES ${GATEWAY_INIH_LIBRARY}
    CXX_STANDARD 20
    CXX_STANDARD_REQUIRED ON
    RUN_OUTPUT_VARIABLE output)
  string(STRIP "${output}" output)

  if(NOT compiled)
    set(reason "the probe does not build against the installed inih")
  elseif(exit_code STREQUAL "0")
    set(reason "")
  elseif(exit_code STREQUAL "1")
    set(reason "the installed inih fails the case ${output}")
  else()
    set(reason "the probe of the installed inih ended with ${exit_code} ${output}")
  endif()
  set(${objection} "${reason}" PARENT_SCOPE)
endfunction()

if(GATEWAY_INIH STREQUAL "bundled")
  set(GATEWAY_INIH_READER bundled)
  message(STATUS "INI reader: bundled (as asked for)")
elseif(GATEWAY_INIH STREQUAL "auto" OR GATEWAY_INIH STREQUAL "system")
  gateway_judge_inih(objection)
  if(objection STREQUAL "")
    set(GATEWAY_INIH_READER system)
    message(STATUS "INI reader: system (${GATEWAY_INIH_LIBRARY} reads as required)")
  elseif(GATEWAY_INIH STREQUAL "auto")
    set(GATEWAY_INIH_READER bundled)
    message(STATUS "INI reader: bundled (${objection})")
  else()
    message(FATAL_ERROR "GATEWAY_INIH is system, but ${objection}. "
                        "Set it to auto or bundled, or install an inih that reads as required.")
  endif()
else()
  message(FATAL_ERROR "GATEWAY_INIH is \"${GATEWAY_INIH}\", but must be auto, system or bundled.")
endif()
