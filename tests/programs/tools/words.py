"""What libraries call their errors: asked of the libraries, since every release may say it in other words."""

import ctypes
import json
import re

# X509_V_ERR_...
UNKNOWN_ISSUER = 20
SELF_SIGNED = 18
NOT_YET_VALID = 9
EXPIRED = 10
NO_AUTHORITY = 79
WEAK_KEY = 66

_crypto = ctypes.CDLL("libcrypto.so.3")
_crypto.X509_verify_cert_error_string.restype = ctypes.c_char_p


def certificate_error(number):
    """A pattern of what OpenSSL says of a certificate that it does not trust for this reason."""
    return ".*" + re.escape(_crypto.X509_verify_cert_error_string(ctypes.c_long(number)).decode())


def json_error(text):
    """What Python says of a text that is no JSON."""
    try:
        json.loads(text)
    except (ValueError, RecursionError) as error:
        return str(error)
    raise AssertionError(f"{text!r} is JSON")
