# cpack runs this before it packs: it adds to each package what Debian requires.

cmake_policy(VERSION 3.25)
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# run(COMMAND...): runs a command; if it fails, no package is made.
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# A copyright file indents the terms and has a full stop in place of an empty line.
set(terms " All rights reserved. No licence comes with this package.")
if(CPACK_GATEWAY_LICENSE_FILE)
  file(READ "${CPACK_GATEWAY_LICENSE_FILE}" terms)
  string(STRIP "${terms}" terms)
  string(REGEX REPLACE "\n" "\n " terms " ${terms}")
  string(REGEX REPLACE "\n +(\n|$)" "\n .\\1" terms "${terms}")
  string(REGEX REPLACE "\n +(\n|$)" "\n .\\1" terms "${terms}")
endif()
string(TIMESTAMP year "%Y" UTC)
# The modes of the files below, whatever modes the sources have.
set(readable FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component})
  set(share ${root}/usr/share)
  set(doc ${share}/doc/${package})

  foreach(binary ${CPACK_GATEWAY_BINARIES})
    if(EXISTS ${root}/${binary})
      run(${CPACK_GATEWAY_STRIP} --strip-unneeded --remove-section=.comment ${root}/${binary})
    endif()
  endforeach()
  file(GLOB pages ${share}/man/man*/*.[1-8])
  foreach(page ${pages})
    run(gzip -9n ${page})
  endforeach()

  configure_file(${CPACK_GATEWAY_FILES}/copyright.in ${doc}/copyright @ONLY ${readable})
  # The licences of what others have written.
  if(EXISTS ${CPACK_GATEWAY_FILES}/${component}/copyright)
    file(READ ${CPACK_GATEWAY_FILES}/${component}/copyright others)
    file(APPEND ${doc}/copyright "${others}")
  endif()
  run(${Python3_EXECUTABLE} -B ${CPACK_GATEWAY_FILES}/debian_changelog.py
      ${CPACK_GATEWAY_CHANGELOG} ${package} ${CPACK_DEBIAN_PACKAGE_MAINTAINER} ${doc}/changelog)
  run(gzip -9n ${doc}/changelog)

  set(overrides ${CPACK_GATEWAY_FILES}/${component}/lintian-overrides)
  if(EXISTS ${overrides})
    configure_file(${overrides} ${share}/lintian/overrides/${package} COPYONLY ${readable})
  endif()
endforeach()
