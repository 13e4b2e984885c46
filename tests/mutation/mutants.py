"""The systematic ways to break a C++ source: one small change each, in a fixed order.

The source is read as tokens, not parsed. That is enough for a file formatted by clang-format, with
braces around every branch; a change that makes no sense does not compile and is not counted.
"""

import re
from bisect import bisect_right
from dataclasses import dataclass
from itertools import accumulate

TOKEN = re.compile(
    r"""(?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#[^\n]*)
      | (?P<text>"(?:\\.|[^"\\])*")
      | (?P<char>'(?:\\.|[^'\\])*')
      | (?P<number>\d(?:'?[\w.])*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<sign><<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|\+=|-=|->|::|.)""",
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)

COMPARISONS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">"],
    "<=": ["<", ">="],
    ">": [">=", "<"],
    ">=": [">", "<="],
}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {
    "+": ["-"],
    "-": ["+"],
    "/": ["*"],
    "%": ["/"],
    "+=": ["-=", "="],
    "-=": ["+=", "="],
    "++": ["--"],
    "--": ["++"],
}
NAMED_CONSTANTS = {
    "EXDEV": "EPERM",
    "std::errc::io_error": "std::errc::no_space_on_device",
    "fs::file_type::not_found": "fs::file_type::unknown",
    "fs::directory_options::skip_permission_denied": "fs::directory_options::none",
}
OPENING = {"(": ")", "[": "]", "{": "}"}
BOOLEAN = re.compile(r"b[A-Z]\w*$")


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutant:
    """The source with the bytes from `start` to `end` replaced by `text`."""

    kind: str
    start: int
    end: int
    text: str
    line: int
    column: int
    function: str
    body: tuple  # where the body of that function starts and ends
    number: int  # among those of the same kind at the same place
    old_lines: tuple
    new_lines: tuple

    @property
    def id(self):
        return f"{self.line}:{self.column}:{self.kind}.{self.number}"

    @property
    def diff(self):
        lines = ["- " + line.strip() for line in self.old_lines]
        return "\n".join(lines + ["+ " + line.strip() for line in self.new_lines])

    def body_in(self, source):
        """The body of the function as this mutant has it, with its braces."""
        start, end = self.body
        return source[start : self.start] + self.text + source[self.end : end]


