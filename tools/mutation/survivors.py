"""The list of mutants that are known to survive: tests/mutation/survivors.txt.

A mutant is named by its file and by the lines as they are and as they would be, so that the entry outlives a change
elsewhere in the file:

    core/port.cpp
    - the lines as they are
    + the lines as the mutant has them
    = equivalent: why nothing can tell the two apart   (or "accepted: why no test is worth its price")

Lines that stand in the file more than once are told apart by their number: core/port.cpp #2.
"""


def lines_of(text, start, end):
    """The whole lines around a piece of a text."""
    begin = text.rfind("\n", 0, start) + 1
    stop = text.find("\n", end)
    return begin, len(text) if stop < 0 else stop


def places_of(block, text):
    """The numbers of the lines, from 0, at which a block of lines stands in a text, whatever its indentation."""
    meant = [line.strip() for line in block.split("\n")]
    lines = [line.strip() for line in text.split("\n")]
    return [at for at in range(len(lines)) if lines[at:at + len(meant)] == meant]


def stanza(mutant, text):
    """How a mutant is written in the list, without its reason."""
    begin, stop = lines_of(text, mutant.start, mutant.end)
    before = text[begin:stop]
    after = text[begin:mutant.start] + mutant.new + text[mutant.end:stop]
    places = places_of(before, text)
    number = f" #{places.index(text.count(chr(10), 0, begin)) + 1}" if len(places) > 1 else ""
    return (mutant.path + number, *(f"- {line.strip()}" for line in before.split("\n")),
            *(f"+ {line.strip()}" for line in after.split("\n")))


def read_known(path):
    """Stanza -> reason. A stanza without a reason, or with one of another form, is an error of the list."""
    known, current = {}, []
    if not path.exists():
        return known
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        line = line.rstrip()
        if not line or line.startswith("#"):
            if current:
                raise SystemExit(f"{path}:{number}: the entry has no reason")
        elif line.startswith("= "):
            reason = line[2:]
            if not current or not reason.startswith(("equivalent: ", "accepted: ")):
                raise SystemExit(f"{path}:{number}: a reason begins with 'equivalent: ' or 'accepted: ', below its entry")
            known[tuple(current)] = reason
            current = []
        else:
            current.append(line)
    if current:
        raise SystemExit(f"{path}: the last entry has no reason")
    return known
