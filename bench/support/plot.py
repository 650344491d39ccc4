"""A plot of a few lines as SVG: upwards over a logarithmic axis, across over one too or over the hours of a day. Its
colours follow the reader's light or dark scheme."""

import math

_WIDTH, _HEIGHT = 640, 400
_LEFT, _RIGHT, _TOP, _BOTTOM = 70, 20, 40, 55
_MOST_MARKS = 20
# Of the lines, on a light and on a dark page.
_COLOURS = (("#0b62a4", "#79c0ff"), ("#c2410c", "#ffa657"), ("#15803d", "#7ee787"), ("#7e22ce", "#d2a8ff"))
_STYLE = """<style>
:root {{ color-scheme: light dark; --page: #ffffff; --text: #1f2328; --grid: #d1d9e0; {light} }}
@media (prefers-color-scheme: dark) {{ :root {{ --page: #0d1117; --text: #e6edf3; --grid: #30363d; {dark} }} }}
text {{ fill: var(--text); }} .page {{ fill: var(--page); }} .grid {{ stroke: var(--grid); }}
{lines}
</style>"""


class _Axis:
    """Powers of ten from below the least value to above the greatest, laid onto pixels."""

    def __init__(self, values, first, last):
        self.low = math.floor(math.log10(min(values)))
        self.high = max(math.ceil(math.log10(max(values))), self.low + 1)
        self.first, self.last = first, last

    def at(self, value):
        share = (math.log10(value) - self.low) / (self.high - self.low)
        return round(self.first + share * (self.last - self.first), 1)

    def ticks(self):
        return [10.0**power for power in range(self.low, self.high + 1)]


class Hours:
    """The hours of a day, laid onto pixels."""

    def __init__(self, _values, first, last):
        self.first, self.last = first, last

    def at(self, value):
        return round(self.first + value / 24 * (self.last - self.first), 1)

    def ticks(self):
        return range(0, 25, 3)


def _label(value):
    return f"{value:,.0f}" if value >= 1 or value == 0 else f"{value:g}"


def _style():
    numbers = range(len(_COLOURS))
    light, dark = (" ".join(f"--line{n}: {_COLOURS[n][scheme]};" for n in numbers) for scheme in (0, 1))
    lines = "\n".join(
        f".line{n} {{ stroke: var(--line{n}); }} .mark{n} {{ fill: var(--line{n}); stroke: none; }}" for n in numbers
    )
    return _STYLE.format(light=light, dark=dark, lines=lines)


def _text(left, top, words, anchor="middle", kind=""):
    named = f' class="{kind}"' if kind else ""
    return f'<text x="{left}" y="{top}" text-anchor="{anchor}"{named}>{words}</text>'


def _line(points, kind, width):
    path = " ".join(f"{left},{top}" for left, top in points)
    return f'<polyline class="{kind}" points="{path}" fill="none" stroke-width="{width}"/>'


def svg(title, x_label, series, across=_Axis):
    """The document; `series` are names of lines (with their unit) and their points, all greater than 0."""
    across = across([x for points in series.values() for x, _ in points], _LEFT, _WIDTH - _RIGHT)
    up = _Axis([y for points in series.values() for _, y in points], _HEIGHT - _BOTTOM, _TOP)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH} {_HEIGHT}" font-family="sans-serif" '
        f'font-size="12">{_style()}<rect class="page" width="{_WIDTH}" height="{_HEIGHT}"/>',
        _text(_WIDTH / 2, 18, title),
        _text(_WIDTH / 2, _HEIGHT - 12, x_label),
    ]
    for tick in across.ticks():
        parts.append(_line([(across.at(tick), up.first), (across.at(tick), up.last)], "grid", 1))
        parts.append(_text(across.at(tick), up.first + 18, _label(tick)))
    for tick in up.ticks():
        parts.append(_line([(across.first, up.at(tick)), (across.last, up.at(tick))], "grid", 1))
        parts.append(_text(across.first - 8, up.at(tick) + 4, _label(tick), "end"))
    for number, (name, points) in enumerate(series.items()):
        mark = f"mark{number}"
        places = [(across.at(x), up.at(y)) for x, y in points]
        parts.append(_line(places, f"line{number}", 2))
        if len(places) <= _MOST_MARKS:
            parts += [f'<circle class="{mark}" cx="{left}" cy="{top}" r="3"/>' for left, top in places]
        parts.append(_text(_LEFT + 10, _TOP + 16 + 16 * number, name, "start", mark))
    return "\n".join([*parts, "</svg>"]) + "\n"
