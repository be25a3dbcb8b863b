"""What scripts/bench sends and configures: values in messages of several sizes, with keys of
several shapes.
"""

import random

GROWTH = (64, 128, 256, 512, 1024, 2048)  # values in a message
FILLING = "the.level.of.the.signal.behind.the.fader.of.the.channel.strip."


def base36(number):
    digits = ""
    while True:
        digits = "0123456789abcdefghijklmnopqrstuvwxyz"[number % 36] + digits
        number //= 36
        if number == 0:
            return digits


def plain(i):
    return f"mixer.level.{i}"


KEYS = {
    "plain": plain,
    "short": base36,
    "front": lambda i: f"{FILLING[:55]}{i:05}",
    "end": lambda i: f"{i:05}{FILLING[:55]}",
    "middle": lambda i: f"{FILLING[:28]}{i:05}{FILLING[:27]}",
    "mixed": plain,
    "shuffled": plain,
}
SHAPES = {
    "short": "keys of one to three bytes",
    "front": "60 bytes, a long common beginning",
    "end": "60 bytes, a long common end",
    "middle": "60 bytes, the number in the middle",
    "mixed": "strings, ints, uints and floats in turn",
    "shuffled": "sent in another order than configured",
}


def values_of(shape, count):
    """(type, key) of each value. The first value is the sequence number of the message."""
    types = ("float", "string", "int", "uint") if shape == "mixed" else ("float",)
    others = [(types[i % len(types)], KEYS[shape](i)) for i in range(1, count)]
    return [("float", "sequence"), *others]


def in_sending_order(shape, values):
    if shape != "shuffled":
        return values
    others = values[1:]
    random.Random(1).shuffle(others)
    return [values[0], *others]


def value_lines(values):
    """The file that the servers and bench-parts read."""
    return "".join(f"{kind} {key}\n" for kind, key in values)


def configuration(values, target, slow=False):
    lines = ["[Meters]", f"Target={target}", f"EnableSlowMeters={'true' if slow else 'false'}"]
    for kind in ("string", "int", "uint", "float"):
        lines.append(f"[Meters{kind.capitalize()}]")
        for i, (_, key) in enumerate(value for value in values if value[0] == kind):
            name = key if key == "sequence" else f"{kind}_{i}"
            lines.append(f"Meter=Key={key} CustomKey={name}")
            if slow:
                lines.append(f"Meter=Key={key} CustomKey={name} Type=slow")
    return "\n".join(lines) + "\n"
