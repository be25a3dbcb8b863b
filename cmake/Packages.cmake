# Debian packages of what cmake/Install.cmake installs, one for each component. `cpack` in the build
# folder makes them; `scripts/package` also builds first and checks the packages.
#
# They need the prefix /usr, as in the preset `release`. Other builds can't make packages.

set(GATEWAY_MAINTAINER "grpc-gateway maintainers <maintainers@grpc-gateway.example>"
    CACHE STRING "Maintainer of the packages: name and mail address")
set(GATEWAY_HOMEPAGE "" CACHE STRING "Home page named in the packages, or empty")
set(GATEWAY_COPYRIGHT "the developers of grpc-gateway" CACHE STRING "Copyright holder")
set(GATEWAY_LICENSE_FILE "" CACHE FILEPATH "Terms for the packages' copyright file, or empty")

if(NOT GATEWAY_INSTALL OR NOT GATEWAY_TOOLS OR NOT CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sonalith-grpc-gateway)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${GATEWAY_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${GATEWAY_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${GATEWAY_HOMEPAGE})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CHECKSUM SHA256)
# /etc is not below /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Each package has its own synopsis, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL module tools dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(packages ${PROJECT_SOURCE_DIR}/cmake/packages)
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME sonalith-grpc-gateway)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_MODULE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MODULE_PACKAGE_SUGGESTS sonalith-grpc-gateway-tools)
set(CPACK_DEBIAN_MODULE_PACKAGE_CONTROL_EXTRA ${packages}/module/conffiles)
set(CPACK_DEBIAN_MODULE_DESCRIPTION
    "module that bridges the sonalith engine and two gRPC services
The module receives meter values from a gRPC server and shows them to
the engine as typed slots, and it forwards parameter changes of the
engine to a remote service as SetParams calls. One INI file says what is
carried; a sample of it is /etc/sonalith/grpc-gateway.conf.example.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME sonalith-grpc-gateway-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "sonalith-grpc-gateway (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS prometheus)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "check, demonstrate and simulate the gRPC gateway of the sonalith engine
The program gatewayctl tells whether the module takes a configuration and
what it will do, runs the module without the engine and with a live page,
plays the services at the other end, and writes a configuration from what
a meter server sends. It includes completions for bash, zsh and fish,
systemd units, which are disabled by default, and alert rules and a
dashboard for monitoring.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME sonalith-grpc-gateway-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS
    "sonalith-grpc-gateway-tools, protobuf-compiler, protobuf-compiler-grpc, libgrpc++-dev, \
libprotobuf-dev, python3-grpcio, python3-protobuf, nodejs")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "development files for hosts, modules and services of the gRPC gateway
This package has the header of the boundary between the sonalith engine
and its modules, with a CMake package and a pkg-config file, the schema
files of the two gRPC services, and example servers in C++, Python and
JavaScript with a document of what the gateway expects of them.")

# This script adds what a package needs beyond the installed files.
set(CPACK_PRE_BUILD_SCRIPTS ${packages}/finish.cmake)
set(CPACK_GATEWAY_FILES ${packages})
set(CPACK_GATEWAY_STRIP ${CMAKE_STRIP})
set(CPACK_GATEWAY_BINARIES usr/bin/gatewayctl)
cmake_path(ABSOLUTE_PATH GATEWAY_MODULE_DIR BASE_DIRECTORY /usr OUTPUT_VARIABLE module_dir)
list(APPEND CPACK_GATEWAY_BINARIES .${module_dir}/grpc-gateway.so)
set(CPACK_GATEWAY_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
set(CPACK_GATEWAY_COPYRIGHT ${GATEWAY_COPYRIGHT})
set(CPACK_GATEWAY_LICENSE_FILE ${GATEWAY_LICENSE_FILE})
include(CPack)
