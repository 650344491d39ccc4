"""Makes a codec pack of a folder and publishes it for the update server."""

import argparse
import datetime
import os
import re
import sys
import urllib.parse

from orbamira_mkpack import manifest, rules
from orbamira_mkpack.bill import Bill
from orbamira_mkpack.command_line import (
    ArgumentParser,
    base_url,
    channel,
    did_you_mean,
    end_in_order,
    failed,
    share,
    system_words,
    version,
)
from orbamira_mkpack.packing import MkpackError, bill_beside, make_package
from orbamira_mkpack.releases import EVERYONE, SECURITY, Releases
from orbamira_mkpack.reply_file import change_reply, read_reply

DESCRIPTION = """\
Packs a folder into a package and publishes it: writes the package into the folder that a web server serves, and names
it in the reply that appliances fetch when they check for updates. "mkpack verify" then reads the folder as an
appliance would; see mkpack verify --help. The word publish may be left out.
"""

EPILOG = f"""\
what is published
  The package, and a reply that names it; see files below. Both files appear whole, the package first. Earlier packages
  stay, for appliances that are still downloading them. Several mkpack may publish into one folder at the same time.

staged releases
  With --rollout, packctl takes the release only on that share of the appliances; the others are offered the release
  before. mkpack rollout raises the share, up to all of them; see mkpack rollout --help. With --channel only the
  appliances of that channel are offered it. mkpack withdraw takes a release back.

security releases
  With --security the release is marked as one that closes a security hole. packctl then installs it by itself, whatever
  its update policy, unless the owner has opted out; see mkpack security --help, which sets the mark later or takes it
  back.

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
  before it unpacks them. MANIFEST says what the package is, in lines "# KEY: VALUE": format, product, pack, version,
  and with --minimum and --expires those two. Below, it has a line for each other member, sorted by name: its SHA-256
  in hexadecimal digits, two spaces and its name. Appliances with a keyring refuse a package for another product, one
  that is older than what is installed or than a minimum that they have seen, and one whose last day is over.
  MANIFEST.sig is the detached CMS signature of exactly these bytes, in DER. The program
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
                                   and size in bytes of the pack published last, and what mkpack keeps of its other
                                   releases. Members of other names stay.
  OUTPUT/reply@CHANNEL.json        the reply for the appliances of a channel
  OUTPUT/reply+NAME-VERSION.json   the reply for those in the share of a staged release; see mkpack nginx --help
  OUTPUT/.reply.json.lock          the lock that mkpack holds while it changes the reply.
  OUTPUT/.mkpack.*                 unfinished work, removed at the end. You may delete what a killed mkpack leaves.

exit status
  0   published
  1   failed; at most the package was published, and the reply is as it was
  64  wrong usage
"""


def title(text):
    if not text.strip() or not text.isprintable():
        raise argparse.ArgumentTypeError(f"{text!r} is no title: it is empty or holds unprintable characters")
    return text


def day(text):
    try:
        if re.fullmatch("[0-9]{4}-[0-9]{2}-[0-9]{2}", text):
            return datetime.date.fromisoformat(text)
    except ValueError:
        pass
    raise argparse.ArgumentTypeError(f"{text!r} is no day, such as 2027-12-31")


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
    parser.add_argument(
        "--rollout",
        type=share,
        metavar="PERCENT",
        help="offer it to this share of the appliances only, such as 5%%; raise it with mkpack rollout",
    )
    parser.add_argument(
        "--channel", type=channel, metavar="NAME", help="offer it only to appliances of this channel, such as beta"
    )
    parser.add_argument(
        "--security",
        action="store_true",
        help="mark it as a security release, which packctl installs by itself; mkpack security takes the mark back",
    )
    parser.add_argument(
        "--minimum",
        type=version,
        metavar="VERSION",
        help="have appliances that install this pack refuse older ones than that for ever; it goes with --sign-key",
    )
    parser.add_argument(
        "--expires",
        type=day,
        metavar="YYYY-MM-DD",
        help="the last day (UTC) on which appliances install this pack; it goes with --sign-key",
    )
    parser.add_argument(
        "--manifest-format",
        choices=("1", "2"),
        default="2",
        help="2, which says what the package is (default), or 1, which only lists its members",
    )
    parser.add_argument("--sign-key", metavar="KEY", help="sign the package with this private key (PEM)")
    parser.add_argument(
        "--sign-cert",
        metavar="CERT",
        help="the certificate of the key (PEM), followed by those between it and the one that appliances trust",
    )
    return parser


