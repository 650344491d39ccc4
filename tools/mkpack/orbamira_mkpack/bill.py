"""The bill of materials of a pack: what its maker says of each component, and what its files say themselves."""

import datetime
import difflib
import fnmatch
import os
import re
import stat
import tomllib

from orbamira_mkpack import cyclonedx, elf, rules
from orbamira_mkpack.command_line import printable
from orbamira_mkpack.packing import MkpackError, payload_members

_TEXTS = ("name", "version", "licence", "supplier")
_OPTIONAL = ("purl", "cpe")
_PLACES = ("files", "part_of")
_ID = re.compile(r"[A-Za-z0-9.:-]+\+?")


def _is_expression(text):
    """Whether the text has the form of an SPDX licence expression. Which licences there are is not looked at."""
    words = re.findall(r"[()]|[^\s()]+", text)
    words.reverse()

    def term():
        if not words:
            return False
        word = words.pop()
        if word == "(":
            return expression() and bool(words) and words.pop() == ")"
        if word in ("AND", "OR", "WITH") or not _ID.fullmatch(word):
            return False
        if words and words[-1] == "WITH":
            words.pop()
            return bool(words) and bool(_ID.fullmatch(words.pop()))
        return True

    def expression():
        good = term()
        while good and words and words[-1] in ("AND", "OR"):
            words.pop()
            good = term()
        return good

    return expression() and not words


class Bill:
    """A list of components that covers the payload. Raises MkpackError for one that does not."""

    def __init__(self, options):
        self._path, self._payload = options.sbom, options.payload
        self._pack = options.name, options.version
        self._supplier, self._components = self._read()
        self._owners = self._assign(list(_files(self._payload)))

    def _wrong(self, problem, remedy):
        return MkpackError(f"{self._path}: {problem}", remedy)

    def _read(self):
        with open(self._path, "rb") as file:
            try:
                content = tomllib.load(file)
            except (tomllib.TOMLDecodeError, UnicodeDecodeError) as error:
                raise self._wrong(f"no TOML ({error})", "Correct it") from None
        self._check_keys(content, ("supplier",), ("component",), "the pack")
        components = content.get("component")
        if not isinstance(components, list) or not all(isinstance(entry, dict) for entry in components):
            raise self._wrong("no [[component]]", "Describe each component of the pack in one")
        for component in components:
            self._check_component(component)
        references = ["@".join(self._pack), *map(_reference, components)]
        for reference in references:
            if references.count(reference) > 1:
                raise self._wrong(f"{reference} is there twice", "Put its files into one [[component]]")
        for component in components:
            if "part_of" in component:
                self._check_whole(component, components)
        return content["supplier"], components

    def _check_whole(self, component, components):
        wholes = [other for other in components if "files" in other and other["name"] == component["part_of"]]
        if len(wholes) != 1:
            raise self._wrong(
                f'component "{component["name"]}" is part_of {component["part_of"]}, '
                + ("which names several" if wholes else "which has no files here"),
                "Name one component that has files",
            )

    def _check_component(self, component):
        about = f'component "{component["name"]}"' if isinstance(component.get("name"), str) else "a component"
        self._check_keys(component, _TEXTS, (*_OPTIONAL, *_PLACES), about)
        if not _is_expression(component["licence"]):
            raise self._wrong(
                f'{about} has the licence "{component["licence"]}", which is no SPDX expression',
                "Write one such as BSD-3-Clause, or LicenseRef- and a name of your own",
            )
        if "part_of" in component:
            self._check_texts(component, ("part_of",), about)
            if "files" in component:
                raise self._wrong(f"{about} has both files and part_of", "Remove one of them")
            return
        files = component.get("files")
        if not isinstance(files, list) or not files or not all(isinstance(name, str) and name for name in files):
            raise self._wrong(
                f"{about} has no files", 'Name them, such as files = ["lib/libdecoder.so.*"], or what it is part_of'
            )

    def _check_keys(self, table, needed, others, about):
        for key in table:
            if key not in (*needed, *others):
                nearest = difflib.get_close_matches(key, (*needed, *others), n=1)
                remedy = f"Write {nearest[0]}, or remove it" if nearest else "Remove it"
                raise self._wrong(f'{about} has a "{key}", which nothing reads', remedy)
        for key in needed:
            if key not in table:
                raise self._wrong(f"{about} has no {key}", "Add it")
        self._check_texts(table, (*needed, *_OPTIONAL), about)

    def _check_texts(self, table, keys, about):
        for key in keys:
            text = table.get(key, "-")
            if not isinstance(text, str) or not text.strip() or not text.isprintable():
                raise self._wrong(f"the {key} of {about} is no text", "Write it in quotes, on one line")

    def _assign(self, payload_files):
        """The component of each file. Each file has one, and each pattern has files."""
        if rules.BILL_NAME in payload_files:
            raise MkpackError(f"{rules.BILL_NAME} in the payload has the name that --sbom writes to", "Remove it")
        owners = {}
        for component in self._components:
            for pattern in component.get("files", ()):
                matching = fnmatch.filter(payload_files, pattern)
                if not matching:
                    raise self._wrong(f'"{pattern}" is not a file of the payload', "Correct the name, or remove it")
                for path in matching:
                    if owners.setdefault(path, component) is not component:
                        raise self._wrong(
                            f"{path} belongs to both {owners[path]['name']} and {component['name']}",
                            "Give it to one of them",
                        )
        for path in payload_files:
            if path not in owners:
                raise self._wrong(f"{path} in the payload belongs to no component", "Give it to one, or leave it out")
        return owners

    def text(self, digests):
        """The bill, with these digests of the files."""
        names = {path: _names(self._payload, path) for path in self._owners}
        subject = cyclonedx.library(*self._pack, self._supplier)
        parts = {_reference(component): _part(component) for component in self._components}
        inside = {
            found.soname or os.path.basename(path): _reference(self._owners[path]) for path, found in names.items()
        }
        dependencies = {subject["bom-ref"]: set(map(_reference, self._owners.values()))}
        dependencies |= {reference: set() for reference in parts}
        outside = {}
        for path, component in self._owners.items():
            reference = _reference(component)
            parts[reference].setdefault("components", []).append(_file(path, names[path].soname, digests[path]))
            for needed in names[path].needed:
                if needed not in inside:
                    outside[needed] = _of_the_appliance(needed)
                target = inside.get(needed) or outside[needed]["bom-ref"]
                dependencies[reference] |= {target} - {reference}
        for component in self._components:
            if "part_of" in component:
                dependencies[self._whole_of(component)].add(_reference(component))
        components = [*parts.values(), *(outside[name] for name in sorted(outside))]
        dependencies |= {component["bom-ref"]: set() for component in outside.values()}
        return cyclonedx.document(subject, components, dependencies, _time()).encode()

    def _whole_of(self, component):
        """The reference of the component that this one is linked into."""
        return next(_reference(owner) for owner in self._owners.values() if owner["name"] == component["part_of"])


