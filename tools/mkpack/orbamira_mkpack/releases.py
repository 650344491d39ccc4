"""The releases of one pack: what everyone is offered, what only some are, and what is kept to take a release back."""

from orbamira_mkpack import rules
from orbamira_mkpack.packing import MkpackError

STAGED, FORMER, WITHDRAWN = "staged", "former", "withdrawn"
ROLLOUT, CHANNEL, SECURITY = "rollout", "channel", "security"
EVERYONE = 100

# As many releases in a row can be taken back.
MOST_FORMER = 2


def is_older(offer, other):
    """Whether appliances that have the release `offer` take `other`."""
    return rules.is_newer(offer["version"], other["version"])


def is_offer(member):
    """Whether it has a version that others can be compared with."""
    version = member.get("version") if isinstance(member, dict) else None
    return isinstance(version, str) and rules.VERSION_PATTERN.fullmatch(version) is not None


def share_of(offer):
    """Percent of the appliances that are offered it."""
    return offer.get(ROLLOUT, EVERYONE)


class Releases:
    """Made from a pack's member of the reply, which is left as it is; member() gives the changed one."""

    def __init__(self, name, member):
        self._name = name
        self.current = dict(member) if isinstance(member, dict) else {}  # what everyone is offered; perhaps no offer
        self.staged = self._taken_out(STAGED, is_offer)
        self.former = self._taken_out(FORMER, is_offer)
        self.withdrawn = self._taken_out(WITHDRAWN, lambda version: isinstance(version, str))
        if self.staged and not is_offer(self.current):
            raise self._wrong("version")

    def _taken_out(self, key, is_right):
        found = self.current.pop(key, [])
        if not isinstance(found, list) or not all(map(is_right, found)):
            raise self._wrong(key)
        return found

    def _wrong(self, key):
        return MkpackError(
            f'"{key}" of {self._name} in the reply is nothing that mkpack writes, and was left as it is',
            "Correct it, or take it out",
        )

    def member(self):
        """The pack's member of the reply."""
        kept = {STAGED: self.staged, FORMER: self.former, WITHDRAWN: self.withdrawn}
        return {**self.current, **{key: value for key, value in kept.items() if value}}

    def newest_for_all(self, channel=None):
        """The newest release that all appliances of the channel are offered; perhaps no offer."""
        newest = self.current
        for offer in self.staged:
            if share_of(offer) == EVERYONE and offer.get(CHANNEL) == channel and is_older(newest, offer):
                newest = offer
        return newest

    def partial(self, channel=None):
        """The newest release that some appliances of the channel are offered; None without one."""
        newest = None
        for offer in self.staged:
            if share_of(offer) < EVERYONE and offer.get(CHANNEL) in (None, channel):
                newest = offer if newest is None or is_older(newest, offer) else newest
        return newest if newest and is_older(self.newest_for_all(channel), newest) else None

    def channels(self):
        return {offer[CHANNEL] for offer in self.staged if CHANNEL in offer}

    def publish(self, offer, allow_older):
        """Takes in a new release, which names its share and its channel itself."""
        version = offer["version"]
        if version in self.withdrawn and not allow_older:
            raise MkpackError(
                f"{self._name} {version} was withdrawn, and appliances that have it would not install it again",
                "Give a higher --version, or add --allow-older",
            )
        if is_offer(self.current):
            self._refuse_older(offer, allow_older)
        elif offer.keys() & {ROLLOUT, CHANNEL}:
            raise MkpackError(
                f"there is no {self._name} for the appliances that are not to get {version}",
                "Publish one for everyone first, without --rollout and --channel",
            )
        before = self._staged(version)
        if before and before.get(CHANNEL) == offer.get(CHANNEL) and share_of(offer) < share_of(before):
            raise self._smaller(before, "Give that --rollout or a higher one")
        self.withdrawn = [each for each in self.withdrawn if each != version]
        self._place(offer, before)

    def _refuse_older(self, offer, allow_older):
        newest, some = self.newest_for_all(offer.get(CHANNEL)), share_of(offer) < EVERYONE or CHANNEL in offer
        if is_older(offer, newest) and not (allow_older and not some):
            raise MkpackError(
                f"{self._name} {offer['version']} is older than the published {newest['version']}, "
                "so appliances that have that one would not install it",
                "Give a higher --version" + ("" if some else ", or add --allow-older"),
            )
        if some and not is_older(newest, offer):
            raise MkpackError(
                f"{self._name} {newest['version']} is offered to all these appliances already",
                "Give a higher --version",
            )

    def set_share(self, version, percent, promote, allow_smaller):
        """Offers a published release to so many percent of the appliances; `promote` takes it out of its channel."""
        offer = self._published(version)
        promoted = promote and CHANNEL in offer
        if percent < share_of(offer) and not promoted and not allow_smaller:
            raise self._smaller(offer, "Give a higher share, or add --allow-smaller")
        if offer is self.current and percent < EVERYONE:
            self._give_back(version)
        changed = {key: value for key, value in offer.items() if key != ROLLOUT and not (promoted and key == CHANNEL)}
        if percent < EVERYONE:
            changed[ROLLOUT] = percent
        self._place(changed, offer)

    def set_security(self, version, is_security):
        """Marks a published release as a security release, or takes the mark back."""
        offer = self._published(version)
        unmarked = {key: value for key, value in offer.items() if key != SECURITY}
        self._place({**unmarked, SECURITY: True} if is_security else unmarked, offer)

    def withdraw(self, version):
        """Offers the release to nobody any more, and the one before it in its place."""
        if version in self.withdrawn:
            raise MkpackError(f"{self._name} {version} has been withdrawn already", "There is nothing to do")
        known = [*self.staged, *self.former]
        if self.current.get("version") == version:
            self._give_back(version)
        elif version not in (offer["version"] for offer in known):
            raise self._unknown(version)
        self.staged = [offer for offer in self.staged if offer["version"] != version]
        self.former = [offer for offer in self.former if offer["version"] != version]
        self.withdrawn = [*self.withdrawn, version]

    def _give_back(self, version):
        """Offers everyone the former release."""
        if not self.former:
            raise MkpackError(
                f"there is no release before {self._name} {version} to offer in its place",
                "Publish another one with mkpack publish",
            )
        self.current, *self.former = self.former

    def _published(self, version):
        """The release, whoever is offered it."""
        offer = self._staged(version)
        if offer is None and self.current.get("version") == version:
            offer = self.current
        if offer is None:
            raise self._unknown(version)
        return offer

    def _staged(self, version):
        return next((offer for offer in self.staged if offer["version"] == version), None)

    def _place(self, offer, before):
        """Puts the offer where its share and its channel say, in place of the one `before`."""
        self.staged = [each for each in self.staged if each is not before]
        if share_of(offer) < EVERYONE:
            self._refuse_second(offer)
        if offer.keys() & {ROLLOUT, CHANNEL}:
            self.staged.append(offer)
        else:
            if is_offer(self.current) and is_older(self.current, offer):
                self.former = [self.current, *self.former][:MOST_FORMER]
            self.current = offer
        self.staged = [each for each in self.staged if self._is_wanted(each)]

    def _refuse_second(self, offer):
        for other in self.staged:
            if share_of(other) < EVERYONE and other.get(CHANNEL) == offer.get(CHANNEL):
                raise MkpackError(
                    f"{self._name} {other['version']} is still offered to {share_of(other)} % of the appliances",
                    f"Raise that to 100% with mkpack rollout, or take {other['version']} back with mkpack withdraw",
                )

    def _is_wanted(self, offer):
        """Whether anyone would take it: it is newer than what all are offered anyway."""
        if not is_older(self.current, offer):
            return False
        newest = self.newest_for_all(offer.get(CHANNEL))
        return newest is offer or is_older(newest, offer)

    def _smaller(self, offer, remedy):
        return MkpackError(
            f"{self._name} {offer['version']} is offered to {share_of(offer)} % already, "
            "and appliances that have it keep it",
            remedy,
        )

    def _unknown(self, version):
        offers = [self.current, *self.staged]
        known = " and ".join(offer["version"] for offer in offers if is_offer(offer)) or "none"
        return MkpackError(f"{self._name} {version} is not published, but {known}", "Name a published version")
