"""The command line of mkpack nginx: the configuration by which nginx gives a staged release to its share."""

import os

from orbamira_mkpack.command_line import ArgumentParser, end_in_order, failed, system_words
from orbamira_mkpack.packing import MkpackError, put_in_place, work_folder
from orbamira_mkpack.releases import share_of
from orbamira_mkpack.reply_file import channels_beside, read_reply, releases_of, suffix_of

DESCRIPTION = """\
Prints the configuration by which nginx gives a release to the share of the appliances that mkpack rollout has set, also
to hosts of the library other than packctl. Without it, they are offered the release at 100%.
"""

EPILOG = """\
how to use it
  Include what is printed in the http block of nginx. It sets the variable $orbamira_reply to the name of the reply for
  the appliance that asks, and $orbamira_reply_CHANNEL for each channel. Let nginx give that reply:

  location = /packs/reply.json { try_files /packs/$orbamira_reply /packs/reply.json =404; }

  Print it anew and reload nginx after each mkpack publish --rollout and mkpack rollout. Until then nginx gives the
  release to the former share. mkpack withdraw holds at once.

  Caches between nginx and the appliances must not share such a reply: see the page on staged releases.

examples
  mkpack nginx /srv/packs --to /etc/nginx/orbamira-rollout.conf && nginx -s reload

files
  FOLDER/reply.json  the reply, unless --reply names another

exit status
  0   printed
  1   failed; the file of --to is as it was
  64  wrong usage
"""


def make_parser():
    parser = ArgumentParser(prog="mkpack nginx", description=DESCRIPTION, epilog=EPILOG)
    parser.add_argument("folder", metavar="FOLDER", help="the folder that the web server serves")
    parser.add_argument("--reply", metavar="FILE", help="the reply (default: reply.json in the folder)")
    parser.add_argument("--to", metavar="FILE", help="write to this file, in one step, in place of printing")
    return parser


def _split(variable, name, offer):
    return f"""\
# {name} {offer['version']}: {share_of(offer)} % of the appliances.
split_clients "$arg_unique:{offer['version']}" ${variable} {{
  {share_of(offer):.2f}% "{suffix_of(name, offer)}";
  * "";
}}
"""


def _reply_variable(stem, channel, parts):
    variable = "orbamira_reply" + (f"_{channel.replace('-', '_')}" if channel else "")
    file = stem + (f"@{channel}" if channel else "") + "".join(f"${{{part}}}" for part in parts) + ".json"
    return f'map $host ${variable} {{\n  default "{file}";\n}}\n'


def configuration(path):
    """The text for the reply at the path."""
    packs = releases_of(read_reply(path))
    if not packs:
        raise MkpackError(f"{path} names no pack", "Publish one first")
    stem = os.path.basename(path).removesuffix(".json")
    splits, variables, known = [], [], {}
    for channel in [None, *sorted(channels_beside(path))]:
        parts = []
        for name, releases in packs.items():
            offer = releases.partial(channel)
            if offer:
                key = (name, offer["version"])
                if key not in known:
                    known[key] = f"orbamira_staged_{len(known) + 1}"
                    splits.append(_split(known[key], name, offer))
                parts.append(known[key])
        variables.append(_reply_variable(stem, channel, parts))
    return "# Made by mkpack nginx. Include it in an http block.\n" + "".join(splits + variables)


def _write(text, path):
    with work_folder(os.path.dirname(path) or ".") as work:
        temporary = os.path.join(work, "configuration")
        with open(temporary, "w", encoding="utf-8") as file:
            file.write(text)
            put_in_place(file, temporary, path)


def main(arguments):
    parser = make_parser()
    options = parser.parse_args(arguments)
    if not os.path.isdir(options.folder):
        parser.error(f"argument FOLDER: {options.folder} is not a folder")
    end_in_order()
    try:
        text = configuration(options.reply or os.path.join(options.folder, "reply.json"))
        if options.to:
            _write(text, options.to)
        else:
            print(text, end="")
    except MkpackError as error:
        return failed("mkpack nginx", error)
    except OSError as error:
        return failed("mkpack nginx", system_words(error, options.folder))
    return 0
