"""What scripts/bench sends and configures: values in messages of several sizes, with keys of many
families.
"""

import random
import shlex

SIZES = (16, 128, 1024, 4096)  # values in a message


class Families:
    """The families of KeyFamilies.h, and two more with plain keys: values of all four types in
    turn, and values sent in another order than configured. `keys` has the keys of each family."""

    def __init__(self, keys):
        self.keys = {**keys, "plain-types": keys["plain"], "plain-shuffled": keys["plain"]}

    def names(self):
        return list(self.keys)

    def values(self, family, count):
        """(type, key) of each value, in the order of the configuration. The first value is the
        sequence number of the message."""
        types = ("float", "string", "int", "uint") if family == "plain-types" else ("float",)
        keys = self.keys[family][:count - 1]
        others = [(types[i % len(types)], key) for i, key in enumerate(keys, 1)]
        return [("float", "sequence"), *others]

    def sent(self, family, values):
        """The values in the order of the message."""
        if family != "plain-shuffled":
            return values
        return [values[0], *random.Random(1).sample(values[1:], len(values) - 1)]


def value_lines(values):
    """The file that the servers read."""
    return "".join(f"{kind} {key}\n" for kind, key in values)


def configuration(values, target, slow=False):
    lines = ["[Meters]", f"Target={target}", f"EnableSlowMeters={'true' if slow else 'false'}"]
    for kind in ("string", "int", "uint", "float"):
        lines.append(f"[Meters{kind.capitalize()}]")
        for i, (_, key) in enumerate(value for value in values if value[0] == kind):
            name = key if key == "sequence" else f"{kind}_{i}"
            lines.append(f"Meter=Key={shlex.quote(key)} CustomKey={name}")
            if slow:
                lines.append(f"Meter=Key={shlex.quote(key)} CustomKey={name} Type=slow")
    return "\n".join(lines) + "\n"
