"""Which small faults can be put into a C++ source, one at a time: each is a mutant, which the tests
should tell from the original.

The operators are textual. They work on the tokens of the code, so that comments, preprocessor
lines, attributes and static assertions stay as they are, and they lean on the layout of
clang-format: an operator between two operands has blanks around it, a template's bracket has not.
What they make need not compile; whoever builds it finds out. Every mutant has as many lines as the
original, since log messages name theirs.
"""

import dataclasses
import re

TOKEN = re.compile(
    r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d*)?(?:[eE][+-]?\d+)?)[uUlLfF]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|<=>|\.\.\.|->\*|::|->|\.\*|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|[-+*/%&|^]=|.)
    """,
    re.VERBOSE | re.DOTALL,
)
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.MULTILINE)
BRACKETS = {"(": ")", "[": "]", "{": "}"}

REPLACED_SIGNS = {
    "<": ("<=", ">="),
    ">": (">=", "<="),
    "<=": ("<", ">"),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
    "&&": ("||",),
    "||": ("&&",),
    "+": ("-",),
    "-": ("+",),
    "*": ("/",),
    "/": ("*",),
    "&": ("|",),
    "|": ("&",),
    "<<": (">>",),
    ">>": ("<<",),
    "+=": ("-=",),
    "-=": ("+=",),
    "|=": ("&=",),
    "&=": ("|=",),
}
COMPARISONS = {"<", ">", "<=", ">=", "==", "!="}
NOT_CALLED = {"if", "for", "while", "switch", "catch", "return", "GATEWAY_LOG"}
# Whose first two arguments may change places.
SYMMETRIC = {"sameName", "strcasecmp", "strncmp", "min"}
# What a statement that can be left out does not begin with.
STATEMENT_KEYWORDS = {
    "auto", "break", "case", "catch", "class", "const", "constexpr", "continue", "default", "do",
    "else", "for", "friend", "if", "return", "static", "static_assert", "struct", "switch",
    "template", "throw", "try", "using", "while",
}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    operator: str
    start: int  # what stands from here ...
    end: int  # ... to here becomes
    replacement: str
    before: str  # the lines concerned, their blanks drawn together
    after: str
    occurrence: int = 1  # among those of the file that read the same, from 1

    @property
    def name(self):
        """By this it is known wherever its lines have moved to."""
        return self.file, self.before, self.after, self.occurrence

    def apply(self, text):
        return text[: self.start] + self.replacement + text[self.end :]


def tokens_of(text):
    # Directives are blanked out, so that the rest keeps its place.
    text = DIRECTIVE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)
    tokens = (Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(text))
    return [token for token in tokens if token.kind != "skip"]


class Source:
    """The tokens of one file, with what is known of their surroundings."""

    def __init__(self, text):
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = {}  # index of a bracket: of its other half
        self.block = []  # per token: index of the brace of the innermost block, None outside code
        self.function = {}  # index of a block's brace: of the first token of its function
        self._match_brackets()
        self._find_blocks()
        self.fixed = self._find_fixed()

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def span(self, first, last):
        """Start and end in the text of the tokens from `first` to `last`, both included."""
        return self.tokens[first].start, self.tokens[last].end

    def slice(self, first, last):
        start, end = self.span(first, last)
        return self.text[start:end]

    def is_spaced(self, index):
        """Whether the token stands between two operands."""
        token = self.tokens[index]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def is_code(self, index):
        return self.block[index] is not None

    def _match_brackets(self):
        stack = []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in BRACKETS:
                stack.append(index)
            elif token.text in BRACKETS.values():
                opening = stack.pop()
                self.partner[opening], self.partner[index] = index, opening

    def _head(self, brace):
        """Index of the first token of what a brace belongs to."""
        index = brace - 1
        while index >= 0 and self.word(index) not in (";", "{", "}"):
            index = self.partner[index] if self.word(index) in (")", "]") else index
            index -= 1
        return index + 1

    def _opens_block(self, brace, outer):
        before = self.word(brace - 1)
        words = [token.text for token in self.tokens[self._head(brace) : brace]]
        if {"namespace", "enum", "class", "struct", "union"} & set(words) and "(" not in words:
            return False
        if before in (")", "const", "noexcept", "override", "else", "try", "do", "]"):
            return True
        return outer and before in (";", "{", "}", ":")

    def _find_blocks(self):
        stack = []  # of indexes of braces, with the block that holds inside
        for index, token in enumerate(self.tokens):
            if token.text == "}" and token.kind == "sign":
                stack.pop()
            inner = stack[-1] if stack else None
            self.block.append(inner)
            if token.text != "{" or token.kind != "sign":
                continue
            if self._opens_block(index, inner is not None):
                self.function[index] = self.function.get(inner, self._head(index))
                stack.append(index)
            else:
                # An initialiser within code is code, a class within it is not.
                stack.append(inner if inner is not None and self.word(index - 1) else None)

    def _find_fixed(self):
        """Indexes of tokens that no operator may touch."""
        fixed = set()
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__"):
                fixed.update(range(index, self.partner[index + 1] + 1))
            elif token.text == "extern":
                fixed.add(index + 1)
        return fixed

    def statements(self):
        """First and last token of each simple statement in code, its semicolon included."""
        for brace in self.function:
            first = index = brace + 1
            while index < self.partner[brace]:
                word, end = self.word(index), self.partner.get(index, index)
                if index == first and word in ("if", "for", "while", "switch", "catch"):
                    opening = index + (2 if self.word(index + 1) == "constexpr" else 1)
                    index = self.partner[opening]
                    first = index + 1
                elif index == first and word in ("else", "do", "try"):
                    first = index + 1
                elif index == first and word in ("case", "default"):
                    index = next_flat(self, index, (":",))
                    first = index + 1
                elif word == "{" and index in self.function:
                    index = end
                    first = index + 1
                elif word == ";":
                    yield first, index
                    first = index + 1
                elif word in BRACKETS:
                    index = end
                index += 1


def replaced_signs(source):
    for index, token in enumerate(source.tokens):
        if token.kind == "sign" and token.text in REPLACED_SIGNS and source.is_spaced(index):
            for other in REPLACED_SIGNS[token.text]:
                yield "operator", index, index, other
        elif token.text in ("++", "--"):
            yield "operator", index, index, "--" if token.text == "++" else "++"


def conditions_negated(source):
    for index, token in enumerate(source.tokens):
        if token.text not in ("if", "while"):
            continue
        opening = index + (2 if source.word(index + 1) == "constexpr" else 1)
        first, last = opening + 1, source.partner[opening] - 1
        words = [source.word(each) for each in range(first, last + 1)]
        joined = {"&&", "||"} & set(words)
        compared = any(source.word(each) in COMPARISONS and source.is_spaced(each)
                       for each in range(first, last + 1))
        # Another operator turns these round.
        if not joined and (compared or words[0] == "!"):
            continue
        yield "condition negated", first, last, f"!({source.slice(first, last)})"


def negations_dropped(source):
    for index, token in enumerate(source.tokens):
        if token.text == "!":
            yield "negation dropped", index, index, ""


def minus_dropped(source):
    for index, token in enumerate(source.tokens):
        if token.text == "-" and not source.is_spaced(index):
            yield "minus dropped", index, index, ""


def branches_swapped(source):
    for index, token in enumerate(source.tokens):
        if token.text != "?":
            continue
        colon = next_flat(source, index + 1, (":",))
        end = next_flat(source, colon + 1, (";", ")", ",", "}"))
        one, other = source.slice(index + 1, colon - 1), source.slice(colon + 1, end - 1)
        if one != other:
            yield "branches swapped", index + 1, end - 1, f"{other} : {one}"


def next_flat(source, index, wanted):
    """Index of the next of the wanted tokens that is in no further bracket."""
    while source.word(index) not in wanted:
        index = source.partner[index] if source.word(index) in BRACKETS else index
        index += 1
    return index


def numbers_off_by_one(source):
    for index, token in enumerate(source.tokens):
        match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlL]*)", token.text)
        if token.kind != "number" or not match:
            continue
        value = int(match[1].replace("'", ""), 0)
        for other in (value + 1, value - 1):
            if other >= 0:
                yield "constant", index, index, f"{other}{match[2]}"


def truths_swapped(source):
    for index, token in enumerate(source.tokens):
        if token.text in ("true", "false"):
            yield "constant", index, index, "false" if token.text == "true" else "true"


def texts_changed(source, is_pinned):
    """Messages are changed only where a test pins them; other texts mean something to the code."""
    for index, token in enumerate(source.tokens):
        if token.kind == "char":
            yield "text", index, index, "'~'"
            continue
        is_message = " " in token.text.strip('" ')
        if token.kind == "string" and (is_pinned(token.text) or not is_message):
            yield "text", index, index, token.text[:-1] + '~"'


def is_declaration(source, first, last):
    """A type and a name begin it: `Type name`, `a::Type<b>& name`."""
    match = re.match(r"(?:::)?\w+(?:::\w+)*(?:<[^;=()]*>)?[*&\s]+\w+", source.slice(first, last))
    return bool(match) and source.word(first) != "delete"


def statements_deleted(source):
    for first, last in source.statements():
        if source.word(first) in STATEMENT_KEYWORDS or first == last:
            continue
        if not is_declaration(source, first, last):
            yield "statement deleted", first, last, "{}"


def jumps_deleted(source):
    for first, last in source.statements():
        if last == first + 1 and source.word(first) in ("break", "continue", "return"):
            yield "jump deleted", first, last, "{}"


def returns_emptied(source):
    for first, last in source.statements():
        if source.word(first) != "return" or last == first + 1:
            continue
        if last == first + 2 and source.tokens[first + 1].kind == "number":
            continue
        if source.word(first + 1) in ("true", "false", "nullptr"):
            continue
        head = source.function[source.block[first]]
        empty = "return;" if source.word(head) == "void" else "return {};"
        yield "return value deleted", first, last, empty


def arguments_of(source, opening):
    """First and last token of each argument between two parentheses."""
    begin, end = opening + 1, source.partner[opening]
    while begin < end:
        stop = min(next_flat(source, begin, (",", ")")), end)
        yield begin, stop - 1
        begin = stop + 1


def arguments_swapped(source):
    for index, token in enumerate(source.tokens):
        if token.text != "(" or not source.is_code(index):
            continue
        if source.word(index - 1) in NOT_CALLED:
            continue
        if source.tokens[index - 1].kind != "name" and source.word(index - 1) != ">":
            continue
        arguments = list(arguments_of(source, index))
        pairs = list(zip(arguments, arguments[1:]))
        for (a, b), (c, d) in pairs[1:] if source.word(index - 1) in SYMMETRIC else pairs:
            one, other = source.slice(a, b), source.slice(c, d)
            if one != other:
                yield "arguments swapped", a, d, f"{other}, {one}"


def catches_undone(source):
    for index, token in enumerate(source.tokens):
        if token.text == "catch":
            brace = source.partner[index + 1] + 1
            yield "catch undone", brace, source.partner[brace], "{ throw; }"


OPERATORS = (
    replaced_signs, conditions_negated, negations_dropped, minus_dropped, branches_swapped,
    numbers_off_by_one, truths_swapped, statements_deleted, jumps_deleted, returns_emptied,
    arguments_swapped, catches_undone,
)


def drawn_together(text):
    return " ".join(text.split())


def with_lines(replacement, original):
    """Keeps what stands below where it was."""
    return replacement + "\n" * (original.count("\n") - replacement.count("\n"))


def mutants_of(file, text, is_pinned=lambda text: True):
    """All mutants of a file that can be told apart by their text, in the order of their places."""
    source = Source(text)
    edits = [edit for operator in OPERATORS for edit in operator(source)]
    edits += texts_changed(source, is_pinned)
    found, seen, counts = [], set(), {}
    for operator, first, last, replacement in sorted(edits, key=lambda edit: edit[1:]):
        if source.fixed.intersection(range(first, last + 1)):
            continue
        start, end = source.span(first, last)
        replacement = with_lines(replacement, text[start:end])
        mutated = text[:start] + replacement + text[end:]
        if mutated in seen or mutated == text:
            continue
        seen.add(mutated)
        line_start = text.rfind("\n", 0, start) + 1
        line_end = text.find("\n", end)
        before = drawn_together(text[line_start:line_end])
        after = drawn_together(text[line_start:start] + replacement + text[end:line_end])
        counts[before, after] = counts.get((before, after), 0) + 1
        found.append(Mutant(file, text.count("\n", 0, start) + 1, operator, start, end,
                            replacement, before, after, counts[before, after]))
    return found
