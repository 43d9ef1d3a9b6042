#!/usr/bin/env python3
"""Reports the certificates in local PEM files that have expired or soon will.

    certificate-expiry.py --days N PATH [PATH]...

A PATH is a PEM file or a directory that is searched for them (.pem, .crt, .cer). A path that does
not exist is skipped: one list of paths serves computers of different kinds. A certificate that
several files hold is reported once.

Exit status: 0 none is due within N days, 3 at least one is, 1 a file could not be read, 2 wrong
arguments.
"""

import argparse
import base64
import datetime
import hashlib
import os
import re
import sys

PEM_BLOCK = re.compile(rb"-----BEGIN (?:TRUSTED )?CERTIFICATE-----(.*?)-----END", re.DOTALL)
SUFFIXES = (".pem", ".crt", ".cer")
ORGANISATION = b"\x55\x04\x0a"
COMMON_NAME = b"\x55\x04\x03"


def split_der(data):
    """Yields (tag, content) of each DER value that `data` holds one after the other."""
    position = 0
    while position < len(data):
        tag, length = data[position], data[position + 1]
        position += 2
        if length & 0x80:
            count = length & 0x7F
            length = int.from_bytes(data[position : position + count], "big")
            position += count
        if position + length > len(data):
            raise ValueError("truncated certificate")
        yield tag, data[position : position + length]
        position += length


def first_value(data):
    for _, content in split_der(data):
        return content
    raise ValueError("empty certificate")


def parse_time(tag, content):
    """The moment that an ASN.1 UTCTime (23) or GeneralizedTime (24) names."""
    text = content.decode("ascii")
    if tag == 23:
        # Two digits of the year: from 50 on they belong to the twentieth century.
        text = ("19" if text[:2] >= "50" else "20") + text
    moment = datetime.datetime.strptime(text, "%Y%m%d%H%M%SZ")
    return moment.replace(tzinfo=datetime.timezone.utc)


def name_of(subject):
    """The common name of a subject, or its organisation when it has none."""
    found = {}
    for _, relative_name in split_der(subject):
        for _, attribute in split_der(relative_name):
            (_, kind), (_, value) = split_der(attribute)
            found.setdefault(kind, value.decode("utf-8", "replace"))
    return found.get(COMMON_NAME) or found.get(ORGANISATION) or "(no name)"


def read_certificate(der):
    """The subject's name and the end of validity of one certificate."""
    certificate = first_value(der)
    fields = list(split_der(first_value(certificate)))
    if fields[0][0] == 0xA0:  # The version is left out in certificates of the first version.
        fields = fields[1:]
    _serial, _algorithm, _issuer, (_, validity), (_, subject) = fields[:5]
    _, (tag, not_after) = split_der(validity)
    return name_of(subject), parse_time(tag, not_after)


def files_below(path):
    if not os.path.isdir(path):
        yield path
        return
    for directory, subdirectories, names in os.walk(path):
        subdirectories.sort()
        for name in sorted(names):
            if name.lower().endswith(SUFFIXES):
                yield os.path.join(directory, name)


def collect(paths):
    """All certificates by their fingerprint, and the files that could not be read."""
    certificates, unreadable = {}, []
    for path in paths:
        if not os.path.exists(path):
            continue
        for file in files_below(path):
            try:
                with open(file, "rb") as stream:
                    blocks = PEM_BLOCK.findall(stream.read())
                for block in blocks:
                    der = base64.b64decode(block)
                    fingerprint = hashlib.sha256(der).hexdigest()
                    if fingerprint not in certificates:
                        certificates[fingerprint] = (*read_certificate(der), file)
            except FileNotFoundError:
                continue  # A link whose certificate is gone.
            except (OSError, ValueError, IndexError) as error:
                unreadable.append(f"{file}: {error}")
    return list(certificates.values()), unreadable


def main():
    parser = argparse.ArgumentParser(description="Reports certificates that soon expire.")
    parser.add_argument("--days", type=int, required=True)
    parser.add_argument("paths", nargs="+", metavar="PATH")
    options = parser.parse_args()

    certificates, unreadable = collect(options.paths)
    now = datetime.datetime.now(datetime.timezone.utc)
    limit = now + datetime.timedelta(days=options.days)
    due = sorted((end, name, file) for name, end, file in certificates if end < limit)

    print(f"{len(certificates)} certificates looked at, {len(due)} due within {options.days} days")
    for end, name, file in due:
        word = "EXPIRED" if end < now else "expires"
        print(f"  {word} {end:%Y-%m-%d}  {name}  ({file})")
    for problem in unreadable:
        print(f"  not readable: {problem}")
    if unreadable:
        return 1
    return 3 if due else 0


if __name__ == "__main__":
    sys.exit(main())
