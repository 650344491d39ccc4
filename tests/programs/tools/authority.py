"""Keys and certificates for tests, made by the program openssl in a folder of their own."""

import pathlib
import subprocess

EC_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")
LEAF = "basicConstraints=CA:FALSE"
INTERMEDIATE = "basicConstraints=critical,CA:TRUE"


class Authority:
    """Issues NAME.pem with the private key NAME.key in the folder; "ca" is there from the start."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.issue("ca", None)

    def openssl(self, *arguments, check=True):
        return subprocess.run(
            ["openssl", *map(str, arguments)],
            cwd=self.folder,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=600,
            check=check,
        )

    def issue(self, name, issuer, extension=LEAF, days=2, key=EC_KEY):
        """Makes a certificate that is signed by `issuer`, or by itself where there is none; returns its path."""
        common = [*key, "-nodes", "-keyout", f"{name}.key", "-subj", f"/CN={name}"]
        if issuer is None:
            self.openssl("req", "-x509", *common, "-days", days, "-out", f"{name}.pem")
        else:
            self.request(common, name, extension)
            self.openssl(
                *("x509", "-req", "-in", f"{name}.csr", "-CA", f"{issuer}.pem", "-CAkey", f"{issuer}.key"),
                *("-CAcreateserial", "-days", days, "-extfile", "extensions", "-out", f"{name}.pem"),
            )
        return self.folder / f"{name}.pem"

    def issue_for_the_future(self, name, issuer):
        """Like issue(), but valid only from the year 2099 on."""
        self.request([*EC_KEY, "-nodes", "-keyout", f"{name}.key", "-subj", f"/CN={name}"], name, LEAF)
        (self.folder / "index.txt").touch()
        (self.folder / "ca.conf").write_text(
            "[ca]\ndefault_ca=own\n[own]\ndatabase=index.txt\nnew_certs_dir=.\ndefault_md=sha256\nrand_serial=yes\n"
            "policy=any\n[any]\ncommonName=supplied\n"
        )
        self.openssl(
            *("ca", "-batch", "-config", "ca.conf", "-in", f"{name}.csr", "-cert", f"{issuer}.pem"),
            *("-keyfile", f"{issuer}.key", "-extfile", "extensions", "-startdate", "20990101000000Z"),
            *("-enddate", "20990201000000Z", "-notext", "-out", f"{name}.pem"),
        )
        return self.folder / f"{name}.pem"

    def request(self, common, name, extension):
        self.openssl("req", "-new", *common, "-out", f"{name}.csr")
        (self.folder / "extensions").write_text(extension + "\n")
