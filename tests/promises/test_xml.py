"""XML is only data: hostile documents in whole requests, with what they cost."""

import os
import time

from hostile_server import HostileServer
from promise_case import MEBIBYTE, PromiseCase, needs_strace
from support.repository import DIRECTORY, LIST_PATH

ENTRY = ("<ScriptRepo><script_id>{id}</script_id><file_id>f{id}</file_id>"
         "<modified_time>1</modified_time><ScriptPathMapping><filepath>"
         f"{DIRECTORY}/{{id}}.xml</filepath></ScriptPathMapping></ScriptRepo>")


def document(inside, prolog=""):
    """A list with the entry that a request asks for, and something else."""
    return f"{prolog}<scripts-meta>{ENTRY.format(id=42)}{inside}</scripts-meta>".encode()


def bomb(levels=30):
    entities = "".join(
        f"<!ENTITY a{level} '" + f"&a{level - 1};" * 10 + "'>" for level in range(1, levels + 1))
    return f"<!DOCTYPE scripts-meta [<!ENTITY a0 'xxxxxxxxxx'>{entities}"


class WholeRequestTest(PromiseCase):
    """Each document as the server's list, and what the request makes of it."""

    def setUp(self):
        super().setUp()
        self.put(text="echo done\n")
        self.outside = self.path("outside")
        self.write(self.outside, b"outside")
        self.web = HostileServer(self.repository.root)
        self.addCleanup(self.web.stop)

    def external(self, address):
        """Documents that name the address in every way there is."""
        declared = f"<!DOCTYPE scripts-meta [<!ENTITY e SYSTEM '{address}'>]>"
        return {
            "a document type": document("", f"<!DOCTYPE scripts-meta SYSTEM '{address}'>"),
            "an entity": document("<x>&e;</x>", declared),
            "an entity in an attribute": document("<x a='&e;'/>", declared),
            "a parameter entity": document(
                "", f"<!DOCTYPE scripts-meta [<!ENTITY % p SYSTEM '{address}'> %p;]>"),
            "an unparsed entity": document(
                "", "<!DOCTYPE scripts-meta [<!NOTATION n SYSTEM 'n'>"
                    f"<!ENTITY e SYSTEM '{address}' NDATA n>]>"),
            "an inclusion": document(
                f"<i:include xmlns:i='http://www.w3.org/2001/XInclude' href='{address}'/>"),
            "a style sheet": document("", f"<?xml-stylesheet href='{address}'?>"),
            "a schema": document(
                "<x xmlns:s='http://www.w3.org/2001/XMLSchema-instance' "
                f"s:noNamespaceSchemaLocation='{address}'/>"),
        }

    @staticmethod
    def documents():
        """Name, bytes, whether a request with this list runs the script, and how many times its
        size the document may cost in memory."""
        deep = 10**6
        utf16 = document("").decode().encode("utf-16")
        entries = "".join(ENTRY.format(id=number) for number in range(100, 100 + 10**6))
        return (
            ("depth 10^6", document("<d>" * deep + "</d>" * deep), True, 40),
            ("depth 10^6, cut short", document("")[:-15] + b"<d>" * deep, False, 80),
            ("an attribute of 100 MB", document(f"<x a='{'v' * 10**8}'/>"), True, 6),
            ("a text of 100 MB", document(f"<x>{'v' * 10**8}</x>"), True, 6),
            ("a name of 100 MB", document(f"<{'v' * 10**8}/>"), True, 8),
            ("10^6 attributes",
             document("<x" + "".join(f" a{number}=''" for number in range(10**6)) + "/>"),
             True, 40),
            ("10^6 entries", document(entries), True, 12),
            ("an entity bomb", document("<x>&a30;</x>", bomb() + "]>"), False, 0),
            ("an entity bomb in an attribute", document("<x a='&a30;'/>", bomb() + "]>"), False, 0),
            ("an entity bomb in a default", document(
                "", bomb() + "<!ATTLIST ScriptRepo x CDATA '&a30;'>]>"), False, 0),
            ("a quadratic bomb", document(
                "<x>" + "&e;" * 10**5 + "</x>",
                f"<!DOCTYPE scripts-meta [<!ENTITY e '{'v' * 10**5}'>]>"), False, 20),
            ("a NUL", document("<x>\0</x>"), False, 0),
            ("a NUL behind", document("") + b"\0", False, 0),
            ("NULs alone", bytes(10**6), False, 20),
            ("UTF-16", utf16, True, 0),
            ("UTF-16, other order", document("").decode().encode("utf-16-be"), True, 0),
            ("UTF-16, cut in a character", utf16[:-1], False, 0),
            ("UTF-16, half a surrogate pair",
             document("<x>?a</x>").decode().encode("utf-16-le").replace(b"?\0", b"\x3d\xd8"),
             False, 0),
            ("UTF-8, declared UTF-16", document("", "<?xml version='1.0' encoding='UTF-16'?>"),
             False, 0),
            ("UTF-16, declared UTF-8",
             document("", "<?xml version='1.0' encoding='UTF-8'?>").decode().encode("utf-16"),
             False, 0),
            ("no UTF-8, declared UTF-8",
             document("<x>\udcff</x>".encode("utf-8", "surrogateescape").decode("latin-1"),
                      "<?xml version='1.0' encoding='UTF-8'?>").decode().encode("latin-1"),
             False, 0),
            ("an unknown encoding",
             document("", "<?xml version='1.0' encoding='x-none'?>"), False, 0),
            ("XML 1.1", document("", "<?xml version='1.1'?>"), True, 0),
            ("XML 2.0", document("", "<?xml version='2.0'?>"), False, 0),
            ("two documents", document("") * 2, False, 0),
            ("nothing", b"", False, 0),
        )

    def check(self, name, content, runs, factor):
        shown = f"{len(content) / 1e6:.1f} MB" if len(content) >= 10**5 else f"{len(content)} bytes"
        self.write(self.repository.root + LIST_PATH, content)
        began = time.monotonic()
        result, memory = self.run_measured("run", "42")
        seconds = time.monotonic() - began
        self.assertEqual((result.status, result.output), (0, "done\n") if runs else (3, ""),
                         result.error[-2000:])
        self.assert_memory(memory, 64 * MEBIBYTE + factor * len(content), name)
        return (f"{name} ({shown}): {'decoded' if result.status == 0 else 'absent'}, "
                f"{seconds:.1f} s, {memory / MEBIBYTE:.0f} MiB")

    def test_each_costs_time_and_memory_in_proportion(self):
        costs = []
        for name, content, runs, factor in self.documents():
            with self.case(document=name):
                costs.append(self.check(name, content, runs, factor))
        for cost in costs:
            self.figure(cost)

    @needs_strace
    def test_no_file_and_no_address_is_touched(self):
        count = 0
        for address in (f"file://{self.outside}", self.outside, self.web.url + "/outside",
                        self.web.url.replace("http:", "ftp:") + "/outside"):
            for name, content in self.external(address).items():
                with self.case(document=name, address=address):
                    self.write(self.repository.root + LIST_PATH, content)
                    result, lines = self.traced("open,openat,stat,lstat,newfstatat,access,socket",
                                                "run", "42")
                    self.assertIn(result.status, (0, 3), result.error)
                    self.assertTrue(any(LIST_PATH in line for line in lines))
                    self.assertFalse([line for line in lines if self.outside in line])
                    self.assertFalse([line for line in lines if "AF_INET" in line])
                    count += 1
        self.assertEqual(self.web.connections, 0)
        self.assertEqual(os.listdir(os.path.dirname(self.outside)).count("outside"), 1)
        self.figure(f"{count} documents that name a file or an address: 0 opened, 0 connections")
