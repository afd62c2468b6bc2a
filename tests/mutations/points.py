"""The points at which a source can be changed, and to what: one small change each, found among the tokens.

The sources are formatted, which tells an operator (blanks around it) from a bracket or a pointer. A
change keeps the number of lines, so that the records of a library keep theirs.
"""
import collections
import re

# Lines from 1; `before` and `after` are the lines the change touches, whole.
Mutant = collections.namedtuple("Mutant", "path line kind before after start end text")

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/|^\s*\#[^\n]*)
  | (?P<string>(?:u8|u|U|L)?"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])+')
  | (?P<number>\b(?:0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*\b)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator>(?<=[ ])(?:==|!=|<=|>=|<|>|&&|\|\||\+|-|\*|/|%|&|\||\^|<<|>>|[-+*/%&|^]=|=)(?=[ \n])
               |\+\+|--|!(?!=)|~)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
    ">=": [">", "<"], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "%": ["/"], "&": ["|"], "|": ["&"], "^": ["&"], "<<": [">>"], ">>": ["<<"], "+=": ["-="],
    "-=": ["+="], "&=": ["|="], "|=": ["&="], "++": ["--"], "--": ["++"], "!": [""], "~": [""],
}
WORDS = {
    "true": "false", "false": "true", "Detail": "Notice", "Notice": "Warning", "Warning": "Error",
    "Error": "Warning", "min": "max", "max": "min", "break": "continue", "continue": "break",
    "front": "back", "back": "front", "begin": "end", "toupper": "tolower", "tolower": "toupper",
    "any_of": "all_of", "all_of": "any_of",
}
CONSTANT = re.compile(r"k[A-Z]\w*$|[A-Z][A-Z0-9]*_\w*$")
DECLARED = re.compile(r"^(?:(?:const|static|constexpr|auto|unsigned)\b|[\w:]+(?:<[^;=]*>)?[*&]*\s+\w+\s*(?:[;=({]|\[))")
CONDITION = re.compile(r"\b(?:if|while) (?:constexpr )?\(")


def _closing(code, opening):
    """Where the bracket at `opening` is closed."""
    depth = 0
    for at in range(opening, len(code)):
        depth += (code[at] in "([{") - (code[at] in ")]}")
        if depth == 0:
            return at
    raise ValueError("a bracket is never closed")


def _blanked(code):
    """`code` with comments and the content of literals as blanks, and of the same length."""
    def blank(match):
        text = match[0]
        if match.lastgroup == "comment":
            return re.sub(r"[^\n]", " ", text)
        if match.lastgroup in ("string", "char"):
            return text[0] + "x" * (len(text) - 2) + text[-1]
        return text
    return TOKEN.sub(blank, code)


def _parts(plain, opening, closing):
    """The spans of what commas separate between two brackets."""
    spans, depth, start = [], 0, opening + 1
    for at in range(opening + 1, closing):
        depth += (plain[at] in "([{") - (plain[at] in ")]}")
        if plain[at] == "," and depth == 0:
            spans.append((start, at))
            start = at + 1
    spans.append((start, closing))
    return [(a + len(plain[a:b]) - len(plain[a:b].lstrip()), b) for a, b in spans]


def _statements(plain):
    """The spans of what can be left out: statements within functions, with their semicolon."""
    for match in re.finditer(r"(?<=[;{}])[ ]*\n((?: *\n)*)( {2,})(?=[\w*+:-])", plain):
        start = match.end()
        line = plain[start:plain.find("\n", start)]
        if re.match(r"(return\b.*|else|case|default|public|private|using|struct|class|enum|if|for|while|switch|do|try|namespace|template|static_assert|explicit|friend)\b", line):
            continue
        depth = 0
        for at in range(start, len(plain)):
            depth += (plain[at] in "([{") - (plain[at] in ")]}")
            if depth < 0:
                break
            if depth == 0 and plain[at] == ";":
                yield start, at + 1
                break


