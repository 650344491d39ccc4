"""Makes a codec pack of a folder and publishes it for the update server."""

import argparse
import contextlib
import fcntl
import json
import os
import sys
import urllib.parse

from orbamira_mkpack import rules
from orbamira_mkpack.bill import Bill
from orbamira_mkpack.command_line import (
    EXIT_FAILED,
    ArgumentParser,
    base_url,
    did_you_mean,
    end_in_order,
    printable,
    system_words,
)
from orbamira_mkpack.packing import MkpackError, bill_beside, make_package, put_in_place, work_folder

DESCRIPTION = """\
Packs a folder into a package and publishes it: writes the package into the folder that a web server serves, and names
it in the reply that appliances fetch when they check for updates. "mkpack verify" then reads the folder as an
appliance would; see mkpack verify --help.
"""

EPILOG = f"""\
what is published
  The package, and a reply that names it; see files below. Both files appear whole, the package first. Earlier packages
  stay, for appliances that are still downloading them. Several mkpack may publish into one folder at the same time.

the payload
  Regular files, folders, and symbolic links that stay inside the folder. Executable files become 0755, other files
  0644; owners and times are dropped. Every time in the package is SOURCE_DATE_EPOCH (seconds since 1970) if the
  environment sets it, otherwise 0. So the same payload gives the same package, byte for byte, if the versions of
  Python and zlib are the same; others may compress it to different bytes. The names INFO, package.tgz, has_hevc,
  has_aac and MANIFEST* at the top of the payload are reserved.

  Appliances unpack at most 20,000 members, 16 GiB, names of 4096 bytes, and 128 names below each other. mkpack refuses
  a larger payload before it packs it.

signing
  With --sign-key and --sign-cert the package begins with two more members, so that a reader can verify the others
  before it unpacks them. MANIFEST has a line for each other member, sorted by name: its SHA-256 in hexadecimal digits,
  two spaces and its name. MANIFEST.sig is the detached CMS signature of exactly these bytes, in DER. The program
  openssl makes it and must be installed; if the key has a passphrase, it asks for it at the terminal. A signature
  contains the time when it was made, so a signed package is not reproducible byte for byte. To check a signature by
  hand:
  openssl cms -verify -binary -inform DER -in MANIFEST.sig -content MANIFEST -CAfile CA -no-CApath -purpose any

bill of materials
  --sbom FILE puts {rules.BILL_NAME} into the payload, and the same bytes beside the package: a CycloneDX 1.6 document
  that lists each component of the pack, its files with their SHA-256, and what they need. FILE is TOML: supplier, who
  publishes the pack, and for each component a table [[component]] with name, version, licence (an SPDX expression),
  supplier and files (patterns; * matches / too), and as options purl and cpe. A component that is linked into another
  statically names that one as part_of, in place of files. Each file of the payload belongs to exactly one component;
  anything missing is an error. What a library calls itself and needs is read from its ELF
  headers; a library that the pack needs and does not contain is listed as the appliance's. If SOURCE_DATE_EPOCH is
  set, it is the bill's time; without it the bill has none.

versions
  Appliances install a pack if its version is newer than theirs. They split both versions at . - _ and + and compare
  them part by part: parts made of digits as numbers, others byte by byte as text. A number is older than a text. A
  missing part counts as 0. So 1.9 is older than 1.10, and 1.0 equals 1, but 1.0-rc1 is NEWER than 1.0: an appliance
  with 1.0-rc1 is not offered 1.0. Give a version before 1.0 a lower number, such as 0.99.1.

what to do with it
  Serve /srv/packs at https://packs.example.com/packs with any web server. Copy the packages there before the reply.
  On the appliances, set in their updater.conf:
  pack_update_server="https://packs.example.com/packs/reply.json"

common problems
  Appliances find nothing new: the version is not newer than theirs (see versions above), or a cache still serves the
  old reply and should revalidate it.

  The download fails: the folder is not served at --base-url. mkpack verify --url asks the server for the reply and for
  each package.

  The install fails: the appliances have a keyring, and the package is not signed, or its signer has expired. mkpack
  verify --keyring reports both.

  Some appliances find no pack at all: those with AAC ask for {rules.HEVC_AAC_PACK}. Always publish both packs.

examples
  mkpack --payload build/pack --output /srv/packs --name {rules.HEVC_PACK} --version 1.2.0 \\
         --title "HEVC decoder" --base-url https://packs.example.com/packs
  mkpack verify /srv/packs --base-url https://packs.example.com/packs

environment
  SOURCE_DATE_EPOCH  every time in the package, in seconds since 1970 (default 0)
  PATH               where the program openssl is looked for, to sign

files
  OUTPUT/NAME-VERSION-DIGEST.opk   the package: a tar archive of INFO (name and version) and package.tgz (the payload
                                   and an empty file has_CODEC for each codec). DIGEST is the beginning of the file's
                                   SHA-256, so the content under a name never changes, and caches may keep it for ever.
  OUTPUT/NAME-VERSION-DIGEST.cdx.json
                                   the bill of materials of that package, with --sbom.
  OUTPUT/reply.json                a JSON object with one member for each pack name: title, version, link, checksum
                                   and size in bytes of the pack published last. Members of other names stay.
  OUTPUT/.reply.json.lock          the lock that mkpack holds while it changes the reply.
  OUTPUT/.mkpack.*                 unfinished work, removed at the end. You may delete what a killed mkpack leaves.

exit status
  0   published
  1   failed; at most the package was published, and the reply is as it was
  64  wrong usage
"""