def check_signed_facts(parser, options):
    """Refuses what no signature would carry, and what no appliance would accept."""
    for name, value in (("--minimum", options.minimum), ("--expires", options.expires)):
        if value is not None and (options.sign_key is None or options.manifest_format == "1"):
            parser.error(f"argument {name}: it goes with --sign-key and a manifest of format 2")
    if options.minimum is not None and rules.is_newer(options.version, options.minimum):
        parser.error("argument --minimum: it is newer than --version")
    if options.expires is not None and options.expires < manifest.today():
        parser.error("argument --expires: that day is over")


def parse_arguments(arguments):
    parser = make_parser()
    if arguments and not arguments[0].startswith("-"):
        parser.error(f'there is no command "{arguments[0]}"' + did_you_mean(arguments[0], rules.COMMANDS))
    options = parser.parse_args(arguments)

    options.codec = sorted(set(options.codec or rules.CODECS_OF_PACK[options.name]), key=rules.CODECS.index)
    for codec in rules.CODECS_OF_PACK[options.name]:
        if codec not in options.codec:
            parser.error(f"argument --codec: a pack of the name {options.name} carries {codec}")
    if (options.sign_key is None) != (options.sign_cert is None):
        parser.error("arguments --sign-key and --sign-cert: one is no use without the other")
    check_signed_facts(parser, options)
    if not os.path.isdir(options.payload):
        parser.error(f"argument --payload: {options.payload} is not a folder")
    payload = os.path.realpath(options.payload)
    if os.path.commonpath([payload, os.path.realpath(options.output)]) == payload:
        parser.error("argument --output: it must not be inside the payload")
    options.reply = options.reply or os.path.join(options.output, "reply.json")
    return options


def offer_of(options):
    """What the reply says of the release, as far as it is known before the package is made."""
    offer = {"title": options.title, "version": options.version}
    if options.rollout and options.rollout < EVERYONE:
        offer["rollout"] = options.rollout
    if options.channel:
        offer["channel"] = options.channel
    if options.security:
        offer[SECURITY] = True
    return offer


def main(arguments):
    options = parse_arguments(arguments)
    end_in_order()
    offer = offer_of(options)
    try:
        # A reply that cannot be used is found before the work rather than after it.
        member = read_reply(options.reply).get(options.name)
        Releases(options.name, member).publish(offer, options.allow_older)
        file_name, size, checksum = make_package(options, Bill(options) if options.sbom else None)
        link = f"{options.base_url}/{urllib.parse.quote(file_name)}"
        offer |= {"link": link, "checksum": checksum, "size": size}
        change_reply(options.reply, options.name, lambda releases: releases.publish(offer, options.allow_older))
    except MkpackError as error:
        return failed("mkpack", error)
    except OSError as error:
        return failed("mkpack", system_words(error, options.output))
    sys.stdout.reconfigure(errors="surrogateescape")
    print(f"package   {os.path.join(options.output, file_name)}")
    print(f"size      {size}")
    print(f"checksum  {checksum}")
    if options.sbom:
        print(f"sbom      {os.path.join(options.output, bill_beside(file_name))}")
    if options.channel:
        print(f"channel   {options.channel}")
    if "rollout" in offer:
        print(f"share     {options.rollout}%")
    if options.security:
        print("security  yes")
    print(f"reply     {options.reply}")
    return 0