def _number(text):
    suffix = text[len(text.rstrip("uUlL")):]
    digits = text[:len(text) - len(suffix)].replace("'", "")
    value = int(digits, 8 if re.fullmatch("0[0-7]+", digits) else 0)
    return [str(other) + suffix for other in (value + 1, value - 1) if other >= 0]


def _edits(code):
    """(kind, start, end, text in its place), in any order."""
    plain = _blanked(code)
    constants = sorted({m[0] for m in re.finditer(r"\b\w+\b", plain) if CONSTANT.match(m[0])})
    for match in TOKEN.finditer(code):
        kind, text, (start, end) = match.lastgroup, match[0], match.span()
        if kind == "operator":
            for other in OPERATORS.get(text, []):
                yield "operator", start, end, other
        elif kind == "number":
            for other in _number(text):
                yield "number", start, end, other
        elif kind == "string":
            yield "text", start, end, '"x"' if text == '""' else text[:-1] + "x\""
            if len(text) > 2:
                yield "text", start, end, '""'
        elif kind == "char":
            yield "text", start, end, "'x'" if text != "'x'" else "'y'"
        elif text in WORDS:
            # a level is a member function's name, the others are called, or stand alone
            yield ("level" if text[0].isupper() else "word"), start, end, WORDS[text]
        elif CONSTANT.match(text):
            place = constants.index(text)
            alike = [other for other in constants[place + 1:] + constants[:place]
                     if other[:3] == text[:3] or (other[0] == "k") == (text[0] == "k") == True]
            if alike:
                yield "constant", start, end, alike[0]

    for match in CONDITION.finditer(plain):
        opening = match.end() - 1
        closing = _closing(plain, opening)
        start = opening + 1
        if ";" in plain[start:closing]:  # of `if (init; condition)`
            start = plain.rindex(";", start, closing) + 1
        condition = code[start:closing].strip()
        if re.match(r"(const )?\w[\w:<>]*[*&]? \w+ = ", condition):
            continue
        yield "condition", start, closing, f"!({condition})"
        yield "condition", start, closing, f"({condition}) || true"
        yield "condition", start, closing, f"({condition}) && false"

    for match in re.finditer(r"\breturn ([^;]+);", plain):
        value = code[match.start(1):match.end(1)]
        if value.strip() not in ("{}", "nullptr", "std::nullopt", '""'):
            yield "result", match.start(1), match.end(1), "{}" + "\n" * value.count("\n")

    for start, end in _statements(plain):
        text = plain[start:end]
        if DECLARED.match(text) and not text.startswith("delete"):
            name = re.search(r"(\w+)\s*(?:[;=({]|\[)", re.sub(r"^[\w:]+<[^;=]*?> ", "", text))
            following = plain[end:plain.find("\n}", end)]
            if name is None or re.search(rf"\b{name[1]}\b", following):
                continue
        yield "statement", start, end, ";" + "\n" * text.count("\n")

    for match in re.finditer(r"\w(\()", plain):
        opening = match.start(1)
        spans = _parts(plain, opening, _closing(plain, opening))
        for (a, b), (c, d) in zip(spans, spans[1:]):
            first, second = code[a:b].strip(), code[c:d].strip()
            if first != second and not re.match(r"(const )?[\w:<>]+[*&]* \w+$", first):
                yield "argument", a, d, f"{second}, {first}" + "\n" * code[a:d].count("\n")
        for a, b in spans:
            if code[a:b].startswith("&"):
                yield "argument", a, b, "nullptr"


def mutants(path, code):
    """Every mutant of a source, each once, in the order of its places."""
    seen = set()
    for kind, start, end, text in sorted(_edits(code), key=lambda edit: edit[1:]):
        changed = code[:start] + text + code[end:]
        if changed in seen or changed == code:
            continue
        seen.add(changed)
        line = code.count("\n", 0, start) + 1
        whole = code.rfind("\n", 0, start) + 1, (code + "\n").find("\n", end)
        yield Mutant(path, line, kind, code[whole[0]:whole[1]],
                     code[whole[0]:start] + text.rstrip("\n") + code[end:whole[1]], start, end, text)
