"""Finds the small changes that can be made in a C++ source of this project.

It knows tokens and brackets, no types: a change that does not compile is thrown away later. What it
relies on is the formatter's layout: binary operators stand between spaces, the others do not.
"""

import bisect
import collections
import hashlib
import re

# One change: bytes iBegin to iEnd of the source become strNew. Its name is where, kind and what,
# which stay the same when lines move.
Mutant = collections.namedtuple("Mutant", "file line where text change begin end new")

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
      | (?P<string>R"(?P<mark>\w*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\])*")
      | (?P<char>'(?:\\.|[^'\\])+')
      | (?P<number>\d(?:[\w.']|(?<=[eE])[+-])*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<space>\s+)
      | (?P<op><<=|>>=|\.\.\.|->|::|\+\+|--|<<|[<>=!+\-*/%&|^]=|&&|\|\||.)""",
    re.S | re.M | re.X)
# A closing bracket of template arguments shall not be taken for a shift: ">>" is two tokens.
OPENING = {"(": ")", "[": "]", "{": "}"}

BINARY = {
    "<": ("off by one", "<="), "<=": ("off by one", "<"),
    ">": ("off by one", ">="), ">=": ("off by one", ">"),
    "==": ("negated", "!="), "!=": ("negated", "=="),
    "&&": ("and/or", "||"), "||": ("and/or", "&&"),
    "+": ("arithmetic", "-"), "-": ("arithmetic", "+"),
    "*": ("arithmetic", "/"), "/": ("arithmetic", "*"), "%": ("arithmetic", "/"),
    "&": ("arithmetic", "|"), "|": ("arithmetic", "&"), "^": ("arithmetic", "&"),
    "+=": ("arithmetic", "-="), "-=": ("arithmetic", "+="),
    "|=": ("arithmetic", "&="), "&=": ("arithmetic", "|="),
    "<<": ("arithmetic", ">>"), ">>": ("arithmetic", "<<"),
}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>=", "++", "--"}
# Their stores are seen by other processes, at whatever instant the writer is killed.
SHARED_MEMORY = {"common/hash_map.cpp", "common/hash_map.h", "common/internal/shared_word.h",
                 "common/message_queue.cpp", "common/shm_allocator.cpp", "common/shm_allocator.h"}
NOT_STATEMENTS = {"if", "for", "while", "switch", "do", "else", "case", "default", "return", "goto",
                  "try", "class", "struct", "enum", "union", "using", "typedef", "template",
                  "namespace", "public", "private", "protected", "const", "static", "extern",
                  "friend", "explicit", "virtual", "inline", "auto", "static_assert", "asm",
                  "operator"}
# What a line that names a definition may begin with, and what may stand behind it.
DECORATION = re.compile(r"__attribute__\s*\(\([^)]*\)+|\[\[.*?\]\] *|\btemplate\s*<[^{;]*?>\s|//.*")
CALLABLE = re.compile(r"([\w:~]+(?: *operator\W+)?)\(")
TYPE = re.compile(r"\b(?:class|struct|enum) +(\w+)")


class Token:
    def __init__(self, kind, text, begin):
        self.kind, self.text, self.begin, self.end = kind, text, begin, begin + len(text)


class Source:
    """The tokens of a source without comments, with matched brackets and the functions' bodies."""

    def __init__(self, file, text):
        self.file, self.text = file, text
        self.tokens = []
        for match in TOKEN.finditer(text):
            kind = match.lastgroup if match.lastgroup != "mark" else "string"
            if kind not in ("comment", "directive", "space"):
                self.tokens.append(Token(kind, match.group(), match.start()))
        self.partner = {}
        self.in_body = [False] * len(self.tokens)
        self.excluded = [False] * len(self.tokens)
        self._match_brackets()
        self._exclude()
        self.line_begins = [0] + [m.end() for m in re.finditer("\n", text)]

    def is_at(self, i, *texts):
        return 0 <= i < len(self.tokens) and self.tokens[i].text in texts

    def next(self, i):
        """The index behind a token, or behind a bracket and all that is in it."""
        return self.partner[i] + 1 if self.is_at(i, *OPENING) else i + 1

    def between(self, begin, end):
        return self.text[self.tokens[begin].begin:self.tokens[end].end]

    def is_binary(self, i):
        token = self.tokens[i]
        return self.text[token.begin - 1].isspace() and self.text[token.end].isspace()

    def _match_brackets(self):
        opened = []  # indexes, and whether the code inside is a function's
        head = 0  # the first token of what a brace may belong to
        for i, token in enumerate(self.tokens):
            inside = bool(opened) and opened[-1][1]
            self.in_body[i] = inside
            if token.text in OPENING:
                body = inside
                if token.text == "{" and not inside:
                    body = self._opens_body(head, i)
                opened.append((i, body))
            elif token.text in OPENING.values():
                begin = opened.pop()[0]
                self.partner[begin], self.partner[i] = i, begin
            if token.text in ("{", "}", ";"):
                head = i + 1

    def _opens_body(self, head, brace):
        """A function's body and no class, namespace or list of values begins at the brace."""
        text = self.between(head, brace)
        text = DECORATION.sub("", text).strip()
        text = re.sub(r"^(public|private|protected):\s*", "", text)
        if re.match(r"(class|enum|namespace|extern|union|typedef)\b", text):
            return False
        return "(" in text

    def _exclude(self):
        """What is no code: promises to the compiler, template parameters, operators' names."""
        for i, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__", "asm") and self.is_at(i + 1, "("):
                for j in range(i, self.partner[i + 1] + 1):
                    self.excluded[j] = True
            elif token.text == "template" and self.is_at(i + 1, "<"):
                j = i
                while not self.is_at(j, ">"):
                    self.excluded[j] = True
                    j += 1
            elif token.text == "operator":
                self.excluded[i + 1] = self.excluded[i + 2] = True

    def statement_end(self, i):
        """The index of the semicolon when a statement that could be left out begins at i."""
        if not self.tokens[i].text[0].isalpha() and not self.is_at(i, "++", "--", "*", "::"):
            if not self.tokens[i].text[0] == "_":
                return None
        if self.is_at(i, *NOT_STATEMENTS):
            return None
        if self.is_at(i, "break", "continue", "throw", "delete"):
            return self._semicolon(i)
        j, acts = i, False
        while self.is_at(j, "++", "--", "*", "::"):
            acts = acts or self.is_at(j, "++", "--")
            j += 1
        while j < len(self.tokens):
            if self.tokens[j].kind == "name" and not self.is_at(j + 1, "::", ".", "->"):
                j += 1
            elif self.tokens[j].kind == "name":
                j += 2
                continue
            while self.is_at(j, "(", "["):
                acts = acts or self.is_at(j, "(")
                j = self.partner[j] + 1
            if self.is_at(j, "<") and not self.is_binary(j):  # static_cast<void>(...)
                while not self.is_at(j, ">"):
                    j += 1
                j += 1
                continue
            if self.is_at(j, ".", "->", "::"):
                j += 1
                continue
            break
        if self.is_at(j, *ASSIGNMENTS) or (acts and self.is_at(j, ";")) or self.is_at(j, "<<"):
            return self._semicolon(i)
        return None

    def _semicolon(self, i):
        while i < len(self.tokens) and not self.is_at(i, ";", "}", ")"):
            i = self.next(i)
        return i if self.is_at(i, ";") else None

    def function_of(self, position):
        """The name that the enclosing unindented definition has, for people to find the place."""
        end = bisect.bisect_right(self.line_begins, position)
        for line in range(end - 1, -1, -1):
            text = self.text[self.line_begins[line]:].split("\n", 1)[0]
            if not re.match(r"[A-Za-z_~\[]", text) or re.match("(public|private|protected):", text):
                continue
            text = DECORATION.sub("", text)
            name = CALLABLE.search(text) or TYPE.search(text)
            if name or text.strip():
                return name.group(1) if name else re.split(r"\W*=|;", text)[0].split()[-1]
        return ""


def _constant(token):
    """The number or character with a neighbour's value."""
    if token.kind == "char":
        return "'x'" if token.text != "'x'" else "'y'"
    match = re.fullmatch(r"(0[xX])?([\da-fA-F']+?)([uUlL]*|LL)", token.text)
    if match is None:
        return None
    digits = match.group(2).replace("'", "")
    if match.group(1):
        return f"{match.group(1)}{int(digits, 16) + 1:X}{match.group(3)}"
    octal = len(digits) > 1 and digits[0] == "0"
    return f"0{int(digits, 8) + 1:o}" if octal else f"{int(digits) + 1}{match.group(3)}"


def _token_changes(source):
    """kind, first token, last token, new text: of single operators and constants."""
    for i, token in enumerate(source.tokens):
        if source.excluded[i]:
            continue
        body = source.in_body[i]
        if token.text in BINARY and token.kind == "op" and source.is_binary(i) and body:
            kind, new = BINARY[token.text]
            yield kind, i, i, new
        elif token.text in ("true", "false"):
            yield "constant", i, i, "false" if token.text == "true" else "true"
        elif token.text in ("++", "--") and body:
            yield "arithmetic", i, i, "--" if token.text == "++" else "++"
        elif token.text == "!" and body:
            yield "negated", i, i, ""
        elif token.kind in ("number", "char"):
            pure = source.is_at(i - 1, "=") and source.is_at(i - 2, ")", "const")
            # "char szName[32]": one more changes nothing.
            room = source.is_at(i - 1, "[") and i > 2 and source.tokens[i - 3].kind == "name"
            new = _constant(token)
            if new is not None and not pure and not room:
                yield "constant", i, i, new


def _condition_changes(source):
    for i, token in enumerate(source.tokens):
        if token.text in ("if", "while") and source.is_at(i + 1, "("):
            begin, end = i + 2, source.partner[i + 1] - 1
            condition = source.between(begin, end)
            # What one other change does already is not made twice; no initialiser before it.
            same = re.search("[!=]=|^!", condition) and not re.search(r"&&|\|\|", condition)
            if ";" not in condition and not same:
                yield "negated", begin, end, f"!({condition})"
        elif token.text == "?" and source.in_body[i]:
            middle, depth = i + 1, 1
            while depth != 0:
                depth += {"?": 1, ":": -1}.get(source.tokens[middle].text, 0)
                middle = source.next(middle)
            middle -= 1
            end = middle + 1
            while not source.is_at(end, ";", ",", ")", "]", "}"):
                end = source.next(end)
            yes, no = source.between(i + 1, middle - 1), source.between(middle + 1, end - 1)
            yield "negated", i + 1, end - 1, f"{no} : {yes}"


def _begins_statement(source, i):
    if source.is_at(i - 1, ":"):  # of a case, not of a conditional expression
        while i > 0 and not source.is_at(i - 1, ";", "{", "}"):
            i -= 1
        return source.is_at(i, "case", "default")
    return source.is_at(i - 1, ";", "{", "}")


def _statement_changes(source):
    previous = None  # the statement that ends where this one begins
    for i in range(1, len(source.tokens)):
        if not source.in_body[i] or source.excluded[i] or not _begins_statement(source, i):
            continue
        if source.is_at(i, "return") and not source.is_at(i + 1, ";", "{"):
            end = source._semicolon(i)
            plain = end == i + 2 and (source.tokens[i + 1].kind == "number" or
                                      source.is_at(i + 1, "true", "false", "nullptr", '""'))
            if end is not None and not plain:
                yield "returned", i + 1, end - 1, "{}"
        end = source.statement_end(i)
        if end is None:
            continue
        yield "removed", i, end, ";"
        neighbours = previous is not None and previous[1] == i - 1
        if neighbours and _order_matters(source, previous, (i, end)):
            gap = source.text[source.tokens[i - 1].end:source.tokens[i].begin]
            text = source.between(i, end) + gap + source.between(*previous)
            yield "swapped", previous[0], end, text
        previous = (i, end)


def _order_matters(source, first, second):
    """Two neighbours' order can be seen when they call, when the second needs the first, and when
    another process looks on."""
    texts = source.between(*first), source.between(*second)
    if any(re.match(r"(break|continue|throw|delete)\b", text) for text in texts):
        return False
    if source.file in SHARED_MEMORY and all(re.search(r"->|\(|\*", text) for text in texts):
        return True
    target = re.match(r"[\w.\->]*", texts[0]).group()
    needed = target != "" and re.search(rf"\b{re.escape(target)}\b", texts[1])
    calls = [re.search(r"(?<!_cast)(?<!sizeof)\(", re.sub(r"<[^<>]*>", "", text)) for text in texts]
    return bool(needed) or all(calls)


def _short(text):
    return re.sub(r"\s+", " ", text)


def mutants_of(file, text):
    """All mutants of a source, in the order of the text."""
    source = Source(file, text)
    found, seen = [], collections.Counter()
    changes = [*_token_changes(source), *_condition_changes(source), *_statement_changes(source)]
    for kind, first, last, new in sorted(changes, key=lambda c: (c[1], c[2], c[0])):
        begin, end = source.tokens[first].begin, source.tokens[last].end
        line = bisect.bisect_right(source.line_begins, begin)
        line_text = text[source.line_begins[line - 1]:].split("\n", 1)[0].strip()
        old = source.between(first, last)
        what = {"removed": _short(old), "swapped": _short(old), "returned": _short(old)}.get(
            kind, f"{_short(old)} -> {_short(new) or 'nothing'}")
        where, change = source.function_of(begin), f"{kind}: {what}"
        seen[where, line_text, change] += 1
        if seen[where, line_text, change] > 1:
            change += f" #{seen[where, line_text, change]}"
        found.append(Mutant(file, line, where, line_text, change, begin, end, new))
    return found


def name_of(mutant):
    return mutant.file, mutant.where, mutant.text, mutant.change


def _rank(mutant, seed):
    return hashlib.sha256("\0".join((seed, *name_of(mutant))).encode()).digest()


def choose(by_file, count, seed):
    """So many of all mutants, from each source in proportion to what it has."""
    total = sum(map(len, by_file.values()))
    count = min(count, total)
    share = {file: count * len(found) / total for file, found in by_file.items()}
    quota = {file: int(value) for file, value in share.items()}
    for file in sorted(share, key=lambda f: quota[f] - share[f])[:count - sum(quota.values())]:
        quota[file] += 1
    chosen = []
    for file, found in by_file.items():
        chosen += sorted(found, key=lambda m: _rank(m, seed))[:quota[file]]
    return chosen


def in_any_order(mutants):
    return sorted(mutants, key=lambda m: _rank(m, "order"))
