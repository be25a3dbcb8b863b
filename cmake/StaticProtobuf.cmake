# Stops if the static protobuf-lite that was found can't become part of a module, which is a shared
# object: a distribution's own often is for programs alone. Linked is what has variables of a thread.

include(CheckCXXSourceCompiles)

set(CMAKE_REQUIRED_LIBRARIES protobuf::libprotobuf-lite)
set(CMAKE_REQUIRED_FLAGS -fPIC)
set(CMAKE_REQUIRED_LINK_OPTIONS -shared)
check_cxx_source_compiles(
  "#include <google/protobuf/arena.h>
void* used() { static google::protobuf::Arena arena; return arena.CreateArray<char>(&arena, 1); }"
  GATEWAY_STATIC_PROTOBUF_FITS)
unset(CMAKE_REQUIRED_LIBRARIES)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
if(NOT GATEWAY_STATIC_PROTOBUF_FITS)
  message(
    FATAL_ERROR
      "Protobuf_USE_STATIC_LIBS is on, but ${Protobuf_LITE_LIBRARY} can't be linked into a shared "
      "object. Name one that is position-independent by -DProtobuf_LITE_LIBRARY=FILE, or turn "
      "Protobuf_USE_STATIC_LIBS off.")
endif()