NO_REPLY = "Move it away, or name another by --reply"


def version(text):
    if not rules.VERSION_PATTERN.fullmatch(text):
        raise argparse.ArgumentTypeError(
            f"{text!r} is no version: up to 64 letters, digits and . _ + -, beginning with a letter or digit"
        )
    return text


def title(text):
    if not text.strip() or not text.isprintable():
        raise argparse.ArgumentTypeError(f"{text!r} is no title: it is empty or holds unprintable characters")
    return text


def make_parser():
    parser = ArgumentParser(prog="mkpack", description=DESCRIPTION, epilog=EPILOG)
    parser.add_argument("--payload", required=True, metavar="DIR", help="the folder with the content of the pack")
    parser.add_argument(
        "--output", required=True, metavar="DIR", help="the folder to publish into; created if it is missing"
    )
    parser.add_argument("--name", required=True, choices=rules.CODECS_OF_PACK, help="the name of the pack")
    parser.add_argument(
        "--version",
        required=True,
        type=version,
        help="the version of the pack; appliances install newer ones (see versions below)",
    )
    parser.add_argument("--title", required=True, type=title, help="the name of the pack for people")
    parser.add_argument(
        "--base-url", required=True, type=base_url, metavar="URL", help="the http(s) address that serves the output"
    )
    parser.add_argument(
        "--codec",
        action="append",
        choices=rules.CODECS,
        help="a codec in the payload, once for each; by default those in the pack's name, which must be among them",
    )
    parser.add_argument(
        "--reply", metavar="FILE", help="the reply to name the pack in (default: reply.json in the output folder)"
    )
    parser.add_argument(
        "--allow-older",
        action="store_true",
        help="publish a version that is older than the published one, which appliances that have that one keep",
    )
    parser.add_argument(
        "--sbom",
        metavar="FILE",
        help="put a bill of materials (CycloneDX) into the package and beside it; FILE describes the components",
    )
    parser.add_argument("--sign-key", metavar="KEY", help="sign the package with this private key (PEM)")
    parser.add_argument(
        "--sign-cert",
        metavar="CERT",
        help="the certificate of the key (PEM), followed by those between it and the one that appliances trust",
    )
    return parser


