"""Checks what a signed package says of itself, as an appliance with a keyring does."""

import hashlib
import os
import re
import subprocess
import tempfile

from orbamira_mkpack import rules
from orbamira_mkpack.archive import Refused

MIN_DIGEST_SIZE = 32
_LINE = re.compile(r"([0-9a-f]{64})  (.+)", re.DOTALL)


def check_manifest(package):
    """Refuses a package whose members are not exactly those that its manifest lists."""
    for name in (rules.MANIFEST_NAME, rules.SIGNATURE_NAME):
        if name not in package.texts:
            raise Refused(f"there is no {name} in it")
    lines = package.texts[rules.MANIFEST_NAME].decode("utf-8", "surrogateescape").split("\n")
    matches = [_LINE.fullmatch(line) for line in lines[:-1]]
    listed = {match[2]: match[1] for match in matches if match}
    if lines[-1] or len(listed) != len(lines) - 1:
        raise Refused(f"{rules.MANIFEST_NAME} is damaged")
    for name, digest in package.digests.items():
        if name not in (rules.MANIFEST_NAME, rules.SIGNATURE_NAME) and listed.pop(name, "") != digest:
            raise Refused(f"{name} does not match {rules.MANIFEST_NAME}")
    for name in listed:
        raise Refused(f"{name} is in {rules.MANIFEST_NAME}, but not in the package")


def _openssl(*arguments, stdin=b""):
    """What openssl prints. Refuses with its words when it fails."""
    try:
        done = subprocess.run(["openssl", *arguments], input=stdin, capture_output=True, check=False)
    except FileNotFoundError:
        raise Refused("the signature cannot be checked without the program openssl") from None
    if done.returncode != 0:
        words = done.stderr.decode("utf-8", "replace").strip().split("\n")[-1]
        # The fields of an error are its process, "error", a number, the library, the function, the reason, its place
        # and more about it.
        fields = [field.strip() for field in words.split(":", 8)]
        raise Refused((fields[-1] or fields[5]) if len(fields) > 5 else words)
    return done.stdout


def _check_digests(signature):
    """openssl takes a message without signers for well signed, and any digest that it knows."""
    text = _openssl("cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", signature).decode("utf-8", "replace")
    names = re.findall(r"^ +digestAlgorithm: *\n +algorithm: (\S+)", text, flags=re.MULTILINE)
    if not names:
        raise Refused("the signature has no signer")
    for name in names:
        name = name.replace("-", "_")  # as Python spells it
        if name not in hashlib.algorithms_available or hashlib.new(name).digest_size < MIN_DIGEST_SIZE:
            raise Refused(f"signed with {name}, a weak digest")


def _check_key_usage(certificates):
    """A certificate that says what its key is for must say that it is for signatures."""
    for certificate in rules.CERTIFICATE_PATTERN.findall(certificates):
        usage = _openssl("x509", "-noout", "-ext", "keyUsage", stdin=certificate)
        if b"Key Usage" in usage and b"Digital Signature" not in usage:
            raise Refused("the key usage of the signer's certificate has no digitalSignature")


def check_signature(package, keyring):
    """Refuses a package that nobody whom the file of certificates trusts vouches for now."""
    with tempfile.TemporaryDirectory(prefix="mkpack-") as folder:
        manifest, signature, signers = (
            os.path.join(folder, name) for name in (rules.MANIFEST_NAME, rules.SIGNATURE_NAME, "signers.pem")
        )
        for path, name in ((manifest, rules.MANIFEST_NAME), (signature, rules.SIGNATURE_NAME)):
            with open(path, "wb") as file:
                file.write(package.texts[name])
        _check_digests(signature)
        # The keyring is all that is trusted: nothing of this machine is.
        _openssl(
            *("cms", "-verify", "-binary", "-inform", "DER", "-in", signature, "-content", manifest),
            *("-out", os.devnull, "-signer", signers),
            *("-CAfile", os.path.abspath(keyring), "-no-CApath", "-no-CAstore", "-partial_chain"),
            *("-auth_level", "2", "-purpose", "any"),
        )
        with open(signers, "rb") as file:
            _check_key_usage(file.read())
