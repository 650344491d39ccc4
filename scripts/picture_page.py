#!/usr/bin/python3
"""Takes the pictures of the page in docs/: page-light.png, page-dark.png and page-narrow.png.

The page is that of the build in build/dev, on an appliance of the tests that is called "nas".
"""

import json
import pathlib
import struct
import sys
import tempfile
import zlib

SOURCE = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(SOURCE / "tests/browser"), str(SOURCE / "tests/support")]
from appliance import Appliance  # noqa: E402
from browser import await_that, open_browser, resize  # noqa: E402
from page_states import STATES, TOTAL, PageStates, Web  # noqa: E402

# Runs a command on a machine of this name.
NAMED = ("unshare", "--user", "--map-root-user", "--uts", "sh", "-c", 'hostname nas && exec "$@"', "sh")

COLORS = 256


def chunks(png):
    """The parts of a PNG, each as its kind and its content."""
    at = 8
    while at < len(png):
        (length,) = struct.unpack(">I", png[at : at + 4])
        yield png[at + 4 : at + 8], png[at + 8 : at + 8 + length]
        at += 12 + length


def paeth(left, above, corner):
    guess = left + above - corner
    return min((left, above, corner), key=lambda each: abs(guess - each))


def pixels(png):
    """The rows of a PNG of 8 bits a channel without interlacing, and the channels of a pixel."""
    parts = dict(chunks(png))
    width, height, depth, kind, *_, interlaced = struct.unpack(">IIBBBBB", parts[b"IHDR"])
    assert depth == 8 and kind in (2, 6) and not interlaced
    size = 3 if kind == 2 else 4
    data = zlib.decompress(b"".join(content for name, content in chunks(png) if name == b"IDAT"))
    above = bytearray(width * size)
    for row in range(height):
        begin = row * (width * size + 1)
        method, line = data[begin], bytearray(data[begin + 1 : begin + 1 + width * size])
        for at in range(len(line)):
            left, corner = (line[at - size], above[at - size]) if at >= size else (0, 0)
            guess = (0, left, above[at], (left + above[at]) // 2, paeth(left, above[at], corner))[method]
            line[at] = (line[at] + guess) & 255
        yield [bytes(line[at : at + 3]) for at in range(0, len(line), size)]
        above = line


def smaller(png):
    """The same picture with its most frequent 256 colors; every other color becomes the nearest of them."""
    rows = list(pixels(png))
    counts = {}
    for row in rows:
        for color in row:
            counts[color] = counts.get(color, 0) + 1
    palette = sorted(counts, key=counts.get, reverse=True)[:COLORS]

    def distance(one, other):
        return sum((a - b) ** 2 for a, b in zip(one, other))

    index = {color: min(range(len(palette)), key=lambda at: distance(palette[at], color)) for color in counts}
    lines = b"".join(b"\0" + bytes(index[color] for color in row) for row in rows)
    header = struct.pack(">IIBBBBB", len(rows[0]), len(rows), 8, 3, 0, 0, 0)
    made = b"\x89PNG\r\n\x1a\n"
    for kind, content in (
        (b"IHDR", header),
        (b"PLTE", b"".join(palette)),
        (b"IDAT", zlib.compress(lines, 9)),
        (b"IEND", b""),
    ):
        made += struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))
    return made


def let_it_load(states):
    """Two seconds of a download, so that its rate is known."""
    record = STATES["downloading"][0]
    for percent in (38, 43):
        states.appliance.write_status(json.dumps(record | {"download_size_now": str(TOTAL * percent // 100)}))
        yield percent


def main():
    with tempfile.TemporaryDirectory() as folder:
        appliance = Appliance.lay_out(folder, SOURCE / "build/dev")
        for name, state, scheme, width, height in (
            ("light", "offered", "light", 1000, 620),
            ("dark", "downloading", "dark", 1000, 620),
            ("narrow", "failed", "light", 360, 760),
        ):
            with PageStates(appliance) as states, open_browser(color_scheme=scheme) as browser:
                states.enter(state)
                web = Web(appliance, wrapper=NAMED)
                try:
                    browser.get(web.link)
                    await_that(browser, "return document.getElementById('lines').dataset.shown")
                    for percent in let_it_load(states) if state == "downloading" else ():
                        await_that(browser, f"return document.title.startsWith('{percent} %')")
                        browser.execute_async_script("setTimeout(arguments[0], 2000)")
                    browser.execute_cdp_cmd("Emulation.setScrollbarsHidden", {"hidden": True})
                    resize(browser, width, height)
                    picture = SOURCE / f"docs/page-{name}.png"
                    picture.write_bytes(smaller(browser.get_screenshot_as_png()))
                    print(f"{picture.relative_to(SOURCE)}: {picture.stat().st_size} bytes")
                finally:
                    web.stop()


if __name__ == "__main__":
    main()
