"""A throwaway certificate authority and what it signs, made with the openssl command."""

import os
import subprocess


def _openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True, timeout=60)


def self_signed(path):
    """Makes a key and a certificate for 127.0.0.1 that vouches for itself; gives their paths."""
    certificate, key = path + ".pem", path + ".key"
    _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-keyout", key, "-out", certificate, "-days", "2", "-subj", "/CN=127.0.0.1",
             "-addext", "subjectAltName=IP:127.0.0.1")
    return certificate, key


class Authority:
    """An authority whose files lie in `directory`."""

    def __init__(self, directory, name="Test Authority"):
        os.makedirs(directory)
        self._directory = directory
        self.file = os.path.join(directory, "ca.pem")
        self._key = os.path.join(directory, "ca.key")
        _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-keyout", self._key, "-out", self.file, "-days", "2", "-subj", f"/CN={name}")
        with open(os.path.join(directory, "index.txt"), "w", encoding="utf-8"):
            pass
        with open(os.path.join(directory, "authority.conf"), "w", encoding="utf-8") as config:
            config.write(
                "[ca]\ndefault_ca = this\n[this]\n"
                f"database = {directory}/index.txt\nnew_certs_dir = {directory}\n"
                "rand_serial = yes\ndefault_md = sha256\npolicy = any\ncopy_extensions = copy\n"
                "unique_subject = no\n[any]\ncommonName = supplied\n")

    def sign(self, name, subject_alternative="IP:127.0.0.1", start=None, end="20991231235959Z"):
        """Makes a key and a certificate, `name`.pem and `name`.key; gives their paths. The times
        are written as YYYYMMDDHHMMSSZ; the start is now when absent."""
        key = os.path.join(self._directory, f"{name}.key")
        request = os.path.join(self._directory, f"{name}.csr")
        certificate = os.path.join(self._directory, f"{name}.pem")
        _openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-keyout", key, "-out", request, "-subj", f"/CN={name}",
                 "-addext", f"subjectAltName={subject_alternative}")
        times = ["-enddate", end] + (["-startdate", start] if start else [])
        _openssl("ca", "-batch", "-notext", "-config",
                 os.path.join(self._directory, "authority.conf"), "-cert", self.file, "-keyfile",
                 self._key, "-in", request, "-out", certificate, *times)
        return certificate, key
