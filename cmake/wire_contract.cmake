# wire_contract: the messages that the public contract generates. The codec, the client and the tests each link it.
set(generated ${PROJECT_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${generated})
add_custom_command(
  OUTPUT ${generated}/access.pb.cc ${generated}/access.pb.h
  COMMAND ${PROTOC} --proto_path=${PROJECT_SOURCE_DIR}/proto --cpp_out=lite:${generated} access.proto
  DEPENDS ${PROJECT_SOURCE_DIR}/proto/access.proto
  VERBATIM)

add_library(wire_contract STATIC ${generated}/access.pb.cc)
target_include_directories(wire_contract SYSTEM INTERFACE ${generated})
target_link_libraries(wire_contract PUBLIC PkgConfig::protobuf_lite)
