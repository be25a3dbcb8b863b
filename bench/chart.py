"""The chart of docs/performance.md, as an SVG with logarithmic axes. It has no background of its
own, and its colours suit light and dark pages.
"""

import math

from measuring import amount

STYLE = """
    text { font: 13px sans-serif; fill: #24292f } .faint { stroke: #8884; stroke-width: 1 }
    polyline { fill: none; stroke-width: 2.5 } .thin { stroke-width: 1.5; stroke-dasharray: 5 4 }
    .a { stroke: #57606a } .b { stroke: #0969da } .c { stroke: #1a7f37 } .d { stroke: #9a6700 }
    .e { stroke: #cf222e }
    @media (prefers-color-scheme: dark) {
      text { fill: #e6edf3 }
      .a { stroke: #9ea7b3 } .b { stroke: #58a6ff } .c { stroke: #3fb950 } .d { stroke: #d29922 }
      .e { stroke: #ff7b72 }
    }"""


class Chart:
    """Lines over sizes: each is (label, class, [(size, seconds)]), with the same sizes."""

    width, height = 720, 440
    left, right, top, bottom = 70, 150, 30, 50

    def __init__(self, lines):
        self.lines = lines
        self.sizes = [size for size, _ in lines[0][2]]
        times = [seconds for _, _, points in lines for _, seconds in points]
        self.low = math.floor(math.log10(min(times)))
        self.high = math.ceil(math.log10(max(times)))

    def x(self, size):
        share = math.log(size / self.sizes[0]) / math.log(self.sizes[-1] / self.sizes[0])
        return self.left + share * (self.width - self.left - self.right)

    def y(self, seconds):
        share = (math.log10(seconds) - self.low) / (self.high - self.low)
        return self.height - self.bottom - share * (self.height - self.top - self.bottom)

    def grid(self):
        for size in self.sizes:
            x = self.x(size)
            yield f'<path class="faint" d="M{x:.1f} {self.top}V{self.height - self.bottom}"/>'
            yield (f'<text x="{x:.1f}" y="{self.height - self.bottom + 18}"'
                   f' text-anchor="middle">{size:,}</text>')
        for power in range(self.low, self.high + 1):
            y = self.y(10**power)
            yield f'<path class="faint" d="M{self.left} {y:.1f}H{self.width - self.right}"/>'
            yield (f'<text x="{self.left - 8}" y="{y + 4:.1f}" text-anchor="end">'
                   f"{amount(10**power * 1.0000001, 's')}</text>")

    def curves(self):
        for _, kind, points in self.lines:
            path = " ".join(f"{self.x(size):.1f},{self.y(time):.1f}" for size, time in points)
            yield f'<polyline class="{kind}" points="{path}"/>'

    def labels(self):
        """At the ends of the lines, from the top down, spaced so that they do not overlap."""
        last = 0
        for label, _, points in sorted(self.lines, key=lambda line: -line[2][-1][1]):
            last = max(self.y(points[-1][1]) + 4, last + 16)
            yield f'<text x="{self.width - self.right + 8}" y="{last:.1f}">{label}</text>'

    def svg(self):
        middle = (self.width - self.right + self.left) / 2
        return "\n".join([
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}"'
            ' role="img">',
            "<title>CPU per message by the number of values</title>",
            f"<style>{STYLE}\n</style>",
            *self.grid(),
            *self.curves(),
            *self.labels(),
            f'<text x="{middle:.0f}" y="{self.height - 8}" text-anchor="middle">values in a'
            " message, all of them configured</text>",
            f'<text x="{self.left}" y="18">CPU per message</text>',
            "</svg>",
        ]) + "\n"