def parse_arguments(arguments):
    parser = make_parser()
    if arguments and not arguments[0].startswith("-"):
        parser.error(f'there is no command "{arguments[0]}"' + did_you_mean(arguments[0], ["verify"]))
    options = parser.parse_args(arguments)

    options.codec = sorted(set(options.codec or rules.CODECS_OF_PACK[options.name]), key=rules.CODECS.index)
    for codec in rules.CODECS_OF_PACK[options.name]:
        if codec not in options.codec:
            parser.error(f"argument --codec: a pack of the name {options.name} carries {codec}")
    if (options.sign_key is None) != (options.sign_cert is None):
        parser.error("arguments --sign-key and --sign-cert: one is no use without the other")
    if not os.path.isdir(options.payload):
        parser.error(f"argument --payload: {options.payload} is not a folder")
    payload = os.path.realpath(options.payload)
    if os.path.commonpath([payload, os.path.realpath(options.output)]) == payload:
        parser.error("argument --output: it must not be inside the payload")
    options.reply = options.reply or os.path.join(options.output, "reply.json")
    return options


def read_reply(path):
    """The members of the reply; none when there is no file yet. Raises MkpackError for a file that is no reply."""
    try:
        with open(path, encoding="utf-8") as file:
            members = json.load(file)
    except FileNotFoundError:
        return {}
    except (ValueError, RecursionError) as error:
        raise MkpackError(f"{path} is not valid JSON ({error}), and was left as it is", NO_REPLY) from error
    if not isinstance(members, dict):
        raise MkpackError(f"{path} is not a JSON object, and was left as it is", NO_REPLY)
    return members


def refuse_older(members, options):
    """Refuses a pack that is older than the one in the reply, unless it was asked for."""
    member = members.get(options.name)
    published = member.get("version") if isinstance(member, dict) else None
    if not isinstance(published, str) or not rules.VERSION_PATTERN.fullmatch(published):
        return  # there is none to compare with
    if rules.is_newer(options.version, published) and not options.allow_older:
        raise MkpackError(
            f"{options.name} {options.version} is older than the published {published}, "
            "so appliances that have that one would not install it",
            "Give a higher --version, or add --allow-older",
        )


@contextlib.contextmanager
def reply_lock(path):
    """Keeps other mkpack from the reply. The lock is on a file beside it, since the reply itself is replaced."""
    folder, name = os.path.split(path)
    os.makedirs(folder or ".", exist_ok=True)
    with open(os.path.join(folder, f".{name}.lock"), "a") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


def publish(options, member):
    """Puts `member` into the reply under the name of the pack; the other members stay."""
    path = options.reply
    with reply_lock(path):
        members = read_reply(path)
        refuse_older(members, options)
        members[options.name] = member
        with work_folder(os.path.dirname(path) or ".") as work:
            temporary = os.path.join(work, "reply")
            with open(temporary, "w", encoding="utf-8") as file:
                json.dump(members, file, indent=2, sort_keys=True)
                file.write("\n")
                put_in_place(file, temporary, path)


def failed(reason):
    print(printable(f"mkpack: {reason}"), file=sys.stderr)
    return EXIT_FAILED


def main(arguments):
    options = parse_arguments(arguments)
    end_in_order()
    try:
        # A reply that cannot be used is found before the work rather than after it.
        refuse_older(read_reply(options.reply), options)
        file_name, size, checksum = make_package(options, Bill(options) if options.sbom else None)
        member = {
            "title": options.title,
            "version": options.version,
            "link": f"{options.base_url}/{urllib.parse.quote(file_name)}",
            "checksum": checksum,
            "size": size,
        }
        publish(options, member)
    except MkpackError as error:
        return failed(error)
    except OSError as error:
        return failed(system_words(error, options.output))
    sys.stdout.reconfigure(errors="surrogateescape")
    print(f"package   {os.path.join(options.output, file_name)}")
    print(f"size      {size}")
    print(f"checksum  {checksum}")
    if options.sbom:
        print(f"sbom      {os.path.join(options.output, bill_beside(file_name))}")
    print(f"reply     {options.reply}")
    return 0
