"""What a start of the command loads, and what becomes of one that lacks something of it."""

import os
import subprocess
import sys
import unittest

from support.case import CommandCase


@unittest.skipIf(sys.platform == "darwin", "linked to the system's libraries there")
class LibcurlTest(CommandCase):
    """The library that speaks HTTP is loaded by who asks a server over it, and by nobody else."""

    verbose = False

    def setUp(self):
        super().setUp()
        self.put()

    def assert_loads(self, expected, *arguments):
        told = self.path("loader")
        result = self.run_command(
            *arguments, environment=self.environment(LD_DEBUG="files", LD_DEBUG_OUTPUT=told))
        self.assertEqual(result.status, 0, result.error)
        loaded = set()
        for name in os.listdir(self.directory):
            if not name.startswith("loader."):
                continue
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                text = file.read()
            loaded.update(library for library in ("libsqlite3.so", "libcurl.so")
                          if f"file={library}" in text)
            os.remove(self.path(name))
        self.assertEqual(loaded, {"libsqlite3.so"} | ({"libcurl.so"} if expected else set()))

    def test_a_server_of_files_is_asked_without_it(self):
        for arguments in (("run", "42"), ("plan", "42"), ("list", "--server"), ("prune",), ("list",)):
            with self.subTest(arguments):
                self.assert_loads(False, *arguments)

    def test_a_web_server_is_asked_with_it(self):
        self.serve()
        self.assert_loads(True, "run", "42")
        self.assert_loads(True, "plan", "42")

    def test_its_other_libraries_set_nothing_up(self):
        self.put(text="echo \"[$GNUTLS_NO_IMPLICIT_INIT]\"\n")
        self.serve()
        # The one that libcurl has for other protocols tells of it.
        result = self.run_command("run", "42",
                                  environment=self.environment(GNUTLS_DEBUG_LEVEL="2"))
        self.assertEqual((result.status, result.output, result.error), (0, "[]\n", ""))
        result = self.run_command("run", "42",
                                  environment=self.environment(GNUTLS_NO_IMPLICIT_INIT="0"))
        self.assertEqual((result.status, result.output, result.error), (0, "[0]\n", ""))

    def test_a_list_of_what_is_here_does_without_it_whatever_the_server_is(self):
        self.server = "https://127.0.0.1"
        self.assert_loads(False, "list")

    def test_without_it_the_reason_says_so(self):
        self.serve()
        # Found in its place, and no library.
        broken = self.path("libraries")
        os.mkdir(broken)
        with open(os.path.join(broken, "libcurl.so.4"), "w", encoding="ascii") as file:
            file.write("no library\n")
        without = self.environment(LD_LIBRARY_PATH=broken)
        for arguments, status in ((("run", "42"), 3), (("plan", "42"), 3), (("prune",), 3)):
            result = self.run_command(*arguments, environment=without)
            self.assertEqual(result.status, status, result.error)
            self.assertRegex(result.output + result.error,
                             f"can't be fetched from .*: libcurl can't be loaded: "
                             f"{broken}/libcurl.so.4: ")
        self.assertEqual(self.run_command("list", environment=without).status, 0)

    def test_one_that_lacks_what_it_needs_is_no_library_either(self):
        self.serve()
        # It has all that is asked of it, and asks for what nobody has as soon as it is called.
        libraries = self.path("libraries")
        os.mkdir(libraries)
        names = ("easy_cleanup easy_getinfo easy_init easy_perform easy_reset easy_setopt "
                 "easy_strerror free global_init slist_append slist_free_all url url_cleanup "
                 "url_get url_set url_strerror").split()
        source = self.path("libcurl.c")
        with open(source, "w", encoding="ascii") as file:
            file.write("void varn_is_nowhere(void);\n")
            file.writelines(f"void *curl_{name}(void) {{ varn_is_nowhere(); return 0; }}\n"
                            for name in names)
        subprocess.run(["cc", "-shared", "-fPIC", "-Wl,-z,lazy", "-o",
                        os.path.join(libraries, "libcurl.so.4"), source], check=True)
        result = self.run_command("run", "42",
                                  environment=self.environment(LD_LIBRARY_PATH=libraries))
        self.assertEqual(result.status, 3, result.error)
        self.assertRegex(result.error,
                         "can't be fetched from .*: libcurl can't be loaded: "
                         f"{libraries}/libcurl.so.4: undefined symbol: varn_is_nowhere")
