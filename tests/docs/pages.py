"""The pages of docs/, as the tests see them: their code blocks, and what a transcript may leave out.

A block's first line names its language and, after it, what it is for:

    ```console           a transcript: lines that begin with "$ " are commands, "> " continues
                         one, and all others are what it writes
    ```toml file=NAME    a file that is written to the page's directory (any language may have it)
    ```cmake of=PATH     a piece of the file PATH of the tree (any language may be one)
    ```text              nothing that a machine reads

In a transcript a line "…" stands for any number of lines, and "…" in a line for any text. Times and
the line numbers of log lines may be others than those that are shown.
"""

import pathlib
import re

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"

# What pages call the directory that a reader works in.
SHOWN_DIRECTORY = "/home/me/try"


class Block:
    def __init__(self, page, line, words, text):
        self.page = page
        self.line = line
        self.language = words[0] if words else ""
        self.attributes = dict(word.split("=", 1) for word in words[1:])
        self.text = text

    def __str__(self):
        return f"{self.page}:{self.line}"


def pages():
    """The pages' paths below docs/."""
    return sorted(str(path.relative_to(DOCS)) for path in DOCS.rglob("*.md"))


def blocks(page):
    """The page's fenced blocks, in order."""
    found = []
    start = None
    for number, line in enumerate((DOCS / page).read_text().splitlines(), 1):
        if not line.startswith("```"):
            continue
        if start is None:
            start = (number, line[3:].split())
            continue
        opened, words = start
        lines = (DOCS / page).read_text().splitlines()[opened:number - 1]
        found.append(Block(page, opened, words, "".join(text + "\n" for text in lines)))
        start = None
    if start is not None:
        raise AssertionError(f"{page}:{start[0]}: the block is not closed")
    return found


def commands(transcript):
    """Pairs of a command and what the transcript says that it writes."""
    found = []
    for line in transcript.splitlines():
        if line.startswith("$ "):
            found.append((line[2:], []))
        elif line.startswith("> ") and found and not found[-1][1]:
            found[-1] = (found[-1][0] + "\n" + line[2:], [])
        elif found:
            found[-1][1].append(line)
        else:
            raise AssertionError(f"a transcript begins with a command, not with: {line}")
    return [(command, "".join(text + "\n" for text in shown)) for command, shown in found]


def _steady(text):
    """The text without what differs from run to run."""
    text = re.sub(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", "TIME", text)
    text = re.sub(r"(?m)^(TIME (?:info|error) \S+ \S+) \d+ ", r"\1 LINE ", text)
    return re.sub(r'"line":\d+', '"line":LINE', text)


def matches(shown, written, directory):
    """Whether the page shows what was written in `directory`."""
    pattern = ""
    for line in _steady(shown).splitlines():
        if line == "…":
            pattern += r"(?:.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in line.split("…")) + r"\n"
    return re.fullmatch(pattern, _steady(written.replace(directory, SHOWN_DIRECTORY))) is not None
