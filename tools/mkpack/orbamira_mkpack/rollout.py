"""The command lines that change a published release: mkpack rollout, mkpack withdraw and mkpack security."""

import os

from orbamira_mkpack import reply, rules
from orbamira_mkpack.command_line import ArgumentParser, end_in_order, failed, share, system_words, version
from orbamira_mkpack.packing import MkpackError
from orbamira_mkpack.releases import CHANNEL, EVERYONE, share_of
from orbamira_mkpack.reply_file import change_reply

ROLLOUT_DESCRIPTION = """\
Offers a published release to a larger share of the appliances, and at last to all of them. Appliances that are in the
smaller share are in the larger one too.
"""

ROLLOUT_EPILOG = f"""\
the share
  An appliance is in the share if a number made of its unique value and of the version is small enough: the MurmurHash2
  (32 bits, seed 0) of "UNIQUE:VERSION", with UNIQUE as it stands in the request, below PERCENT hundredths of
  4294967295. So each release begins with other appliances, no appliance leaves a share that grows, and nginx decides
  the same; see mkpack nginx --help. Appliances that send the same unique value decide the same.

  packctl decides this itself, on each appliance. Other hosts of the library take what the reply offers to everyone: the
  release before, until the share is 100%. With the configuration that mkpack nginx prints, they take part.

  Appliances outside the share are offered the release before. A share cannot shrink, since appliances that have the
  release keep it. --allow-smaller offers it to fewer of the others all the same.

channels
  A release that was published with --channel is offered only to the appliances of the channel: to packctl with the
  setting "channel", and to hosts whose pack_update_server ends in reply@CHANNEL.json. --promote takes it out of the
  channel, so that the share counts among all appliances. Its bytes and its signature stay as they were tested.

examples
  mkpack rollout {rules.HEVC_PACK} 1.2.0 25% --output /srv/packs
  mkpack rollout {rules.HEVC_PACK} 1.3.0 5% --promote --output /srv/packs

files
  OUTPUT/reply.json                 the reply; its members "staged" are the releases that only some are offered
  OUTPUT/reply+NAME-VERSION.json    the reply for those in the share, which a web server can choose
  OUTPUT/reply@CHANNEL.json         the reply for the appliances of a channel

exit status
  0   done
  1   failed; the reply is as it was
  64  wrong usage
"""

WITHDRAW_DESCRIPTION = """\
Takes a release back: offers it to nobody any more, and the release before it in its place.
"""

WITHDRAW_EPILOG = f"""\
what appliances do
  Appliances that do not have the release are offered the one before. Appliances that have it keep it, since they never
  go back to an older version, and packctl says that it was withdrawn. Publish a newer release for them, perhaps with
  the content of the last good one.

  mkpack keeps the two releases before the current one in the reply, and offers one only while its package is in the
  folder. The package of the withdrawn release stays too: appliances may be fetching it.

examples
  mkpack withdraw {rules.HEVC_PACK} 1.2.0 --output /srv/packs

files
  OUTPUT/reply.json  the reply; its members "former" are the releases that withdrawing brings back

exit status
  0   withdrawn
  1   failed; the reply is as it was
  64  wrong usage
"""


SECURITY_DESCRIPTION = """\
Marks a published release as a security release, or takes the mark back.
"""

SECURITY_EPILOG = f"""\
what appliances do
  packctl installs a security release by itself, whatever its update policy, and lets it wait for nothing longer than
  security_wait_days of its settings, unless the owner has set security_install="by_policy". Other hosts of the library
  pass the mark over. The mark is in the reply only: the package, and its signature, stay as they are.

  An appliance that has seen the mark keeps it: what it noted as a security release stays one, and so does a newer
  release that takes its place. An appliance that never saw the marked release sees only the newest one. So mark that
  one too, while appliances in the field lack the fix.

examples
  mkpack security {rules.HEVC_PACK} 1.2.0 on --output /srv/packs
  mkpack security {rules.HEVC_PACK} 1.2.0 off --output /srv/packs

files
  OUTPUT/reply.json  the reply, and beside it those of channels and shares; the release's member "security" is true

exit status
  0   done
  1   failed; the reply is as it was
  64  wrong usage
"""


