#!/usr/bin/python3
"""log_texts.py ROOT RECORDINGS PAGE: whether the recordings show every message of the sources, and no other.

Fails on a message that no recording shows and PAGE does not name between backquotes, on one that PAGE names and a
recording shows all the same, and on a line of the log that is none of the messages: its text is somewhere in the sources
where this script does not look for messages. Fails as well when the messages are not those of log_texts.txt: other
programs and people search for them, so that a change has to be meant.

log_texts.py --list ROOT: prints the messages, as log_texts.txt has them."""

import re
import sys
from collections import defaultdict
from pathlib import Path

KNOWN = Path(__file__).with_suffix(".txt")
PLACE = "%s:%s:%d - "  # in front of what LOG_FAILED says
STRING = r'"(?:[^"\\\n]|\\.)*"'
COMMENT_OR_QUOTED = re.compile(rf"//[^\n]*|/\*.*?\*/|{STRING}|'(?:[^'\\\n]|\\.)'", re.S)
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.M)
TEXT = re.compile(rf"(?:(\bLOG|\bLOG_FAILED|\{{)\(?\s*)?((?:{STRING}\s*)+)")
CONVERSION = re.compile(r"%[-0-9.]*z?[a-zA-Z]")
LINE = re.compile(r"^\[[^|\n]*\|[0-9]+ *\] \{(src/access/[^:}]*?) *:[0-9]+ *\} (.*?)(?=\n\[|\n?\Z)", re.S | re.M)


def without_comments(code):
    code = COMMENT_OR_QUOTED.sub(lambda found: " " if found[0].startswith("/") else found[0], code)
    return DIRECTIVE.sub("", code)


def messages(code):
    """Pairs of message and whether it is logged where it stands, rather than kept in a table or handed to a function."""
    for before, literals in TEXT.findall(without_comments(code)):
        text = "".join(literal[1:-1] for literal in re.findall(STRING, literals))
        if before == "LOG_FAILED":
            yield f"{PLACE}{text}\\n", True
        elif not re.search("[A-Za-z]", CONVERSION.sub("", text.replace("\\n", ""))):
            continue  # says nothing itself, like "%s%d\n"
        elif before == "LOG" or text.endswith("\\n"):
            yield text, before == "LOG"
        elif before == "{" and re.search(": ?$", text):
            yield f"{text}%d\\n", False  # a table's label, logged in front of a value


def source_messages(root):
    """By source file, what it may log: message -> whether it is logged where it stands."""
    files = [path for suffix in ("cpp", "h") for path in root.glob(f"src/access/**/*.{suffix}")]
    return {str(path.relative_to(root)): dict(sorted(messages(path.read_text()))) for path in sorted(files)}


def without_numbers(text):
    return re.sub("[0-9]+", "0", text)


def pattern(message):
    """What follows a message in a recording is what somebody else has written."""
    pieces = CONVERSION.split(without_numbers(message).replace("\\n", ""))
    return re.compile(".*".join(re.escape(piece) for piece in pieces) + r"\s*(?:\n.*)?", re.S)


def recorded(recordings):
    """Everything, and by source file the lines of the log; all numbers alike."""
    everything, lines = [], defaultdict(set)
    for path in recordings.iterdir():
        text = path.read_text(errors="replace")
        everything.append(without_numbers(text))
        for file, line in LINE.findall(text):
            lines[file].add(without_numbers(line))
    return "\n".join(everything), lines


def unseen_messages(found, everything, lines):
    """A message from a table may be logged by another file, or be written without the log."""
    for file, texts in found.items():
        for text, logged_there in texts.items():
            known = pattern(text)
            seen = any(known.fullmatch(line) for line in lines[file])
            if not seen and (logged_there or not known.search(everything)):
                yield text.replace("\\n", "")


def unknown_lines(root, found, lines):
    for file, texts in lines.items():
        functions = re.findall(r"\b\w+(?=\()", (root / file).read_text())
        own = [pattern(text) for text in found.get(file, {})]
        others = [pattern(text) for name, texts in found.items() if name != file
                  for text, logged_there in texts.items() if not logged_there]
        for line in texts:
            if line not in functions and not any(known.fullmatch(line) for known in own + others):
                yield f"{file}: {line}"


def all_texts(found):
    return {text for texts in found.values() for text in texts}


def changed_texts(texts):
    known = set(KNOWN.read_text().splitlines())
    yield from (f"not in {KNOWN.name}: {text}" for text in sorted(texts - known))
    yield from (f"in {KNOWN.name} only: {text}" for text in sorted(known - texts))


def is_excused(message, page):
    return f"`{message.removeprefix(PLACE)}`" in page


def main():
    if sys.argv[1] == "--list":
        print(*sorted(all_texts(source_messages(Path(sys.argv[2])))), sep="\n")
        return 0
    root, recordings, page = (Path(argument) for argument in sys.argv[1:])
    found, page = source_messages(root), page.read_text()
    everything, lines = recorded(recordings)
    unseen = list(unseen_messages(found, everything, lines))
    known = [text.replace("\\n", "") for texts in found.values() for text in texts]
    print(f"{len(known) - len(unseen)} of {len(known)} messages were seen")
    complaints = [f"not seen: {text}" for text in unseen if not is_excused(text, page)]
    complaints += [f"seen, though excused: {text}" for text in known if text not in unseen and is_excused(text, page)]
    complaints += changed_texts(all_texts(found))
    complaints += [f"none of the messages: {line}" for line in unknown_lines(root, found, lines)]
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


sys.exit(main())