class Source:
    """The tokens of a source and what matters of their structure."""

    def __init__(self, source):
        self.source = source
        self.tokens = []
        for match in TOKEN.finditer(source):
            if match.lastgroup != "skip":
                self.tokens.append(Token(match.lastgroup, match[0], match.start(), match.end()))
        self.texts = [token.text for token in self.tokens]
        self.partner = {}
        opened = []
        for i, text in enumerate(self.texts):
            if self.tokens[i].kind == "sign" and text in OPENING:
                opened.append(i)
            elif self.tokens[i].kind == "sign" and text in OPENING.values():
                self.partner[opened[-1]] = i
                self.partner[i] = opened.pop()
        self.functions = self._functions()

    def _functions(self):
        """(return type, name, opening brace, closing brace) of every function with a body. What has
        no type, or constructs, returns nothing. What is computed by the compiler is left alone."""
        functions = []
        i = 0
        while i < len(self.texts):
            end = i - 1
            while self.texts[end] in ("const", "noexcept", "override"):
                end -= 1
            if self.texts[i] == "{" and self.texts[end] == ")":
                name = first = self.partner[end] - 1
                while first > 0 and self.texts[first - 1] not in (";", "{", "}"):
                    first -= 1
                if self.texts[name - 1] in (",", ":"):  # the last of what a constructor begins with
                    name = self.texts.index("(", first) - 1
                result = self._result(first, name)
                if "constexpr" not in result:
                    functions.append((" ".join(result), self.texts[name], i, self.partner[i]))
                i = self.partner[i]
            i += 1
        return functions

    def _result(self, first, name):
        """What stands before the name of a function that starts at token `first`."""
        end = name - 1 if self.texts[name - 1] in ("operator", "~") else name
        while self.texts[end - 1] == "::":
            end -= 2
        words = self.texts[first:end]
        if "template" in words:
            depths = accumulate((word == "<") - (word == ">") for word in words)
            closing = [i for i, depth in enumerate(depths) if depth == 0 and words[i] == ">"]
            words = words[closing[0] + 1 :]
        constructs = not words or words[-1] in (":", "explicit")
        return ["void"] if constructs else words

    def between(self, first, last):
        """The source of the tokens from `first` up to, without, `last`."""
        return self.source[self.tokens[first].start : self.tokens[last - 1].end]

    def spaced(self, i):
        """White space on both sides: an operator of two operands, no bracket of a template."""
        return (
            self.tokens[i - 1].end < self.tokens[i].start
            and self.tokens[i].end < self.tokens[i + 1].start
        )

    def is_comparison(self, i):
        text = self.texts[i]
        return (
            self.tokens[i].kind == "sign"
            and text in COMPARISONS
            and (text not in "<>" or self.spaced(i))
        )

    def top_level(self, first, last):
        """The tokens from `first` up to `last` that are in no brackets opened in between."""
        i = first
        while i < last:
            yield i
            i = self.partner[i] if self.texts[i] in OPENING else i
            i += 1

    def negates_alone(self, first, last):
        """Changing the one operator of this expression is already its negation."""
        operators = [
            self.texts[i]
            for i in self.top_level(first, last)
            if self.texts[i] in LOGIC or self.texts[i] == "?" or self.is_comparison(i)
        ]
        return operators in (["=="], ["!="]) or (not operators and self.texts[first] == "!")

    def expression_start(self, i):
        """The first token of the expression that ends before token `i`, down to the next `?`,
        comma, assignment or opening bracket."""
        while True:
            before = self.texts[i - 1]
            if before in (")", "]", "}"):
                i = self.partner[i - 1]
            elif before in ("(", "[", "{", ",", ";", "return", "=", "+=", "?", ":"):
                return i
            else:
                i -= 1

    def expression_end(self, i):
        """The token after the expression that starts at token `i`."""
        while self.texts[i] not in (")", "]", "}", ",", ";", "?", ":"):
            i = self.partner[i] + 1 if self.texts[i] in OPENING else i + 1
        return i

    def primary_end(self, i):
        """The token after the name, call, literal or bracket that starts at token `i`."""
        while self.texts[i] in ("*", "!", "::"):
            i += 1
        i = self.partner[i] + 1 if self.texts[i] == "(" else i + 1
        while True:
            if self.texts[i] in ("(", "["):
                i = self.partner[i] + 1
            elif self.texts[i] in (".", "->", "::"):
                i += 2
            else:
                return i

    def primary_start(self, i):
        """The first token of the name, call, literal or bracket that ends before token `i`."""
        i -= 1
        while True:
            while self.texts[i] in (")", "]"):
                i = self.partner[i]
                if self.tokens[i - 1].kind == "name" and self.texts[i - 1] != "return":
                    i -= 1
            if self.texts[i - 1] in (".", "->", "::"):
                i -= 2
            else:
                return i


def changed_text(literal):
    """The literal with another last character."""
    units = re.findall(r"\\.|[^\\]", literal[1:-1], re.DOTALL) or [""]
    units[-1] = "Y" if units[-1] == "X" else "X"
    return '"' + "".join(units) + '"'


def neighbours_of(literal):
    """The character literals just below and just above."""
    code = ord(literal[1:-1].encode().decode("unicode_escape"))
    for other in (code - 1, code + 1) if code > 0 else (1,):
        yield f"'{chr(other)}'" if chr(other).isalnum() else f"'\\x{other:02x}'"


def numbers_beside(literal):
    """The number just above, and the one just below where there is one."""
    plain = re.match(r"0[xX][0-9a-fA-F']+|[\d']+", literal)[0]
    suffix = literal[len(plain) :]
    digits = plain.replace("'", "")
    base = 16 if digits[:2] in ("0x", "0X") else 8 if len(digits) > 1 and digits[0] == "0" else 10
    value = int(digits, base)
    spell = {16: hex, 8: lambda number: f"0{number:o}", 10: str}[base]
    return [spell(other) + suffix for other in (value + 1, value - 1) if other >= 0]


