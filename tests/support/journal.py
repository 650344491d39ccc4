"""What a long run has done so far, kept in a file so that an interrupted run can go on."""

import json
import threading


class Journal:
    """Entries, one JSON object on a line; without a path they are kept in memory alone. Any thread may add some."""

    def __init__(self, path=None):
        self.lock, self.entries, self.file = threading.Lock(), [], None
        if path is None:
            return
        text = path.read_text(encoding="utf-8") if path.exists() else ""
        whole, _, cut = text.rpartition("\n")
        self.entries = [json.loads(line) for line in whole.splitlines()]
        self.file = path.open("a", encoding="utf-8")
        if cut:  # by what interrupted the earlier run
            self.file.truncate(len((whole + "\n").encode()) if whole else 0)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.file is not None:
            self.file.close()

    def add(self, **entry):
        with self.lock:
            self.entries.append(entry)
            if self.file is not None:
                self.file.write(json.dumps(entry) + "\n")
                self.file.flush()
