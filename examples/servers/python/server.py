#!/usr/bin/python3
"""A meter server and an engine service for the gateway: plays the meters of
examples/grpc-gateway.conf until it is stopped, and prints the parameters that it receives.

    examples/servers/python/server.py --meters 127.0.0.1:50005 --engine 127.0.0.1:50006
"""

import argparse
import concurrent.futures
import math
import signal
import threading
import time

import grpc

from schemas import engine_pb2, engine_pb2_grpc, meters_pb2, meters_pb2_grpc


def serve(addresses, meters, engine, options=()):
    """Serves both services at both addresses, and prints them. Port 0 takes any free port."""
    # An open stream occupies one of the threads.
    threads = concurrent.futures.ThreadPoolExecutor(max_workers=64)
    shared = [
        # Otherwise a second server could silently share the port with a first one.
        ("grpc.so_reuseport", 0),
        # By default, gRPC disconnects clients that ping a quiet connection again and again.
        ("grpc.keepalive_permit_without_calls", 1),
        ("grpc.http2.min_ping_interval_without_data_ms", 0),
    ]
    server = grpc.server(threads, options=[*shared, *options])
    meters_pb2_grpc.add_MetersServicer_to_server(meters, server)
    engine_pb2_grpc.add_EngineServicer_to_server(engine, server)
    bound = {}
    for service in ("meters", "engine"):
        address = getattr(addresses, service)
        port = server.add_insecure_port(address)
        if port == 0:
            raise SystemExit(f"can't listen on {address}")
        bound[service] = f"{address[:-1]}{port}" if address.endswith(":0") else address
    server.start()
    for service, address in bound.items():
        print(service, address, flush=True)
    return server


def command_line():
    parser = argparse.ArgumentParser()
    parser.add_argument("--meters", default="127.0.0.1:50005")
    parser.add_argument("--engine", default="127.0.0.1:50006")
    return parser


# ---- The services -------------------------------------------------------------------------------


def fast_values(seconds):
    return {
        "out.level": {"sfloat": -30 + 30 * math.sin(seconds)},
        "in.level": {"sfloat": -30 + 30 * math.sin(2 * seconds)},
        "frames": {"suint": round(seconds * 48000) % 2**32},
    }


def slow_values(seconds):
    return {
        "queue.length": {"sint": round(seconds) % 10},
        "dsp state": {"sstring": {"data": "running"}},
    }


def play(period, values_at, context):
    """Yields all values at once and then every `period` seconds, until the client has gone."""
    over = threading.Event()
    context.add_callback(over.set)
    while not over.is_set():
        values = values_at(time.monotonic()).items()
        yield meters_pb2.Meter(values=[{"key": key, "value": value} for key, value in values])
        over.wait(period)


class Meters(meters_pb2_grpc.MetersServicer):
    def GetMetersFast(self, request, context):
        return play(0.05, fast_values, context)

    def GetMetersSlow(self, request, context):
        return play(1, slow_values, context)


class Engine(engine_pb2_grpc.EngineServicer):
    def SetParams(self, request, context):
        for param in request.params:
            member = param.value.WhichOneof("value")
            value = getattr(param.value, member) if member else None
            print("SetParams", param.key, member, value, flush=True)
        return engine_pb2.ResponseSetParams()


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # Ctrl-C ends it without a traceback
    serve(command_line().parse_args(), Meters(), Engine()).wait_for_termination()
