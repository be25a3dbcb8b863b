# Stops if the static protobuf-lite that was found can't be linked into a shared object such as the
# module: a distribution's library is often built for programs only. The trial uses thread-local
# variables, since those reveal the difference.

include(CheckCXXSourceCompiles)

# A function, so that its variables are local.
function(gateway_try_static_protobuf)
  # If this is set, CMake adds the flags for a program after those below.
  unset(CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_REQUIRED_FLAGS -fPIC)
  set(CMAKE_REQUIRED_LINK_OPTIONS -shared)
  set(CMAKE_REQUIRED_LIBRARIES protobuf::libprotobuf-lite)
  check_cxx_source_compiles(
    "#include <google/protobuf/arena.h>
    void* used() {
      static google::protobuf::Arena arena;
      return google::protobuf::Arena::CreateArray<char>(&arena, 1);
    }"
    GATEWAY_STATIC_PROTOBUF_FITS)
endfunction()

gateway_try_static_protobuf()
if(NOT GATEWAY_STATIC_PROTOBUF_FITS)
  message(
    FATAL_ERROR
      "Protobuf_USE_STATIC_LIBS is on, but ${Protobuf_LITE_LIBRARY} can't be linked into a shared "
      "object. Name one that is position-independent by -DProtobuf_LITE_LIBRARY=FILE, or turn "
      "Protobuf_USE_STATIC_LIBS off.")
endif()
