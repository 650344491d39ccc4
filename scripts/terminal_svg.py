"""Turns the output of a terminal, with its times, into an animated SVG that needs no font and no script.

A line that changes is drawn once for each of its states. CSS shows one state at a time; who wants no motion, or has no
CSS animation, sees the last. The colours follow the reader's choice of light or dark.
"""

import re
from xml.sax.saxutils import escape

CHARACTER, LINE, MARGIN = 8.4, 20, 18  # in pixels
HOLD = 6.0  # seconds that the end stays
CONTROL = re.compile(r"\x1b\[([0-9;?]*)([A-Za-z])|\x1b.|[\r\n\b]|[^\x1b\r\n\b]+", re.DOTALL)
COLOURS = {31: "red", 32: "green", 33: "yellow", 34: "blue", 35: "purple", 36: "cyan"}
STYLE = """\
.back { fill: #f6f8fa; stroke: #d1d9e0 }
text { font: 14px ui-monospace, SFMono-Regular, Menlo, Consolas, "Liberation Mono", monospace; fill: #1f2328 }
.bold { font-weight: 700 } .dim { fill: #59636e } .red { fill: #c21f2c } .green { fill: #11692b }
.yellow { fill: #7d4e00 } .blue { fill: #0757ba } .purple { fill: #7a3fc9 } .cyan { fill: #0b6573 }
@media (prefers-color-scheme: dark) {
  .back { fill: #0d1117; stroke: #3d444d }
  text { fill: #f0f6fc }
  .dim { fill: #9198a1 } .red { fill: #ff7b72 } .green { fill: #56d364 } .yellow { fill: #e3b341 }
  .blue { fill: #79c0ff } .purple { fill: #d2a8ff } .cyan { fill: #76e3ea }
}
.past { visibility: hidden }
@media (prefers-reduced-motion: reduce) { g { animation: none !important } }
"""


class Screen:
    """As much of a terminal as our programs use: lines that wrap, carriage returns, colours, erasing a line's end."""

    def __init__(self, columns):
        self.columns, self.lines, self.row, self.column, self.style = columns, [[]], 0, 0, ""

    def write(self, text):
        for match in CONTROL.finditer(text):
            part, (parameters, final) = match[0], match.groups()
            if final == "m":
                self._choose_style(parameters)
            elif final == "K":
                del self.lines[self.row][self.column :]
            elif part == "\r":
                self.column = 0
            elif part == "\b":
                self.column = max(self.column - 1, 0)
            elif part == "\n":
                self._next_line()
            elif not part.startswith("\x1b"):
                for character in part:
                    self._put(character)

    def _choose_style(self, parameters):
        words = self.style.split()
        for number in map(int, parameters.split(";") if parameters else ["0"]):
            if number == 0:
                words = []
            elif number in (1, 2):
                words.append({1: "bold", 2: "dim"}[number])
            elif number in (22, 39):
                words = [word for word in words if (word in ("bold", "dim")) != (number == 22)]
            elif number in COLOURS:
                words = [word for word in words if word in ("bold", "dim")] + [COLOURS[number]]
        self.style = " ".join(words)

    def _next_line(self):
        self.row += 1
        if self.row == len(self.lines):
            self.lines.append([])

    def _put(self, character):
        if self.column == self.columns:
            self._next_line()
            self.column = 0
        line = self.lines[self.row]
        line.extend([(" ", "")] * (self.column + 1 - len(line)))
        line[self.column] = (character, self.style)
        self.column += 1

    def rows(self):
        """Each line as runs of one style: (column, text, style), without the blanks at its end."""
        return [tuple(self._runs(line)) for line in self.lines]

    @staticmethod
    def _runs(line):
        while line and line[-1][0] == " ":
            line = line[:-1]
        begin = 0
        for end in range(1, len(line) + 1):
            if end == len(line) or line[end][1] != line[begin][1]:
                yield begin, "".join(character for character, _ in line[begin:end]), line[begin][1]
                begin = end


def states(events, columns):
    """The states of each line, as (row, runs, first moment, last moment or None); `events` are (moment, text)."""
    screen, shown, done = Screen(columns), {}, []
    for moment, text in events:
        screen.write(text)
        for row, runs in enumerate(screen.rows()):
            since, before = shown.get(row, (moment, ()))
            if runs != before:
                if before and moment > since:
                    done.append((row, before, since, moment))
                shown[row] = (moment, runs)
    done.extend((row, runs, since, None) for row, (since, runs) in shown.items() if runs)
    return sorted(done, key=lambda state: (state[0], state[2]))


def draw_line(row, runs):
    for column, text, style in runs:
        classes = f' class="{style}"' if style else ""
        yield (
            f'<text x="{MARGIN + column * CHARACTER:.1f}" y="{MARGIN + row * LINE + 15}"{classes} '
            f'textLength="{len(text) * CHARACTER:.1f}" xml:space="preserve">{escape(text)}</text>'
        )


def draw(events, columns, description):
    """The SVG as text."""
    found = states(events, columns)
    length = events[-1][0] + HOLD
    width, height = 2 * MARGIN + columns * CHARACTER, 2 * MARGIN + (max(row for row, *_ in found) + 1) * LINE
    rules, body = [], []
    for number, (row, runs, since, until) in enumerate(found):
        begin = f"{100 * since / length:.2f}%{{visibility:visible}}"
        end = "" if until is None else f"{100 * until / length:.2f}%{{visibility:hidden}}"
        rules.append(f"@keyframes s{number}{{0%{{visibility:hidden}}{begin}{end}}}")
        past = "" if until is None else ' class="past"'
        body.append(f'<g{past} style="animation:s{number} {length:.1f}s step-end infinite">')
        body.extend([*draw_line(row, runs), "</g>"])
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" width="{width:.0f}" '
            f'height="{height}" role="img">',
            f"<title>{escape(description)}</title>",
            f"<style>\n{STYLE}" + "\n".join(rules) + "\n</style>",
            f'<rect class="back" x="0.5" y="0.5" width="{width - 1:.0f}" height="{height - 1}" rx="8"/>',
            *body,
            "</svg>\n",
        ]
    )
