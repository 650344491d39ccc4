"""Verifies what a web server gives: the reply, and of each package as much as tells how it is served."""

import dataclasses
import email.message
import http.client
import re
import urllib.error
import urllib.parse
import urllib.request

from orbamira_mkpack import reply
from orbamira_mkpack.report import Report

TIMEOUT = 30
# An old reply hides a release, and taking one back, for as long as caches may give it.
MAX_REPLY_AGE = 86_400
_HOSTING = "see the page on hosting packs"
_OTHER_TAG = '"another"'


@dataclasses.dataclass
class Answer:
    """What a server answered, at the address that redirects ended at."""

    status: int
    address: str
    headers: email.message.Message
    body: bytes

    def max_age(self):
        """Seconds that caches may keep it; None when it does not say."""
        found = re.search(r"\bmax-age=(\d+)", self.headers.get("Cache-Control", ""))
        return int(found[1]) if found else None

    def has_validator(self):
        """Whether it can be told later if the body is still the same, byte for byte."""
        tag = self.headers.get("ETag", "")
        return bool(tag and not tag.startswith("W/")) or "Last-Modified" in self.headers


class Unreachable(Exception):
    """Why there is no answer."""


def _ask(address, method="GET", most=0, **headers):
    """The answer, with at most so many bytes of its body. Redirects are followed, ten at most."""
    headers = {name.replace("_", "-"): text for name, text in headers.items()}
    request = urllib.request.Request(address, method=method, headers=headers)
    try:
        with urllib.request.urlopen(request, timeout=TIMEOUT) as answer:
            return Answer(answer.status, answer.url, answer.headers, answer.read(most))
    except urllib.error.HTTPError as error:
        with error:
            return Answer(error.code, error.url, error.headers, b"")
    except urllib.error.URLError as error:
        raise Unreachable(str(error.reason)) from error
    except (OSError, http.client.HTTPException, ValueError) as error:
        raise Unreachable(str(error)) from error


def _question(appliance):
    """The query of an appliance's request."""
    return urllib.parse.urlencode(
        {"identify": "orbamira", "unique": appliance, "version": "1.0.0", "kos_version": "1.0-1"}
    )


class Served:
    """The reply at an address, and the packages that it names."""

    def __init__(self, address, base_url=None):
        self._address = address
        self._base_url = base_url
        self._report = Report()

    def verify(self):
        members = self._read_reply()
        if members is not None:
            for _, about, offer in reply.judge(members, self._base_url, self._report):
                self._verify_pack(about, offer)
        return self._report

    def _ask(self, about, address, **question):
        """None, and a finding, when there is no answer."""
        try:
            return _ask(address, **question)
        except Unreachable as error:
            self._report.found(
                about, f"{address} cannot be reached: {error}", "see that the server runs and is named right"
            )
            return None

    def _read_reply(self):
        answers = [
            self._ask("the reply", f"{self._address}?{_question(appliance)}", most=reply.MAX_SIZE + 1)
            for appliance in ("mkpack-1", "mkpack-2")
        ]
        first, second = answers
        if not first or not second:
            self._report.findings = self._report.findings[:1]
            return None
        if first.status != 200:
            self._report.found(
                "the reply",
                f"{self._address} answers with status {first.status}, so each check fails",
                "serve the folder there, whatever query follows the address",
            )
            return None
        self._verify_reply_headers(first)
        if first.body != second.body:
            self._report.notes.append("the reply depends on the query, so no cache can give it to all appliances")
        try:
            return reply.parse(first.body)
        except reply.ReplyError as error:
            self._report.found(
                "the reply", f"no appliance takes it, since {error}", "serve the reply that mkpack wrote"
            )
            return None

    def _verify_reply_headers(self, answer):
        age = answer.max_age()
        if age is not None and age > MAX_REPLY_AGE:
            self._report.found(
                "the reply",
                f"caches may keep it for {age} seconds, so long nobody sees a release",
                "set Cache-Control: public, max-age=300",
            )
        if "Cache-Control" not in answer.headers:
            self._report.notes.append("the reply has no Cache-Control: caches keep it for as long as they think fit")
        if answer.headers.get_content_type() != "application/json":
            self._report.notes.append(
                f"the reply has the type {answer.headers.get_content_type()}, which is " "application/json by right"
            )
        if not answer.has_validator():
            self._report.notes.append("the reply has neither an ETag nor Last-Modified: caches fetch it anew each time")
        self._verify_redirect("the reply", self._address, answer)

    def _verify_redirect(self, about, address, answer):
        if address.startswith("https:") and not answer.address.startswith("https:"):
            self._report.found(
                about, f"{address} leads to {answer.address}, which is not protected", "lead to an https address"
            )

    def _verify_pack(self, name, member):
        link = member["link"]
        # Offered compression must not be taken: what is compressed on the way has no ranges.
        answer = self._ask(name, link, most=1, Range="bytes=0-0", Accept_Encoding="gzip")
        if not answer:
            return
        if answer.status not in (200, 206):
            self._report.found(name, f"{link} answers with status {answer.status}", "put the package there")
            return
        self._report.packs[name] = {"version": member["version"], "link": link}
        self._verify_redirect(name, link, answer)
        if answer.headers.get("Content-Encoding", "identity") != "identity":
            self._report.found(name, f"{link} is compressed on the way", "switch compression off for packages")
            return
        self._verify_size(name, link, member, answer)
        self._verify_resuming(name, link, answer)
        if "immutable" not in answer.headers.get("Cache-Control", ""):
            self._report.notes.append(
                f"{link} may be kept for ever, and does not say so: Cache-Control: public, "
                "max-age=31536000, immutable"
            )
        head = self._ask(name, link, method="HEAD")
        if head and head.status != 200:
            self._report.notes.append(
                f"{link} answers HEAD with status {head.status}: packctl doctor learns no size " "from it"
            )

    def _verify_size(self, name, link, member, answer):
        field = "Content-Range" if answer.status == 206 else "Content-Length"
        found = re.search(r"(\d+)$", answer.headers.get(field, ""))
        if not found:
            self._report.notes.append(f"{link} does not tell its size")
        elif "size" in member and int(found[1]) != member["size"]:
            self._report.found(
                name,
                f"{link} has {found[1]} bytes, and the reply says {member['size']}",
                "copy the package there again, and empty caches of it",
            )

    def _verify_resuming(self, name, link, answer):
        if answer.status == 200:
            self._report.found(
                name,
                f"{link} is given without ranges, so a cut download begins anew",
                "switch ranges on for packages; " + _HOSTING,
            )
        elif not answer.has_validator():
            self._report.found(
                name,
                f"{link} has neither a strong ETag nor Last-Modified, so a cut download " "begins anew",
                "let the server give one; " + _HOSTING,
            )
        else:
            other = self._ask(name, link, most=1, Range="bytes=0-0", If_Range=_OTHER_TAG)
            if other and other.status == 206:
                self._report.found(
                    name,
                    f"{link} is given in part although If-Range names another, so a download may " "become a mixture",
                    "let the server heed If-Range; " + _HOSTING,
                )
