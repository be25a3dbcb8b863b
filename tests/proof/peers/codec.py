#!/usr/bin/python3
"""The same as codec.js, with the same input and output, but with the pure Python implementation of
protobuf for Python.
"""

import json
import os
import pathlib
import struct
import sys

repository = pathlib.Path(__file__).resolve().parents[3]
os.environ["PROTOCOL_BUFFERS_PYTHON_IMPLEMENTATION"] = "python"
sys.dont_write_bytecode = True
sys.path.insert(0, str(repository / "examples/servers/python"))
# pylint: disable=wrong-import-position
from google.protobuf import message_factory, symbol_database
from google.protobuf.descriptor import FieldDescriptor
from google.protobuf.internal import api_implementation

import schemas  # importing them registers them with protobuf

assert api_implementation.Type() == "python" and schemas

pool = symbol_database.Default().pool
factory = message_factory.MessageFactory(pool)
formats = {FieldDescriptor.TYPE_FLOAT: ">f", FieldDescriptor.TYPE_DOUBLE: ">d"}


def is_repeated(field):
    return field.label == field.LABEL_REPEATED


def plain_value(field, value):
    if field.message_type:
        return plain(value)
    bits = formats.get(field.type)
    return struct.pack(bits, value).hex() if bits else value


def plain(message):
    values = {}
    for field in message.DESCRIPTOR.fields:
        if field.has_presence and not message.HasField(field.name):
            continue
        value = getattr(message, field.name)
        values[field.name] = (
            [plain_value(field, each) for each in value]
            if is_repeated(field)
            else plain_value(field, value)
        )
    return values


def number_or_text(field, value):
    bits = formats.get(field.type)
    return struct.unpack(bits, bytes.fromhex(value))[0] if bits else value


def filled(message, values):
    for name, value in values.items():
        field = message.DESCRIPTOR.fields_by_name[name]
        if field.message_type and is_repeated(field):
            for each in value:
                filled(getattr(message, name).add(), each)
        elif field.message_type:
            getattr(message, name).SetInParent()
            filled(getattr(message, name), value)
        elif is_repeated(field):
            getattr(message, name).extend(number_or_text(field, each) for each in value)
        else:
            setattr(message, name, number_or_text(field, value))
    return message


operations = {
    "read": lambda kind, text: plain(kind.FromString(bytes.fromhex(text))),
    "write": lambda kind, values: filled(kind(), values).SerializeToString().hex(),
}


def attempt(operation, kind, item):
    try:
        return operations[operation](kind, item)
    except Exception as error:  # any error of the library is an answer
        return {"error": str(error)}


for line in sys.stdin:
    operation, name, items = json.loads(line)
    kind = factory.GetPrototype(pool.FindMessageTypeByName(name))
    print(json.dumps([attempt(operation, kind, item) for item in items]), flush=True)
