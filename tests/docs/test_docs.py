"""What docs/ says is what happens: transcripts are run, programs compiled, examples parsed."""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import tomllib
import unittest
import urllib.parse
import xml.etree.ElementTree

import pages
import webserver
from session import Session

ROOT = pages.DOCS.parent
COMMAND = os.environ["VARN_TESTED_COMMAND"]
KNOWN_LANGUAGES = {"cmake", "console", "cpp", "nginx", "python", "sh", "text", "toml", "xml"}


NGINX = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")


def compiled(source):
    """Compiles a source against the headers of the tree; a program is linked to the built library."""
    library = pathlib.Path(os.environ["VARN_TESTED_LIBRARY"])
    program = [source.with_suffix(""), library, f"-Wl,-rpath,{library.parent}"]
    part = [source.with_suffix(".o"), "-c"]
    return subprocess.run(
        [os.environ["VARN_CXX"], "-std=c++20", "-Wall", "-Wextra", "-Werror",
         *(f"-I{ROOT / headers}" for headers in ("include", "interfaces", "agent/settings")), source,
         *(shlex.split(os.environ["VARN_CXX_FLAGS"]) if "int main(" in source.read_text() else []),
         "-o", *(program if "int main(" in source.read_text() else part)],
        capture_output=True, text=True, check=False)


class Page(unittest.TestCase):
    """Follows one page from top to bottom, in an empty directory."""

    page = None

    def follow(self):
        with tempfile.TemporaryDirectory() as temporary:
            directory = os.path.realpath(temporary)
            environment = {"SOURCES": str(ROOT), "CXX": os.environ["VARN_CXX"]}
            session = Session(directory, os.path.dirname(COMMAND), environment)
            self.addCleanup(session.close)
            for block in pages.blocks(self.page):
                with self.subTest(block=str(block)):
                    self.check(block, directory, session)

    def check(self, block, directory, session):
        self.assertIn(block.language, KNOWN_LANGUAGES)
        if "file" in block.attributes:
            path = pathlib.Path(directory, block.attributes["file"])
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(block.text.replace(pages.SHOWN_DIRECTORY, directory))
        if "of" in block.attributes:
            # A quotation of a file that other tests build.
            self.assertIn(block.text, (ROOT / block.attributes["of"]).read_text())
            return
        check = getattr(self, "check_" + block.language, None)
        if check:
            check(block, directory, session)

    def check_console(self, block, directory, session):
        commands = pages.commands(block.text)
        self.assertTrue(commands, "a transcript without a command")
        for command, shown in commands:
            written = session.run(command.replace(pages.SHOWN_DIRECTORY, directory))
            if not pages.matches(shown, written, directory):
                self.fail(f"$ {command}\nshown:\n{shown}\nwritten:\n"
                          + written.replace(directory, pages.SHOWN_DIRECTORY))

    def check_cpp(self, block, directory, session):
        done = compiled(pathlib.Path(directory, block.attributes["file"]))
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def check_nginx(self, block, directory, session):
        # With another place for the tree, and a socket that needs no free port.
        if not NGINX:
            self.skipTest("no nginx here")
        with webserver.Server(NGINX, block.text, directory) as server:
            area = "/client-data/acme/scriptrepo"
            name = next(pathlib.Path(directory, "www" + area, "files").iterdir()).name
            self.assertEqual(server.get(f"{area}/scripts-meta.xml"), (200, "public, max-age=60"))
            self.assertEqual(server.get(f"{area}/files/{name}"),
                             (200, "public, max-age=31536000, immutable"))
            self.assertEqual(server.get("/"), (404, None))

    def check_toml(self, block, directory, session):
        tomllib.loads(block.text)

    def check_xml(self, block, directory, session):
        xml.etree.ElementTree.fromstring(block.text)

    def check_cmake(self, block, directory, session):
        # A transcript configures it.
        self.assertIn("file", block.attributes)


def page_suite(page):
    """A test case of the page: "users/how-to-use.md" is UsersHowToUse."""
    name = "".join(word.capitalize() for word in re.split("[/-]", page.removesuffix(".md")))
    return type(name, (Page,), {"page": page, "test": lambda self: self.follow()})


for each in pages.pages():
    suite = page_suite(each)
    globals()[suite.__name__] = suite


