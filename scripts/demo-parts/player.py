#!/usr/bin/python3
"""A plugin of an application that plays: when a pack is in place, it loads the decoders and asks for their versions."""

import ctypes
import os
import sys

PACK = os.environ["ORBAMIRA_ROOT"] + "/var/lib/orbamira/packages/codec-pack"


def hevc_version():
    library = ctypes.CDLL(PACK + "/lib/libde265.so.0")
    library.de265_get_version.restype = ctypes.c_char_p
    return library.de265_get_version().decode()


def aac_version():
    library = ctypes.CDLL(PACK + "/lib/libfaad.so.2")
    version, copyright_text = ctypes.c_char_p(), ctypes.c_char_p()
    library.NeAACDecGetVersion(ctypes.byref(version), ctypes.byref(copyright_text))
    return version.value.decode()


def tell(text):
    print(text)
    with open(os.environ["DEMO_PLUGIN_LOG"], "a", encoding="utf-8") as log:
        print(text, file=log)


if sys.argv[1:] == ["--app-id"]:
    print("com.example.player")
    sys.exit()
step = dict(zip(sys.argv[1::2], sys.argv[2::2]))
if (step["--event"], step["--timing"]) == ("install", "post"):
    tell(f"loaded libde265 {hevc_version()}")
    if os.path.exists(PACK + "/has_aac"):
        tell(f"loaded libfaad {aac_version()}")
