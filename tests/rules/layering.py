"""The tree's rules about who may name whom, as a check that fails on the first breach.

    layering.py includes ROOT    includes point downward only
    layering.py names ROOT       no library behind the agent's modules is named outside them
    layering.py installed ROOT   installed headers include nothing but each other and the standard
    layering.py links ROOT COMPILER OBJECTS -- ARGUMENTS
                                 each unit's object links with those below it alone
"""

import pathlib
import re
import subprocess
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s+([<"])([^>"]+)[>"]', re.MULTILINE)
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
SUFFIXES = {".h", ".cpp", ".hpp", ".cc"}

# The level of each unit; an include goes to a lower level, or stays within a unit.
LEVELS = [
    ("DroppedScripts", 70),
    ("ScriptRepositoryProcessor", 60),
    ("LoadedList", 55),
    ("ScriptRepositoryMetaProcessor", 50),
    ("ScriptRepositoryLocalMeta", 50),
    ("ScriptRepositoryUtil", 40),
    ("ScriptRepositoryRecords", 40),
    ("ObjectRuntimeRegistration", 40),
    ("ScriptRules", 45),
    ("ScriptTurn", 35),
    ("DocumentTest", 45),
    ("Directories", 30),
    ("ScriptRepositoryHost", 15),
    ("ScriptRunObserver", 15),
]
SUPPORT, PLATFORM, INTERFACES = 20, 10, 0

LIBRARY_NAMES = re.compile(
    r"curl/|\bcurl_|\bCURL|sqlite|SQLite::|SQLiteCpp|openssl|\bEVP_|\bXML_Parser|expat|spdlog|"
    r"nlohmann"
)
# The record protocol's name belongs to the library's own vocabulary.
ALLOWED_NAMES = re.compile(r"\bSQLiteValue\b")


def files(root, *directories):
    for directory in directories:
        for path in sorted((root / directory).rglob("*")):
            if path.suffix in SUFFIXES:
                yield path


def includes(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def unit(path):
    """The unit that a file of src/ or include/ belongs to."""
    return max(
        (name for name, _ in LEVELS if path.name.startswith(name)), key=len, default=path.stem
    )


def level(path, root):
    place = path.relative_to(root).parts
    if place[0] in ("interfaces", "posix"):
        return INTERFACES
    if place[:2] == ("src", "support"):
        return SUPPORT
    if place[:2] == ("src", "platform"):
        return PLATFORM
    return dict(LEVELS).get(unit(path))


def resolve(name, including, root):
    """The file of the project that an include names, or nothing."""
    for directory in (including.parent, root / "src", root / "include", root / "interfaces",
                      root / "posix",
                      root / "agent" / "settings", root / "agent", root / "cli", root / "tests"):
        candidate = directory / name
        if candidate.is_file():
            return candidate.resolve()
    return None


def check_includes(root):
    breaches = []
    for path in files(root, "src", "include", "interfaces", "posix"):
        own = level(path, root)
        if own is None:
            breaches.append(f"{path}: no level is known for this unit")
            continue
        for _, name in includes(path):
            target = resolve(name, path, root)
            if target is None:
                continue
            top = target.relative_to(root).parts[0]
            if top in ("agent", "cli", "tests"):
                breaches.append(f"{path}: includes {name} of {top}/, which nobody includes")
                continue
            if unit(target) == unit(path):
                continue
            other = level(target, root)
            # Support and platform files of one directory are on one level.
            beside = other == own and own in (SUPPORT, PLATFORM, INTERFACES)
            if other is None or (other >= own and not beside):
                breaches.append(f"{path}: includes {name}, which is not below it")
    for path in files(root, "agent"):
        for _, name in includes(path):
            target = resolve(name, path, root)
            if target and target.relative_to(root).parts[0] in ("src", "cli", "tests"):
                breaches.append(f"{path}: a module includes {name} of the library's inside")
    return breaches


def check_names(root):
    breaches = []
    for path in files(root, "src", "include", "interfaces"):
        text = COMMENT.sub("", path.read_text(encoding="utf-8"))
        for number, line in enumerate(text.splitlines(), 1):
            found = LIBRARY_NAMES.search(ALLOWED_NAMES.sub("", line))
            if found:
                breaches.append(f"{path}:{number}: names {found.group(0)}")
    return breaches


def check_installed(root):
    breaches = []
    installed = {p.name for p in files(root, "include", "interfaces", "agent/settings")}
    for path in files(root, "include", "interfaces", "agent/settings"):
        for kind, name in includes(path):
            if kind == '"' and name.split("/")[-1] not in installed:
                breaches.append(f"{path}: includes {name}, which is not installed")
            if kind == "<" and ("/" in name or name.endswith(".h")):
                breaches.append(f"{path}: includes <{name}>, which is no standard header")
        if path.parts[-2] == "interfaces":
            for _, name in includes(path):
                if name.startswith("VarnScriptRepository"):
                    breaches.append(f"{path}: an agent header includes {name} of the library")
    return breaches


def check_links(root, compiler, *more):
    """Links each object with a program that is empty and those that it may stand on."""
    objects = {}
    # An empty list is an empty argument to some versions of CMake.
    arguments = [argument for argument in more[more.index("--") + 1 :] if argument]
    for name in more[: more.index("--")]:
        place = name.split("VarnScriptRepositoryUnits.dir/")[1].removesuffix(".o")
        objects[root / "src" / place] = name
    breaches = []
    with tempfile.TemporaryDirectory() as directory:
        main = pathlib.Path(directory, "main.cpp")
        main.write_text("int main() {}\n")
        for source, name in objects.items():
            own = level(source, root)
            beside = own in (SUPPORT, PLATFORM)
            below = [
                other for path, other in objects.items()
                if level(path, root) < own
                or (beside and level(path, root) == own and path != source)
            ]
            linked = subprocess.run(
                [compiler, "-s", "-o", pathlib.Path(directory, "program"), main, name, *below,
                 *arguments],
                stderr=subprocess.PIPE, text=True, check=False)
            if linked.returncode != 0:
                breaches.append(f"{source}: needs more than what is below it\n{linked.stderr}")
    return breaches


CHECKS = {"includes": check_includes, "names": check_names, "installed": check_installed,
          "links": check_links}


def main():
    check, root = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    breaches = CHECKS[check](root, *sys.argv[3:])
    if not list(files(root, "src", "include", "interfaces")):
        breaches.append(f"{root}: holds no sources")
    for breach in breaches:
        print(breach)
    return 1 if breaches else 0


sys.exit(main())
