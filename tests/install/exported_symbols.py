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
INTERFACES = r"AgentStore::(KeyedEncoder|KeyedDecoder|KeyValueStorage)"
OF_INTERFACES = re.compile(rf"(vtable|typeinfo|typeinfo name) for {INTERFACES}$")
INLINE = re.compile(
    rf"{INTERFACES}::|{OF_INTERFACES.pattern}|"
    r"AgentUtils::(AgentSettings|GlobalVariables|HttpHandlermac)::|AgentLog::(LogSettings|Record)::|"
    r"MarkupParser::|VarnScriptRepository::"
)


def defined_symbols(nm, library):
    listing = subprocess.run(
        [nm, "--dynamic", "--demangle", "--defined-only", library],
        check=True, capture_output=True, encoding="utf-8").stdout
    exported, inline = set(), set()
    for line in listing.splitlines():
        _, kind, name = line.split(" ", 2)
        name = name.replace("[abi:cxx11]", "").replace(
            "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
            "std::string").replace(" >", ">")
        optional = kind in "Wwu" or OF_INTERFACES.match(name)
        (inline if optional else exported).add(name)
    return exported, inline


def main():
    exported, inline = defined_symbols(*sys.argv[1:3])
    if sys.argv[3:] == ["--update"]:
        LIST.write_text("".join(f"{name}\n" for name in sorted(exported)), encoding="utf-8")
        return 0
    listed = set(LIST.read_text(encoding="utf-8").splitlines())
    complaints = [f"exported, but not in the list: {name}" for name in sorted(exported - listed)]
    complaints += [f"in the list, but not exported: {name}" for name in sorted(listed - exported)]
    complaints += [f"exported, but none of ours: {name}" for name in sorted(inline)
                   if not INLINE.match(name)]
    if not listed:
        complaints.append("the list is empty")
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


sys.exit(main())
