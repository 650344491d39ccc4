"""Checks what a signed package says of itself, as an appliance with a keyring does."""

import hashlib
import os
import re
import subprocess
import tempfile

from orbamira_mkpack import manifest, rules
from orbamira_mkpack.archive import Refused

MIN_DIGEST_SIZE = 32


def check_manifest(package):
    """Refuses a package that is not what its manifest says and lists; returns the facts."""
    for name in (rules.MANIFEST_NAME, rules.SIGNATURE_NAME):
        if name not in package.texts:
            raise Refused(f"there is no {name} in it")
    facts, listed = manifest.parse(package.texts[rules.MANIFEST_NAME])
    for name, digest in package.digests.items():
        if name not in (rules.MANIFEST_NAME, rules.SIGNATURE_NAME) and listed.pop(name, "") != digest:
            raise Refused(f"{name} does not match {rules.MANIFEST_NAME}")
    for name in listed:
        raise Refused(f"{name} is in {rules.MANIFEST_NAME}, but not in the package")
    if facts:
        _check_facts(package, facts)
    return facts


def _check_facts(package, facts):
    for key, info_key in (("pack", "package"), ("version", "version")):
        if package.info(info_key) != facts[key]:
            raise Refused(f"INFO says {info_key} {package.info(info_key)!r}, and {rules.MANIFEST_NAME} {facts[key]!r}")
    if facts["product"] != rules.PRODUCT:
        raise Refused(f"it is made for the product {facts['product']}, not for {rules.PRODUCT}")
    last = manifest.last_day(facts)
    if last and last < manifest.today():
        raise Refused(f"it was to be installed until {last}")


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