class Breaker:
    """Finds every change to a source."""

    def __init__(self, source):
        self.of = Source(source)
        self.changes = []  # (kind, first token, token after the last, new text)

    def add(self, kind, first, last, text):
        self.changes.append((kind, first, last, text))

    def negate(self, kind, first, last):
        if not self.of.negates_alone(first, last):
            self.add(kind, first, last, f"!({self.of.between(first, last)})")

    def mutants(self):
        source = self.of.source
        line_starts = [0] + [match.end() for match in re.finditer("\n", source)]
        lines = source.split("\n")
        result = []
        for returns, name, opening, closing in self.of.functions:
            self.changes = []
            self._conditions(opening, closing)
            self._operators(opening, closing)
            self._constants(opening, closing)
            self._statements(returns, opening, closing)
            self.changes.sort(key=lambda change: (self.of.tokens[change[1]].start, change[0]))
            body = (self.of.tokens[opening].start, self.of.tokens[closing].end)
            used = {}
            for kind, first, last, text in self.changes:
                start = self.of.tokens[first].start
                end = self.of.tokens[last - 1].end
                row = bisect_right(line_starts, start) - 1
                last_row = bisect_right(line_starts, end - 1) - 1
                new = (
                    source[line_starts[row] : start]
                    + text
                    + source[end : line_starts[last_row] + len(lines[last_row])]
                )
                place = (kind, start)
                used[place] = used.get(place, 0) + 1
                result.append(
                    Mutant(
                        kind=kind,
                        start=start,
                        end=end,
                        text=text,
                        line=row + 1,
                        column=start - line_starts[row] + 1,
                        function=name,
                        body=body,
                        number=used[place],
                        old_lines=tuple(lines[row : last_row + 1]),
                        new_lines=tuple(new.split("\n")),
                    )
                )
        return result

    def _conditions(self, opening, closing):
        """What branches and loops ask: negated, always true, always false."""
        of = self.of
        for i in range(opening, closing):
            if of.texts[i] in ("if", "while"):
                first, last = i + 2, of.partner[i + 1]
                self.negate("condition", first, last)
                if of.texts[i] == "if":
                    self.add("condition", first, last, "true")
                self.add("condition", first, last, "false")
            elif of.texts[i] == "for":
                ends = [
                    j for j in of.top_level(i + 2, of.partner[i + 1]) if of.texts[j] == ";"
                ]
                if ends:
                    self.negate("condition", ends[0] + 1, ends[1])
                    self.add("condition", ends[0] + 1, ends[1], "false")
            elif of.texts[i] == "?":
                self.negate("condition", of.expression_start(i), i)
            elif of.texts[i] == "=" and BOOLEAN.match(of.texts[i - 1]):
                self.negate("condition", i + 1, of.expression_end(i + 1))

    def _operators(self, opening, closing):
        of = self.of
        for i in range(opening, closing):
            if of.tokens[i].kind != "sign":
                continue
            text = of.texts[i]
            if of.is_comparison(i):
                for other in COMPARISONS[text]:
                    self.add("comparison", i, i + 1, other)
            elif text in LOGIC and of.spaced(i):
                self.add("logic", i, i + 1, LOGIC[text])
                self._operands(i)
            elif text == "!":
                self.add("logic", i, i + 1, "")
            elif text in ARITHMETIC and (text in ("++", "--") or of.spaced(i)):
                for other in ARITHMETIC[text]:
                    self.add("arithmetic", i, i + 1, other)
            if text in ("+", "/", "%", "|", "<<") and of.spaced(i):
                last = of.primary_end(i + 1)
                if of.tokens[i + 1].kind not in ("text", "char"):
                    self.add("operand", i, last, "")
                if text in ("/", "|"):
                    self.add("operand", of.primary_start(i), i + 1, "")

    def _operands(self, i):
        """The operands of && and || as if they were not there."""
        of = self.of
        neutral = "true" if of.texts[i] == "&&" else "false"
        ends = set(LOGIC) | {")", "]", "}", ",", ";", "?", ":"}
        last = i + 1
        while of.texts[last] not in ends:
            last = of.partner[last] + 1 if of.texts[last] in OPENING else last + 1
        self.add("operand", i + 1, last, neutral)
        first = of.expression_start(i)
        operators = [j for j in of.top_level(first, i) if of.texts[j] in LOGIC]
        if not operators:
            self.add("operand", first, i, neutral)

    def _constants(self, opening, closing):
        of = self.of
        for i in range(opening, closing):
            kind, text = of.tokens[i].kind, of.texts[i]
            if kind == "number":
                for other in numbers_beside(text):
                    self.add("constant", i, i + 1, other)
            elif kind == "char":
                for other in neighbours_of(text):
                    self.add("constant", i, i + 1, other)
            elif kind == "text":
                if text != '""':
                    self.add("text", i, i + 1, '""')
                self.add("text", i, i + 1, changed_text(text))
            elif text in ("true", "false"):
                self.add("constant", i, i + 1, "false" if text == "true" else "true")
            elif kind == "name" and of.texts[i - 1] != "::":
                last = of.primary_end(i)
                other = NAMED_CONSTANTS.get("".join(of.texts[i:last]))
                if other:
                    self.add("constant", i, last, other)
                is_argument = of.texts[i - 1] == "," or (
                    of.texts[i - 1] == "(" and of.tokens[i - 2].kind == "name"
                    and of.texts[i - 2] not in ("if", "while")
                )
                named = of.texts[last - 1]
                if is_argument and BOOLEAN.match(named) and of.texts[last] in (",", ")"):
                    self.add("constant", i, last, "!" + "".join(of.texts[i:last]))

    def _statements(self, returns, opening, closing):
        of = self.of
        i = opening + 1
        while i < closing:
            previous = of.texts[i - 1]
            if previous not in (";", "{", "}") or of.texts[i] in ("{", "}", ";"):
                i += 1
                continue
            end = i
            while of.texts[end] not in (";", "{", "}"):
                end = of.partner[end] + 1 if of.texts[end] in ("(", "[") else end + 1
            if of.texts[end] == "{" and of.texts[end - 1] not in (")", "else", "try"):
                # Braces of a value: the statement goes on behind them.
                end = of.expression_end(of.partner[end])
                while of.texts[end] != ";" and end < closing:
                    end += 1
            if of.texts[end] == ";":
                self._statement(returns, i, end, closing)
            i = end
            i += 1

    def _statement(self, returns, first, end, closing):
        """The statement dropped; what it returns turned round or emptied."""
        of = self.of
        keyword = of.texts[first]
        if keyword == "return":
            if end + 1 != closing:
                self.add("statement", first, end + 1, ";")
            value = "".join(of.texts[first + 1 : end])
            if value in ("", "true", "false", "{}", "0"):
                return
            if returns.split()[-1] == "bool":
                self.negate("return", first + 1, end)
            else:
                self.add("return", first + 1, end, "{}")
        elif keyword in ("break", "continue") or self._is_action(first, end):
            self.add("statement", first, end + 1, ";")

    def _is_action(self, first, end):
        """A call or an assignment, no declaration. Reserving room has no outcome to be seen."""
        of = self.of
        if of.texts[first] in ("const", "static", "using") or "reserve" in of.texts[first:end]:
            return False
        i = first
        while of.tokens[i].kind == "name" and of.texts[i + 1] == "::":
            i += 2
        if of.tokens[i].kind != "name":
            return True
        after = i + 1
        if of.texts[after] == "<":
            while of.texts[after] != ">":
                after += 1
            after += 1
        return of.tokens[after].kind != "name" and of.texts[after] not in ("&", "*")


