# Stops if the static protobuf-lite that was found can't become part of a module, which is a shared
# object: a distribution's own often is for programs alone. What is tried has variables of a thread,
# since those show it.

include(CheckCXXSourceCompiles)

# A function, for its own variables.
function(gateway_try_static_protobuf)
  # A program's flags would come behind these.
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
