# What `cmake --install` puts where, in three components:
#
#   module  the module, its manual pages (docs/man), a sample configuration
#   tools   gatewayctl, its manual pages (docs/man) and its completions; the descriptions of its
#           HTTP interfaces; example tests; what its operators need (operations/); what editors need
#   dev     for authors: the boundary to the host with a CMake package and a pkg-config file, the
#           schema files, examples
#
# Each place is a variable of GNUInstallDirs; the module's is GATEWAY_MODULE_DIR.

include(CMakePackageConfigHelpers)

set(shared ${CMAKE_INSTALL_DATADIR}/sonalith/grpc-gateway)

install(TARGETS grpc-gateway LIBRARY DESTINATION ${GATEWAY_MODULE_DIR} COMPONENT module)

# The sample has a name of its own, so that it never overwrites a configuration. With the prefix
# /usr it goes to /etc, where the engine looks. Only the installation knows the final prefix.
set(sysconfdir ${CMAKE_INSTALL_SYSCONFDIR})
install(
  CODE "
set(folder \"${sysconfdir}/sonalith\")
if(NOT IS_ABSOLUTE \"\${folder}\")
  set(folder \"\${CMAKE_INSTALL_PREFIX}/\${folder}\")
  string(REGEX REPLACE \"^/usr/+etc/\" \"/etc/\" folder \"\${folder}\")
endif()
file(INSTALL DESTINATION \"\${folder}\" TYPE FILE RENAME grpc-gateway.conf.example
     FILES \"${PROJECT_SOURCE_DIR}/examples/grpc-gateway.conf\")"
  COMPONENT module)

if(GATEWAY_TOOLS)
  install(TARGETS gatewayctl RUNTIME COMPONENT tools)
  install(FILES docs/api.md docs/check.schema.json docs/openapi.json docs/sim-control.md
                docs/sim-control.openapi.json DESTINATION ${shared}/docs COMPONENT tools)
  install(FILES operations/alerts.yml operations/dashboard.json DESTINATION ${shared}/operations
          COMPONENT tools)
  set(editors examples/editors)
  install(FILES ${editors}/README.md ${editors}/emacs.el ${editors}/neovim.lua
          DESTINATION ${shared}/${editors} COMPONENT tools)
  foreach(file vim/ftdetect/grpc-gateway.vim vim/syntax/grpc-gateway.vim vscode/.vscodeignore
               vscode/extension.js vscode/language-configuration.json vscode/package.json
               vscode/syntaxes/grpc-gateway.tmLanguage.json)
    cmake_path(GET file PARENT_PATH folder)
    install(FILES ${editors}/${file} DESTINATION ${shared}/${editors}/${folder} COMPONENT tools)
  endforeach()
  set(example_tests examples/tests)
  install(FILES ${example_tests}/README.md DESTINATION ${shared}/${example_tests} COMPONENT tools)
  install(FILES ${example_tests}/cpp/CMakeLists.txt ${example_tests}/cpp/gain_test.cpp
          DESTINATION ${shared}/${example_tests}/cpp COMPONENT tools)
  install(FILES ${example_tests}/node/gain.test.js DESTINATION ${shared}/${example_tests}/node
          COMPONENT tools)
  install(PROGRAMS ${example_tests}/python/gain_test.py
          DESTINATION ${shared}/${example_tests}/python COMPONENT tools)
  # The units share their hardening. systemd finds units here, below /usr and below /usr/local.
  file(READ operations/hardening.conf hardening)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS operations/hardening.conf)
  foreach(unit gatewayctl-host@.service gatewayctl-sim@.service)
    configure_file(operations/${unit}.in ${PROJECT_BINARY_DIR}/operations/${unit} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/operations/${unit} DESTINATION lib/systemd/system
            COMPONENT tools)
  endforeach()
endif()

# The build runs gatewayctl, which prints its own completions and its manual pages (docs/man).
set(gatewayctl_runs ${GATEWAY_TOOLS})
if(GATEWAY_TOOLS AND CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(gatewayctl_runs OFF)
  message(STATUS "Completions and manual pages of gatewayctl: skipped (this machine can't run it; "
                 "set CMAKE_CROSSCOMPILING_EMULATOR to a program that can)")
endif()
if(gatewayctl_runs)
  set(completions ${PROJECT_BINARY_DIR}/completions)
  file(MAKE_DIRECTORY ${completions})
  # completion(SHELL FILE FOLDER): FOLDER is where the shell looks for completions from packages.
  function(completion shell file folder)
    add_custom_command(
      OUTPUT ${completions}/${file}
      COMMAND gatewayctl completion ${shell} > ${completions}/${file}
      DEPENDS gatewayctl
      COMMENT "Writing the completion of ${shell}"
      VERBATIM)
    install(FILES ${completions}/${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder}
            COMPONENT tools)
  endfunction()
  completion(bash gatewayctl bash-completion/completions)
  completion(fish gatewayctl.fish fish/vendor_completions.d)
  completion(zsh _gatewayctl zsh/vendor-completions)
  add_custom_target(
    completions ALL DEPENDS ${completions}/gatewayctl ${completions}/gatewayctl.fish
                            ${completions}/_gatewayctl)
endif()

# The boundary is only a header, and the same for every processor.
set(cmake_package ${CMAKE_INSTALL_DATADIR}/cmake/sonalith-host)
set(pkg_config ${CMAKE_INSTALL_DATADIR}/pkgconfig)
set(made ${PROJECT_BINARY_DIR}/dev)
install(FILES src/host/sonalith.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sonalith COMPONENT dev)
install(TARGETS sonalith_host EXPORT sonalith-host)
install(EXPORT sonalith-host FILE sonalith-host-config.cmake NAMESPACE sonalith::
        DESTINATION ${cmake_package} COMPONENT dev)
write_basic_package_version_file(${made}/sonalith-host-config-version.cmake ARCH_INDEPENDENT
                                 COMPATIBILITY SameMinorVersion)
# The pkg-config file names the header's folder relative to its own, so that any prefix works.
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_INCLUDEDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
           OUTPUT_VARIABLE includedir)
cmake_path(ABSOLUTE_PATH pkg_config BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" OUTPUT_VARIABLE
           pkg_config_path)
file(RELATIVE_PATH includedir "${pkg_config_path}" "${includedir}")
configure_file(cmake/sonalith-host.pc.in ${made}/sonalith-host.pc @ONLY)
install(FILES ${made}/sonalith-host-config-version.cmake DESTINATION ${cmake_package}
        COMPONENT dev)
install(FILES ${made}/sonalith-host.pc DESTINATION ${pkg_config} COMPONENT dev)

# All in one folder, since schemas, document and examples refer to each other by relative paths.
install(FILES proto/common.proto proto/engine.proto proto/meters.proto
        DESTINATION ${shared}/proto COMPONENT dev)
install(FILES docs/servers.md DESTINATION ${shared}/docs COMPONENT dev)
install(FILES examples/grpc-gateway.conf examples/mixer.conf DESTINATION ${shared}/examples
        COMPONENT dev)
set(servers examples/servers)
install(FILES ${servers}/README.md DESTINATION ${shared}/${servers} COMPONENT dev)
install(FILES ${servers}/cpp/CMakeLists.txt ${servers}/cpp/server.cpp
        DESTINATION ${shared}/${servers}/cpp COMPONENT dev)
install(FILES ${servers}/node/package.json ${servers}/node/package-lock.json
        DESTINATION ${shared}/${servers}/node COMPONENT dev)
install(PROGRAMS ${servers}/node/server.js DESTINATION ${shared}/${servers}/node COMPONENT dev)
install(FILES ${servers}/python/schemas.py DESTINATION ${shared}/${servers}/python COMPONENT dev)
install(PROGRAMS ${servers}/python/server.py DESTINATION ${shared}/${servers}/python COMPONENT dev)
