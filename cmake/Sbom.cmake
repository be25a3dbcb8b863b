# sbom(TARGET COMPONENT): makes an SBOM of the linked TARGET, as TARGET.spdx.json and as
# TARGET.cdx.json, and installs both with COMPONENT. cmake/sbom.py says what they list.
#
# The facts come from dpkg, from a map that GNU ld writes, and from the dependencies that Ninja or
# Make record. Without them there is no SBOM, and everything else still builds.

option(GATEWAY_SBOM "Make an SBOM of each binary" ON)

find_package(Python3 COMPONENTS Interpreter)
find_program(GATEWAY_DPKG_QUERY dpkg-query DOC "Names the packages in the SBOM")
mark_as_advanced(GATEWAY_DPKG_QUERY)
set(missing)
if(NOT GATEWAY_SBOM)
  set(missing "GATEWAY_SBOM is off")
elseif(NOT Python3_Interpreter_FOUND OR NOT GATEWAY_DPKG_QUERY OR NOT CMAKE_READELF)
  set(missing "it needs python3, dpkg-query and readelf")
elseif(NOT CMAKE_GENERATOR MATCHES "^(Ninja|Unix Makefiles)$")
  set(missing "it needs the generator Ninja or Unix Makefiles")
endif()
# The map is GNU ld's, and with link-time optimisation it does not say what is linked.
separate_arguments(flags UNIX_COMMAND
                   "${CMAKE_CXX_FLAGS} ${CMAKE_EXE_LINKER_FLAGS} ${CMAKE_SHARED_LINKER_FLAGS}")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -Wl,--version
                OUTPUT_VARIABLE linker ERROR_QUIET)
if(NOT missing AND NOT linker MATCHES "^GNU ld")
  set(missing "it needs the linker GNU ld")
elseif(NOT missing AND (CMAKE_INTERPROCEDURAL_OPTIMIZATION OR flags MATCHES "-flto"))
  set(missing "it can't see through link-time optimisation")
endif()
if(missing)
  message(STATUS "SBOM: skipped (${missing})")
  return()
endif()

# Ninja runs the linker in the top folder of the build, and Make in the target's.
function(sbom_link_folder target folder)
  set(place ${CMAKE_BINARY_DIR})
  if(NOT CMAKE_GENERATOR STREQUAL "Ninja")
    get_target_property(place ${target} BINARY_DIR)
  endif()
  set(${folder} ${place} PARENT_SCOPE)
endfunction()

function(sbom target component)
  set(folder ${PROJECT_BINARY_DIR}/sbom)
  file(MAKE_DIRECTORY ${folder})
  set(map ${folder}/${target}.map)
  target_link_options(${target} PRIVATE -Wl,-Map=${map})
  sbom_link_folder(${target} link_folder)
  # Known at configure time, so that a change makes the SBOM anew.
  set(epoch 0)
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(epoch $ENV{SOURCE_DATE_EPOCH})
  endif()

  set(arguments
      --binary $<TARGET_FILE:${target}>
      --map ${map}
      --link-folder ${link_folder}
      --build ${CMAKE_BINARY_DIR}
      --source ${PROJECT_SOURCE_DIR}
      --third-party ${PROJECT_SOURCE_DIR}/third_party
      --version ${PROJECT_VERSION}
      --epoch ${epoch}
      --readelf ${CMAKE_READELF})
  get_property(embedded GLOBAL PROPERTY GATEWAY_EMBEDDED)
  foreach(pair ${embedded})
    string(REPLACE "|" ";" pair "${pair}")
    list(APPEND arguments --embedded ${pair})
  endforeach()
  list(JOIN arguments "\n" lines)
  file(GENERATE OUTPUT ${folder}/${target}.arguments CONTENT "${lines}\n")

  set(made ${folder}/${target}.spdx.json ${folder}/${target}.cdx.json)
  set(script ${PROJECT_SOURCE_DIR}/cmake/sbom.py)
  add_custom_command(
    OUTPUT ${made}
    COMMAND ${Python3_EXECUTABLE} -B ${script} @${folder}/${target}.arguments
            --spdx ${folder}/${target}.spdx.json --cyclonedx ${folder}/${target}.cdx.json
    DEPENDS ${target} ${script} ${folder}/${target}.arguments
    COMMENT "Making the SBOM of ${target}"
    VERBATIM)
  add_custom_target(${target}-sbom ALL DEPENDS ${made})
  # Whoever builds only the target can install it, too.
  install(FILES ${made} DESTINATION ${shared}/sbom COMPONENT ${component} OPTIONAL)
endfunction()

sbom(grpc-gateway module)
if(GATEWAY_TOOLS)
  sbom(gatewayctl tools)
endif()
