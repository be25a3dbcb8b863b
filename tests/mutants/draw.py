"""Which mutants are tried."""

import random
import threading

FEWEST = 6  # of each file that has that many


def shares(possible, count):
    """How many mutants to draw of each file: in proportion to its possible ones, but at least a
    few of each."""
    total = sum(map(len, possible.values()))
    return {file: max(-(-count * len(mutants) // total), FEWEST) if mutants else 0
            for file, mutants in possible.items()}


class Draw:
    """Hands out the mutants of each file in an order given by the seed, until the wanted number of
    them compile. Which mutants those are depends only on the seed, and not on which thread is
    faster."""

    def __init__(self, possible, seed, wanted):
        self.lock = threading.Condition()
        self.order = {}
        self.left = dict(wanted)
        for file, mutants in possible.items():
            order = list(mutants)
            random.Random(f"{seed} {file}").shuffle(order)
            self.order[file] = order
        self.under_way = 0

    def take(self):
        """Returns the next mutant, or None when there is none left."""
        with self.lock:
            while True:
                for file, order in self.order.items():
                    if order and self.left[file] > 0:
                        self.left[file] -= 1
                        self.under_way += 1
                        return order.pop(0)
                if self.under_way == 0:
                    return None
                self.lock.wait()  # one under way may not compile, and then another is wanted

    def done(self, mutant, counts):
        with self.lock:
            self.under_way -= 1
            self.left[mutant.file] += 0 if counts else 1
            self.lock.notify_all()
