"""Compares the dynamic symbols that the shared library defines with the list beside this file.

    exported_symbols.py NM LIBRARY            compares
    exported_symbols.py NM LIBRARY --update   writes the list

Inline functions, and what goes with classes that have nothing else, are checked but not listed: they
are there when the compiler did not do without. None of them may be another library's.
"""

import pathlib
import re
import subprocess
import sys

LIST = pathlib.Path(__file__).with_name("exported-symbols.txt")
# The encoded names of what lies in the library's namespaces.
OURS = re.compile(r"_ZNK?(20VarnScriptRepository|8AgentLog|10AgentStore|10AgentUtils|12MarkupParser)")
OF_CLASSES = ("vtable for ", "typeinfo for ", "typeinfo name for ")
OF_INTERFACES = re.compile(
    r"(vtable|typeinfo|typeinfo name) for AgentStore::(KeyedEncoder|KeyedDecoder|KeyValueStorage)$")


def defined_symbols(nm, library, *options):
    """Kind and name of each dynamic symbol, in one order whatever the options."""
    listing = subprocess.run(
        [nm, "--dynamic", "--no-sort", "--defined-only", *options, library],
        check=True, capture_output=True, encoding="utf-8").stdout
    return [line.split(" ", 2)[1:] for line in listing.splitlines()]


def exported_symbols(nm, library):
    """The names that are always there, and the encoded names of those that need not be."""
    exported, inline = set(), set()
    for (kind, encoded), (_, name) in zip(defined_symbols(nm, library),
                                          defined_symbols(nm, library, "--demangle"), strict=True):
        name = name.replace("[abi:cxx11]", "").replace(
            "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
            "std::string").replace("std::__cxx11::basic_string<char, std::char_traits<char>, "
                                   "std::allocator<char>>", "std::string").replace(" >", ">")
        if OF_INTERFACES.match(name):
            continue
        if kind in "Wwu" or (kind in "Vv" and not name.startswith(OF_CLASSES)):
            inline.add(encoded)
        else:
            exported.add(name)
    return exported, inline


def main():
    exported, inline = exported_symbols(*sys.argv[1:3])
    if sys.argv[3:] == ["--update"]:
        LIST.write_text("".join(f"{name}\n" for name in sorted(exported)), encoding="utf-8")
        return 0
    listed = set(LIST.read_text(encoding="utf-8").splitlines())
    complaints = [f"exported, but not in the list: {name}" for name in sorted(exported - listed)]
    complaints += [f"in the list, but not exported: {name}" for name in sorted(listed - exported)]
    complaints += [f"exported, but none of ours: {name}" for name in sorted(inline)
                   if not OURS.match(name)]
    if not listed:
        complaints.append("the list is empty")
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


sys.exit(main())
