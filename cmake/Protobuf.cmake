# Provides the target tarnbooster_protobuf (the lite runtime) and TARNBOOSTER_PROTOC (a protoc of the same version).

find_program(TARNBOOSTER_PROTOC protoc REQUIRED DOC "protoc of the machine that builds, same version as the runtime")

add_library(tarnbooster_protobuf INTERFACE)
find_path(PROTOBUF_LITE_INCLUDE_DIR google/protobuf/message_lite.h REQUIRED)
find_library(PROTOBUF_LITE_LIBRARY protobuf-lite REQUIRED)
target_include_directories(tarnbooster_protobuf SYSTEM INTERFACE ${PROTOBUF_LITE_INCLUDE_DIR})
target_link_libraries(tarnbooster_protobuf INTERFACE ${PROTOBUF_LITE_LIBRARY})