def _reference(component):
    return f"{component['name']}@{component['version']}"


def _part(component):
    part = cyclonedx.library(component["name"], component["version"], component["supplier"])
    optional = {key: component[key] for key in _OPTIONAL if key in component}
    return part | optional | {"licenses": [{"expression": component["licence"]}]}


def _file(path, soname, digest):
    name = printable(path)
    part = {"type": "file", "bom-ref": f"file:{name}", "name": name, "hashes": cyclonedx.sha256(digest)}
    return part | ({"properties": [{"name": "orbamira:soname", "value": soname}]} if soname else {})


def _of_the_appliance(soname):
    """A library that the pack needs and does not bring. Its version is the appliance's matter."""
    return {
        "type": "library",
        "bom-ref": f"soname:{soname}",
        "name": soname,
        "scope": "excluded",
        "properties": [{"name": "orbamira:provided-by", "value": "appliance"}],
    }


def _time():
    """SOURCE_DATE_EPOCH if it is set: any other time would make a difference between equal bills."""
    seconds = int(os.environ.get("SOURCE_DATE_EPOCH", "0"))
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).isoformat() if seconds else None


def _files(payload):
    """The paths of the regular files."""
    for path in payload_members(payload):
        if stat.S_ISREG(os.lstat(os.path.join(payload, path)).st_mode):
            yield path


def _names(payload, path):
    with open(os.path.join(payload, path), "rb") as file:
        try:
            return elf.names(file)
        except ValueError as error:
            raise MkpackError(f"{path} in the payload is a {error}", "Build it again") from None
