#!/usr/bin/python3
"""The services of examples/servers/python, which send only what commands tell them to. The commands
and events are those of `gatewayctl sim --commands`, as far as tests of flows need them. The
example's libraries read and write the messages; hexadecimal is only used in commands and events.
"""

import os
import pathlib
import queue
import sys
import threading

import grpc

repository = pathlib.Path(__file__).resolve().parents[3]
sys.dont_write_bytecode = True
sys.path.insert(0, str(repository / "examples/servers/python"))
# pylint: disable=wrong-import-position
from schemas import engine_pb2, engine_pb2_grpc, meters_pb2, meters_pb2_grpc
from server import command_line, serve

lock = threading.RLock()  # of the counts, the open streams and the output


def say(line):
    with lock:
        sys.stdout.write(line + "\n")
        sys.stdout.flush()


def message_of(kind, text):
    return kind.FromString(b"" if text == "-" else bytes.fromhex(text))


def deadline(context):
    # A call without a deadline gets one that is centuries away.
    year = 365 * 86400
    return "set" if context.time_remaining() < year else "none"


# ---- Streams -------------------------------------------------------------------------------------


class Stream:
    counts = {"fast": 0, "slow": 0}
    open = []

    def __init__(self, name, context):
        self.name = name
        self.context = context
        self.tasks = queue.Queue()
        self.is_over = False
        self.end = "cancelled"
        with lock:
            Stream.counts[name] += 1
            self.title = f"{name} {Stream.counts[name]}"
            Stream.open.append(self)
            say(f"open {self.title} - deadline={deadline(context)}")
        context.add_callback(self.close)

    def close(self):
        with lock:
            self.is_over = True
            Stream.open.remove(self)
            say(f"closed {self.title} {self.end}")
        self.tasks.put(lambda: ())

    def write(self, message, times):
        count = 0
        while not self.is_over and (self.tasks.empty() if times == 0 else count < times):
            count += 1
            yield message
        say(f"sent {self.title} {count}")

    def finish(self, code):
        self.end = "ended"
        if code is not grpc.StatusCode.OK:
            self.context.abort(code, "as told")
        self.is_over = True
        return ()

    def messages(self):
        while not self.is_over:
            yield from self.tasks.get()()

    @staticmethod
    def newest(name):
        with lock:
            return [stream for stream in Stream.open if stream.name == name][-1]


class Meters(meters_pb2_grpc.MetersServicer):
    def GetMetersFast(self, request, context):
        return Stream("fast", context).messages()

    def GetMetersSlow(self, request, context):
        return Stream("slow", context).messages()


# ---- The engine ----------------------------------------------------------------------------------


class Engine(engine_pb2_grpc.EngineServicer):
    def __init__(self):
        self.count = 0
        self.code = grpc.StatusCode.OK
        self.response = engine_pb2.ResponseSetParams()
        self.answering = threading.Event()
        self.answering.set()

    def SetParams(self, request, context):
        with lock:
            self.count += 1
            number = self.count
            text = request.SerializeToString().hex() or "-"
            say(f"SetParams {number} {text} deadline={deadline(context)}")
        self.answering.wait()
        context.add_callback(lambda: say(f"closed SetParams {number} replied"))
        if self.code is not grpc.StatusCode.OK:
            context.abort(self.code, "as told")
        return self.response

    def reply(self, text):
        self.response = message_of(engine_pb2.ResponseSetParams, text)
        self.code = grpc.StatusCode.OK
        self.answering.set()

    def fail(self, code):
        self.code = grpc.StatusCode[code]
        self.answering.set()

    def hold(self):
        self.answering.clear()

    def release(self):
        self.answering.set()


# ---- Commands ------------------------------------------------------------------------------------


def send(name, message, times="1"):
    stream = Stream.newest(name)
    meter = message_of(meters_pb2.Meter, message)
    stream.tasks.put(lambda: stream.write(meter, int(times)))


def end(name, code):
    stream = Stream.newest(name)
    stream.tasks.put(lambda: stream.finish(grpc.StatusCode[code]))


def main():
    line = command_line()
    line.add_argument("--compression", choices=["NoCompression", "Deflate", "Gzip"])
    arguments = line.parse_args()
    options = []
    if arguments.compression:
        algorithm = grpc.Compression[arguments.compression]
        options.append(("grpc.default_compression_algorithm", algorithm))
    engine = Engine()
    commands = {
        "send": send,
        "end": end,
        "engine": lambda what, *words: getattr(engine, what)(*words),
        "sync": lambda word: say(f"sync {word}"),
    }
    # A server stops accepting calls when nothing refers to it any more.
    server = serve(arguments, Meters(), engine, options)
    for command in sys.stdin:
        name, *words = command.split()
        commands[name](*words)
    server.stop(grace=None)
    # The threads of held calls would never end.
    os._exit(0)


if __name__ == "__main__":
    main()
