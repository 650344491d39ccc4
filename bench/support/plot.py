"""A plot of a few lines as SVG: upwards over a logarithmic axis, across over one too or over the hours of a day."""

import math

_WIDTH, _HEIGHT = 640, 400
_LEFT, _RIGHT, _TOP, _BOTTOM = 70, 20, 40, 55
_MOST_MARKS = 20
_COLOURS = ("#0b62a4", "#c2410c", "#15803d", "#7e22ce")


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


def _text(left, top, words, anchor="middle", colour="#333"):
    return f'<text x="{left}" y="{top}" text-anchor="{anchor}" fill="{colour}">{words}</text>'


def _line(points, colour, width):
    path = " ".join(f"{left},{top}" for left, top in points)
    return f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="{width}"/>'


def svg(title, x_label, series, across=_Axis):
    """The document; `series` are names of lines (with their unit) and their points, all greater than 0."""
    across = across([x for points in series.values() for x, _ in points], _LEFT, _WIDTH - _RIGHT)
    up = _Axis([y for points in series.values() for _, y in points], _HEIGHT - _BOTTOM, _TOP)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH} {_HEIGHT}" font-family="sans-serif" '
        f'font-size="12"><rect width="{_WIDTH}" height="{_HEIGHT}" fill="white"/>',
        _text(_WIDTH / 2, 18, title),
        _text(_WIDTH / 2, _HEIGHT - 12, x_label),
    ]
    for tick in across.ticks():
        parts.append(_line([(across.at(tick), up.first), (across.at(tick), up.last)], "#ddd", 1))
        parts.append(_text(across.at(tick), up.first + 18, _label(tick)))
    for tick in up.ticks():
        parts.append(_line([(across.first, up.at(tick)), (across.last, up.at(tick))], "#ddd", 1))
        parts.append(_text(across.first - 8, up.at(tick) + 4, _label(tick), "end"))
    for number, (name, points) in enumerate(series.items()):
        colour = _COLOURS[number]
        places = [(across.at(x), up.at(y)) for x, y in points]
        parts.append(_line(places, colour, 2))
        if len(places) <= _MOST_MARKS:
            parts += [f'<circle cx="{left}" cy="{top}" r="3" fill="{colour}"/>' for left, top in places]
        parts.append(_text(_LEFT + 10, _TOP + 16 + 16 * number, name, "start", colour))
    return "\n".join([*parts, "</svg>"]) + "\n"