class Links(unittest.TestCase):
    """What the pages point to is there."""

    def test(self):
        for page in pages.pages():
            text = re.sub(r"(?ms)^```.*?^```$", "", (pages.DOCS / page).read_text())
            for target in re.findall(r"\]\(([^)]+)\)", text):
                if urllib.parse.urlsplit(target).scheme:
                    continue
                path, _, anchor = target.partition("#")
                with self.subTest(page=page, target=target):
                    linked = (pages.DOCS / page).parent / path if path else pages.DOCS / page
                    self.assertTrue(linked.exists())
                    if anchor:
                        self.assertIn(anchor, self.anchors(linked))

    @staticmethod
    def anchors(page):
        headings = re.findall(r"(?m)^#+ (.*)$", page.read_text())
        return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]


class Index(unittest.TestCase):
    """Every page is in the index, and the picture is an SVG document that a page shows."""

    def test_pages(self):
        index = (pages.DOCS / "README.md").read_text()
        for page in pages.pages():
            if page != "README.md":
                self.assertIn(f"]({page})", index)

    def test_picture(self):
        directory = pages.DOCS / "maintaining"
        root = xml.etree.ElementTree.parse(directory / "road-of-a-request.svg").getroot()
        self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
        self.assertIn("(road-of-a-request.svg)", (directory / "how-it-works.md").read_text())


class Options(unittest.TestCase):
    """The page of the command names every command and every option."""

    def test(self):
        page = (pages.DOCS / "use.md").read_text()
        for command in ("", "run", "plan", "prune", "list", "publish", "key generate", "key show",
                        "key verify"):
            text = subprocess.run([COMMAND, *command.split(), "--help"], capture_output=True,
                                  text=True, check=True).stdout
            if command:
                self.assertIn(f"varn-scripts {command}", page)
            options = re.findall(r"(?m)^  (?:-[a-z],)?(--[a-z-]+)", text)
            self.assertTrue(options)
            for option in options:
                self.assertIn(option, page)


@unittest.skipUnless(shutil.which("doxygen"), "no doxygen here")
class Reference(unittest.TestCase):
    """The headers' comments make a reference without a warning."""

    def test(self):
        with tempfile.TemporaryDirectory() as directory:
            settings = (pages.DOCS / "Doxyfile").read_text()
            done = subprocess.run(["doxygen", "-"], cwd=ROOT, capture_output=True, text=True,
                                  input=f"{settings}\nOUTPUT_DIRECTORY = {directory}\n",
                                  check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertTrue(pathlib.Path(directory, "html", "index.html").exists())


class Messages(unittest.TestCase):
    """A log line that operating.md shows is one that the sources can write."""

    def test(self):
        literals = self.literals_in("src", "agent", "cli")
        page = (pages.DOCS / "operating.md").read_text()
        table = page.partition("### What the log says")[2].partition("\n### ")[0]
        quoted = re.findall(r"(?m)^\| `([^`…]+)[`…]", table)
        self.assertGreater(len(quoted), 10)
        for text in quoted:
            with self.subTest(text=text):
                self.assertIn(text.strip(), literals)

    def test_what_counts_as_a_failure_is_what_the_library_writes(self):
        source = (ROOT / "agent" / self.TOLD_FAILURES).read_text()
        table = source.partition("kBeginnings[] = {")[2].partition("};")[0]
        beginnings = re.findall(r'"([^"]+)"', table)
        self.assertGreater(len(beginnings), 10)
        literals = self.literals_in("src")
        for text in beginnings:
            with self.subTest(text=text):
                self.assertIn(f"\n{text}", literals)

    # It repeats them.
    TOLD_FAILURES = "RecordSeverity.cpp"

    def literals_in(self, *parts):
        """The texts in these parts of the sources, each on a line of its own."""
        sources = "".join(path.read_text() for part in parts
                          for path in sorted((ROOT / part).rglob("*.cpp"))
                          if path.name != self.TOLD_FAILURES)
        return "\n".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', sources))


class ReasonCodes(unittest.TestCase):
    """The page of the operator has every code of a reason, and no other."""

    def test(self):
        source = (ROOT / "cli/Reason.cpp").read_text()
        names = source.partition("kCodeNames[] = {")[2].partition("};")[0]
        page = (pages.DOCS / "operating.md").read_text()
        table = page.partition("| `reason_code` |")[2].partition("\n\n")[0]
        self.assertEqual(re.findall(r"(?m)^\| `([a-z_]+)` \|", table),
                         re.findall(r'"([a-z_]+)"', names))


if __name__ == "__main__":
    names = [page_suite(name).__name__ if name.endswith(".md") else name for name in sys.argv[1:]]
    unittest.main(argv=[sys.argv[0], *names])
