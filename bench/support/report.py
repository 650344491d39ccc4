"""Figures as tables in Markdown and as JSON."""

import json
import statistics


def median(values):
    return statistics.median(list(values))


def table(head, rows):
    """A Markdown table; the first column is text, the others are figures."""
    lines = ["| " + " | ".join(head) + " |", "| --- |" + " ---: |" * (len(head) - 1)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def megabytes(size):
    return f"{size / 1e6:.1f}"


def mebibytes(size):
    return f"{size / (1 << 20):.2f}"


def milliseconds(seconds):
    return f"{seconds * 1000:.1f}" if seconds < 0.1 else f"{seconds * 1000:.0f}"


def write_json(path, figures):
    if path:
        path.write_text(json.dumps(figures, indent=2) + "\n")


def replace_section(page, name, text):
    """Puts the text between the page's marks for this section."""
    begin, end = f"<!-- {name}: begin -->\n", f"<!-- {name}: end -->"
    head, rest = page.read_text().split(begin)
    page.write_text(head + begin + text + end + rest.split(end, 1)[1])
