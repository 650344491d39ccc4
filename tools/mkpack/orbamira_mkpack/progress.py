"""Shows how far long work is."""

import time

LARGE = 64 << 20  # bytes; less is done before anybody looks
BAR_WIDTH = 30
PERIOD = 0.1  # seconds


class Bar:
    """A line on a terminal that says how many of `total` bytes are done; nothing on anything else, or if there are few.

    Used in a `with` statement, at whose end the line is gone.
    """

    def __init__(self, total, stream):
        self._total = total
        self._stream = stream
        self._shown = total >= LARGE and stream.isatty()
        self._done = 0
        self._next = 0  # when the line is to be drawn again
        self._width = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self._shown:
            self._draw("")
            self._stream.write("\r")
            self._stream.flush()

    def add(self, size):
        """Counts `size` more bytes."""
        self._done += size
        now = time.monotonic()
        if self._shown and now >= self._next:
            self._next = now + PERIOD
            part = min(self._done / self._total, 1)
            bar = ("=" * round(part * BAR_WIDTH)).ljust(BAR_WIDTH)
            megabytes = f"{self._done / 1e6:.0f} of {self._total / 1e6:.0f} MB"
            self._draw(f"Packing [{bar}] {part:4.0%}  {megabytes}")

    def counted(self, file):
        """The file, with what is read of it counted."""
        return _Counted(file, self)

    def _draw(self, line):
        self._stream.write("\r" + line.ljust(self._width))
        self._stream.flush()
        self._width = len(line)


class _Counted:
    def __init__(self, file, bar):
        self._file = file
        self._bar = bar

    def read(self, size):
        data = self._file.read(size)
        self._bar.add(len(data))
        return data
