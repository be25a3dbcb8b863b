"""The modules that protoc generates from the schemas. Each start generates them anew.

Needs Debian's python3-grpcio, python3-protobuf, protobuf-compiler and protobuf-compiler-grpc.
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile

_schemas = pathlib.Path(__file__).resolve().parents[3] / "proto"

with tempfile.TemporaryDirectory() as _folder:
    subprocess.run(
        [
            "protoc",
            f"-I{_schemas}",
            f"--python_out={_folder}",
            f"--grpc_python_out={_folder}",
            f"--plugin=protoc-gen-grpc_python={shutil.which('grpc_python_plugin')}",
            *("common.proto", "meters.proto", "engine.proto"),
        ],
        check=True,
    )
    sys.path.insert(0, _folder)
    import engine_pb2
    import engine_pb2_grpc
    import meters_pb2
    import meters_pb2_grpc

    sys.path.remove(_folder)

__all__ = ["engine_pb2", "engine_pb2_grpc", "meters_pb2", "meters_pb2_grpc"]
