#!/usr/bin/python3
"""log_texts.py ROOT RECORDINGS PAGE: whether the recordings show every message of the sources.

Fails on a message that no recording shows and PAGE does not name between backquotes, and on one that PAGE names and
a recording shows all the same."""

import re
import sys
from collections import defaultdict
from pathlib import Path

CALL = re.compile(r'\bLOG(?:_FAILED)?\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
TABLE_ROW = re.compile(r'\{[^{}"]*("(?:[^"\\]|\\.)*\\n")\s*\}')
CONVERSION = re.compile(r"%[-0-9.]*z?[a-zA-Z]")
LINE = re.compile(r"^\[[^|\n]*\|[0-9]+ *\] \{([^:}]*?) *:[0-9]+ *\} (.*?)(?=\n\[|\n?\Z)", re.S | re.M)


def messages(source):
    for literals in CALL.findall(source) + TABLE_ROW.findall(source):
        yield "".join(LITERAL.findall(literals)).replace("\\n", "")


def without_numbers(text):
    return re.sub("[0-9]+", "0", text)


def pattern(message):
    text = ".*".join(re.escape(piece) for piece in CONVERSION.split(message))
    return re.compile(f"(?:src/[^ ]* - )?{text}\\s*", re.S)


def seen_messages(recordings):
    """By source file, all numbers alike."""
    seen = defaultdict(set)
    for path in recordings.iterdir():
        for file, message in LINE.findall(path.read_text(errors="replace")):
            seen[file].add(without_numbers(message))
    return seen


def main():
    root, recordings, page = (Path(argument) for argument in sys.argv[1:])
    seen, excused = seen_messages(recordings), page.read_text()
    count, unseen, wrong = 0, [], []
    for path in sorted(root.glob("src/access/**/*.cpp")):
        for message in sorted(set(messages(path.read_text()))):
            count += 1
            known = pattern(without_numbers(message))
            if not any(known.fullmatch(line) for line in seen[str(path.relative_to(root))]):
                unseen.append(message)
            if (message in unseen) != (f"`{message}`" in excused):
                wrong.append(message)
    print(f"{count - len(unseen)} of {count} messages were seen")
    for message in unseen + wrong:
        print(("unexpected: " if message in wrong else "unseen: ") + message)
    return 1 if wrong else 0


sys.exit(main())
