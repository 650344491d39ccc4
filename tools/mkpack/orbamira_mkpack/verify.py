"""The command line of mkpack verify."""

import argparse
import json
import os
import sys

from orbamira_mkpack import rules
from orbamira_mkpack.command_line import EXIT_FAILED, ArgumentParser, base_url, end_in_order, printable, system_words
from orbamira_mkpack.folder import Folder
from orbamira_mkpack.served import Served

DESCRIPTION = """\
Verifies a published folder: reads the reply and every package that it names as an appliance would, and reports what an
appliance or the web server would reject. It changes nothing and needs no network. With --url it asks a web server
instead, and reports how the server delivers the reply and the packages.
"""

EPILOG = """\
what is verified
  The reply exists, has at most 1 MiB, is a JSON object of the right form (reply.schema.json), and names a pack. Each
  link is an http or https address of a file in the folder, below --base-url if that is given. Each package has the
  checksum and the size that the reply states, and the digest in its name. It unpacks within the limits of appliances.
  Its INFO has the same name and version as the reply, and its payload has the codecs that the name promises.

  A signed package has exactly the members that its MANIFEST lists. It is for this product, its INFO says what MANIFEST
  says, and its last day is not over. With --keyring, each package has a signer whom the
  keyring trusts now. Without it, a reply that names both signed and unsigned packages is reported.

  Everyone may read the reply, the packages and the folder, and no package is a symbolic link that leads out of it.

  With --url: the reply has status 200 for an appliance's query and is right as above, and caches keep it for at most a
  day. Each package exists, has the size that the reply states, and is not compressed. The server supports ranges, a
  validator and If-Range, so that an interrupted download resumes. Packages are not downloaded whole: to verify their
  content, verify the folder.

what is printed
  A line for each finding: where, what is wrong, and what to do. Lines that begin with "note" are not findings, but
  worth knowing: packages that the reply does not name, or no longer names, and unfinished work. With --json, one object
  with the members "folder" or "url", "result" ("well" or "faults"), "packs", "findings" and "notes".

examples
  mkpack verify /srv/packs --base-url https://packs.example.com/packs --keyring authority.pem
  mkpack verify --url https://packs.example.com/packs/reply.json

environment
  http_proxy, https_proxy, no_proxy  the proxy to ask for --url
  PATH                               where the program openssl is looked for, to check signatures
  TMPDIR                             where a signature lies while it is checked

files
  FOLDER/reply.json  the reply, unless --reply names another
  FOLDER/*.opk       the packages

exit status
  0   nothing found
  1   something found, or not everything could be read
  64  wrong usage
"""


def make_parser():
    parser = ArgumentParser(prog="mkpack verify", description=DESCRIPTION, epilog=EPILOG)
    parser.add_argument("folder", metavar="FOLDER", nargs="?", help="the folder that the web server serves")
    parser.add_argument("--url", type=reply_url, help="the http(s) address of a reply, in place of a folder")
    parser.add_argument("--reply", metavar="FILE", help="the reply (default: reply.json in the folder)")
    parser.add_argument("--base-url", type=base_url, metavar="URL", help="the http(s) address that serves the folder")
    parser.add_argument("--keyring", metavar="FILE", help="the certificates that appliances trust (PEM)")
    parser.add_argument("--json", action="store_true", help="print one JSON object")
    return parser


def parse_arguments(arguments):
    parser = make_parser()
    options = parser.parse_args(arguments)
    if (options.folder is None) == (options.url is None):
        parser.error("one of FOLDER and --url is needed, and not both")
    if options.url:
        if options.reply or options.keyring:
            parser.error("arguments --reply and --keyring: they go with FOLDER")
        return options
    if not os.path.isdir(options.folder):
        parser.error(f"argument FOLDER: {options.folder} is not a folder")
    if options.keyring is not None:
        try:
            _check_keyring(options.keyring)
        except OSError as error:
            parser.error(f"argument --keyring: {options.keyring}: {error.strerror}")
        except ValueError as error:
            parser.error(f"argument --keyring: {options.keyring}: {error}")
    return options


def reply_url(text):
    if rules.http_address(text) is None or set("?#") & set(text):
        raise argparse.ArgumentTypeError(f"{text!r} is no http or https address")
    return text


def _check_keyring(path):
    """Raises ValueError for a keyring that appliances take nothing by."""
    with open(path, "rb") as file:
        text = file.read()
    rest = rules.CERTIFICATE_PATTERN.sub(b"", text)
    if rest == text:
        raise ValueError("it contains no certificate")
    if b"-----BEGIN" in rest:
        raise ValueError("it contains something other than certificates")


def _marks(pack):
    """What is special about a pack that was looked at."""
    if "channel" in pack:
        yield pack["channel"]
    if "rollout" in pack:
        yield f"{pack['rollout']} %"
    if pack.get("signed"):
        yield "signed"


def print_report(options, report):
    for finding in report.findings:
        print(printable(f"{finding.about}: {finding.problem}: {finding.remedy}"))
    for note in report.notes:
        print(printable(f"note: {note}"))
    if not report.findings:
        packs = ", ".join(
            f"{about.split(' ')[0]} {pack['version']}" + "".join(f" ({mark})" for mark in _marks(pack))
            for about, pack in report.packs.items()
        )
        print(printable(f"{options.url or options.folder}: nothing wrong with {packs}"))


def main(arguments):
    options = parse_arguments(arguments)
    end_in_order()
    try:
        if options.url:
            report = Served(options.url, options.base_url).verify()
        else:
            report = Folder(options.folder, options.reply, options.base_url, options.keyring).verify()
    except OSError as error:
        print(printable(f"mkpack verify: {system_words(error, options.folder)}"), file=sys.stderr)
        return EXIT_FAILED
    if options.json:
        print(
            json.dumps(
                {
                    **({"url": options.url} if options.url else {"folder": options.folder}),
                    "result": "faults" if report.findings else "well",
                    "packs": report.packs,
                    "findings": [vars(finding) for finding in report.findings],
                    "notes": report.notes,
                }
            )
        )
    else:
        print_report(options, report)
    return EXIT_FAILED if report.findings else 0