def _make_parser(command, description, epilog):
    parser = ArgumentParser(prog=f"mkpack {command}", description=description, epilog=epilog)
    parser.add_argument("name", metavar="NAME", choices=rules.CODECS_OF_PACK, help="the name of the pack")
    parser.add_argument("version", metavar="VERSION", type=version, help="the version of the release")
    parser.add_argument("--output", required=True, metavar="DIR", help="the folder that it was published into")
    parser.add_argument("--reply", metavar="FILE", help="the reply (default: reply.json in the output folder)")
    return parser


def make_parser():
    parser = _make_parser("rollout", ROLLOUT_DESCRIPTION, ROLLOUT_EPILOG)
    parser.add_argument(
        "percent", metavar="PERCENT", type=share, help="the share of the appliances, such as 25%%; 100%% is all of them"
    )
    parser.add_argument("--promote", action="store_true", help="take the release out of its channel")
    parser.add_argument("--allow-smaller", action="store_true", help="let the share shrink")
    return parser


def make_withdraw_parser():
    return _make_parser("withdraw", WITHDRAW_DESCRIPTION, WITHDRAW_EPILOG)


def make_security_parser():
    parser = _make_parser("security", SECURITY_DESCRIPTION, SECURITY_EPILOG)
    parser.add_argument("mark", metavar="MARK", choices=("on", "off"), help="on sets the mark, off takes it back")
    return parser


def _parsed(parser, arguments):
    options = parser.parse_args(arguments)
    if not os.path.isdir(options.output):
        parser.error(f"argument --output: {options.output} is not a folder")
    options.reply = options.reply or os.path.join(options.output, "reply.json")
    return options


def _check_package(options, offer):
    """Refuses to offer a release whose package has gone."""
    file = reply.path_of(offer.get("link", ""), None)
    if file is None or not os.path.isfile(os.path.join(options.output, file)):
        raise MkpackError(
            f"the package of {options.name} {offer['version']}, which would be offered, is not in {options.output}",
            "Put it back there, or publish another release",
        )


def _change(options, program, change):
    """Changes the releases, and returns them; None where that failed, which has been said then."""
    changed = None

    def work(releases):
        nonlocal changed
        before = releases.current
        change(releases)
        if releases.current is not before:
            _check_package(options, releases.current)
        changed = releases

    end_in_order()
    try:
        change_reply(options.reply, options.name, work)
    except MkpackError as error:
        failed(program, error)
        return None
    except OSError as error:
        failed(program, system_words(error, options.output))
        return None
    return changed


def main(arguments):
    options = _parsed(make_parser(), arguments)
    work = [options.version, options.percent, options.promote, options.allow_smaller]
    releases = _change(options, "mkpack rollout", lambda found: found.set_share(*work))
    if releases is None:
        return 1
    offers = [releases.current, *releases.staged]
    offer = next(each for each in offers if each.get("version") == options.version)
    print(f"release   {options.name} {options.version}")
    if CHANNEL in offer:
        print(f"channel   {offer[CHANNEL]}")
    print(f"share     {share_of(offer)}%")
    if share_of(offer) < EVERYONE:
        print(f"others    {releases.newest_for_all(offer.get(CHANNEL))['version']}")
    print(f"reply     {options.reply}")
    return 0


def withdraw_main(arguments):
    options = _parsed(make_withdraw_parser(), arguments)
    releases = _change(options, "mkpack withdraw", lambda found: found.withdraw(options.version))
    if releases is None:
        return 1
    print(f"withdrawn {options.name} {options.version}")
    print(f"offered   {releases.current['version']}")
    print(f"reply     {options.reply}")
    return 0


def security_main(arguments):
    options = _parsed(make_security_parser(), arguments)
    is_security = options.mark == "on"
    releases = _change(options, "mkpack security", lambda found: found.set_security(options.version, is_security))
    if releases is None:
        return 1
    print(f"release   {options.name} {options.version}")
    print(f"security  {'yes' if is_security else 'no'}")
    print(f"reply     {options.reply}")
    return 0