def mutants_of(source):
    return Breaker(source).mutants()


def with_all(source, mutants):
    """One source that is any of the numbered mutants, by the number in the environment variable
    MUTANT, or the source as it is. Each function has the bodies of its mutants before its own. To
    the compiler, each of them is a file with the mutant's identifier as its name."""
    of = Source(source)
    result = [
        "#include <cstdlib>\n"
        'static const char* const wanted = std::getenv("MUTANT");\n'
        "static const int mutant = wanted ? std::atoi(wanted) : -1;\n"
        '#line 1 "module"\n',
    ]
    position = 0
    for returns, _, opening, closing in of.functions:
        start = of.tokens[opening].start
        result.append(source[position:start] + "{\n")
        # The bodies end by returning. What comes behind is for those of functions without a result.
        leave = "return;" if returns.split()[-1] == "void" else "__builtin_trap();"
        for number, mutant in mutants.items():
            if mutant.body[0] == start:
                body = mutant.body_in(source)
                result.append(f'#line 1 "{mutant.id}"\n')
                result.append(f"if (mutant == {number}) {{\n{body}\n{leave}\n}}\n")
        result.append('#line 1 "module"\n')
        position = of.tokens[closing].end
        result.append(source[start:position] + "\n}\n")
    return "".join(result) + source[position:]
