"""The small faults that can be put into a C++ source, one at a time. Each makes a mutant, which the
tests should tell from the original.

The operators work on the tokens of the code, so comments, preprocessor lines, attributes and static
assertions stay as they are. They rely on the layout of clang-format: there are blanks around an
operator between two operands, but not around a template's bracket. A mutant need not compile;
building it shows whether it does. Every mutant has as many lines as the original, since log
messages contain line numbers.
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
# Functions whose first two arguments may be exchanged without effect.
SYMMETRIC = {"sameName", "strcasecmp", "strncmp", "min"}
# A statement that begins with one of these can't be deleted on its own.
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
    start: int  # the replaced part of the text begins here
    end: int  # and ends before this
    replacement: str
    before: str  # the lines concerned, with runs of blanks collapsed
    after: str
    occurrence: int = 1  # counts the mutants of the file that read the same

    @property
    def name(self):
        """Identifies the mutant even if its lines move."""
        return self.file, self.before, self.after, self.occurrence

    def text(self):
        return f"{self.file}:{self.line} {self.operator}: {self.before}  =>  {self.after}"

    def apply(self, text):
        return text[: self.start] + self.replacement + text[self.end :]


def tokens_of(text):
    # Directives are replaced by blanks, so that the rest keeps its place.
    text = DIRECTIVE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)
    tokens = (Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(text))
    return [token for token in tokens if token.kind != "skip"]


class Source:
    """The tokens of one file, and the brackets, blocks and functions that they belong to."""

    def __init__(self, text):
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = {}  # from the index of a bracket to that of its counterpart
        self.block = []  # for each token the index of its block's brace, None outside code
        self.function = {}  # from the index of a block's brace to its function's first token
        self._match_brackets()
        self._find_blocks()
        self.fixed = self._find_fixed()

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def span(self, first, last):
        """The start and end in the text of the tokens from `first` to `last`, both included."""
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
        """The index of the first token of the statement or declaration that has this brace."""
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
        stack = []  # for each open brace the index of the block that its inside belongs to
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
                # Inside code, an initialiser is code as well; outside, it is not.
                stack.append(inner if inner is not None and self.word(index - 1) else None)

    def _find_fixed(self):
        """The indexes of the tokens that no operator may change."""
        fixed = set()
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__"):
                fixed.update(range(index, self.partner[index + 1] + 1))
            elif token.text == "extern":
                fixed.add(index + 1)
        return fixed

    def statements(self):
        """The first and last token of each simple statement in code, including its semicolon."""
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
        # Other operators invert these.
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
    """The index of the next wanted token outside any bracket that opens from here on."""
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
    """A message is only changed if a test pins it; any other text matters to the code itself."""
    for index, token in enumerate(source.tokens):
        if token.kind == "char":
            yield "text", index, index, "'~'"
            continue
        is_message = " " in token.text.strip('" ')
        if token.kind == "string" and (is_pinned(token.text) or not is_message):
            yield "text", index, index, token.text[:-1] + '~"'


def is_declaration(source, first, last):
    """Whether it begins with a type and a name: `Type name`, `a::Type<b>& name`."""
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
    """The first and last token of each argument between two parentheses."""
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


# ---- From edits to mutants ----------------------------------------------------------------------


def collapsed(text):
    return " ".join(text.split())


def with_lines(replacement, original):
    """Keeps the lines that follow in their place."""
    return replacement + "\n" * (original.count("\n") - replacement.count("\n"))


def edits_of(source, is_pinned):
    """Every edit of every operator: its name, the first and last token, and the replacement."""
    edits = [edit for operator in OPERATORS for edit in operator(source)]
    edits += texts_changed(source, is_pinned)
    for operator, first, last, replacement in sorted(edits, key=lambda edit: edit[1:]):
        if not source.fixed.intersection(range(first, last + 1)):
            yield operator, *source.span(first, last), replacement


def mutant_of(file, text, edit):
    operator, start, end, replacement = edit
    replacement = with_lines(replacement, text[start:end])
    line_start = text.rfind("\n", 0, start) + 1
    line_end = text.find("\n", end)
    before = collapsed(text[line_start:line_end])
    after = collapsed(text[line_start:start] + replacement + text[end:line_end])
    line = text.count("\n", 0, start) + 1
    return Mutant(file, line, operator, start, end, replacement, before, after)


def mutants_of(file, text, is_pinned=lambda text: True):
    """All mutants of a file whose text differs, in the order of their places."""
    found, seen, counts = [], {text}, {}
    for edit in edits_of(Source(text), is_pinned):
        mutant = mutant_of(file, text, edit)
        mutated = mutant.apply(text)
        if mutated in seen:
            continue
        seen.add(mutated)
        alike = mutant.before, mutant.after
        counts[alike] = counts.get(alike, 0) + 1
        found.append(dataclasses.replace(mutant, occurrence=counts[alike]))
    return found
