# Included by the copies of the tree in which mutants are built. Most mutants recompile a file or
# two of the module, and most of that time goes into headers that no mutant changes.

function(precompile_for_mutants)
  target_precompile_headers(
    gateway_client
    PRIVATE
    <engine.grpc.pb.h>
    <functional>
    <grpcpp/alarm.h>
    <grpcpp/create_channel.h>
    <grpcpp/security/credentials.h>
    <meters.grpc.pb.h>
    <thread>
    <vector>)
  target_precompile_headers(grpc-gateway REUSE_FROM gateway_client)
endfunction()

cmake_language(DEFER CALL precompile_for_mutants)
