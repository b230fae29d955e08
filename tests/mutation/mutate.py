# SPDX-License-Identifier: MIT
"""Generates mutants: single small changes of a C++ source, each a mistake that tests should notice.

Works on tokens, and relies on the layout that clang-format gives: a binary operator stands between
blanks, a template's angle bracket does not. What the compiler refuses is sorted out later. There is
no randomness: the same source gives the same mutants.
"""
import collections
import re

Token = collections.namedtuple("Token", "kind text start end")
Mutant = collections.namedtuple("Mutant", "id file line operator start end replacement")

TOKENS = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<include>^[ ]*\#[ ]*(?:include|ifndef|ifdef|endif|else)[^\n]*|^\#define[ ]LIB\w+$)
  | (?P<directive>\#[ ]*\w+)
  | (?P<string>"(?:[^"\\\n]|\\.)*")
  | (?P<char>'(?:[^'\\\n]|\\.)+')
  | (?P<number>0[xX][0-9a-fA-F]+|\d+)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<space>\s+|\\\n)
  | (?P<sign><<=|>>=|\+\+|--|->|&&|\|\||[<>=!+\-*/%&|]=|<<|>>|::|\.\.\.|.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

# Each is put in the place of the first and, as a binary operator, stands between blanks.
OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">"], "<=": ["<", ">"], ">": [">=", "<"],
    ">=": [">", "<"], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "%": ["/"], "|": ["&"], "&": ["|"], "+=": ["-="], "-=": ["+="],
}
# A shift looks like a stream's insertion; only the one with a number counts.
SHIFTS = {">>": "<<", "<<": ">>"}
WORDS = {
    "true": "false", "false": "true",
    "ECHILD": "ESRCH", "ESRCH": "ECHILD", "EINTR": "EAGAIN", "ENOENT": "ENOTDIR",
    "ENOTDIR": "ENOENT", "EEXIST": "ENOENT", "EBUSY": "EAGAIN", "EINVAL": "ENOENT",
    "EXDEV": "EINVAL", "ESTALE": "ENOENT", "ENOMEM": "EAGAIN", "EISDIR": "ENOTDIR",
    "ELOOP": "EACCES", "EAI_SYSTEM": "EAI_NONAME",
    "SIGTERM": "SIGINT", "SIGKILL": "SIGTERM", "SIGCONT": "SIGTERM", "SIGCHLD": "SIGUSR1",
    "SIG_IGN": "SIG_DFL", "SIG_DFL": "SIG_IGN", "SIG_BLOCK": "SIG_UNBLOCK",
    "SIG_SETMASK": "SIG_BLOCK", "WNOHANG": "0", "WNOWAIT": "0", "WEXITED": "WSTOPPED",
    "STDIN_FILENO": "STDOUT_FILENO", "STDOUT_FILENO": "STDERR_FILENO",
    "STDERR_FILENO": "STDIN_FILENO",
    "O_CLOEXEC": "0", "O_NOCTTY": "0", "O_NOFOLLOW": "0", "O_NONBLOCK": "0", "O_DIRECTORY": "0",
    "O_PATH": "O_RDONLY", "O_WRONLY": "O_RDWR", "O_RDWR": "O_RDONLY", "AT_REMOVEDIR": "0",
    "POSIX_SPAWN_SETSIGMASK": "0", "DT_DIR": "DT_REG", "POLLIN": "0",
    "AF_INET": "AF_INET6", "SOCK_STREAM": "SOCK_DGRAM", "SO_REUSEADDR": "SO_KEEPALIVE",
    "INADDR_ANY": "INADDR_LOOPBACK", "TCSANOW": "TCSADRAIN",
    "htons": "ntohl", "htonl": "ntohs", "ntohs": "ntohl",
    "UINT32_MAX": "INT32_MAX", "SIZE_MAX": "UINT32_MAX", "FD_SETSIZE": "(FD_SETSIZE - 1)",
    "FD_SET": "FD_CLR", "FD_CLR": "FD_SET",
    "hex": "dec", "ate": "trunc",
    "front": "back", "back": "front", "pop_front": "pop_back", "pop_back": "pop_front",
    "begin": "end", "rfind": "find", "find": "rfind", "find_first_not_of": "find_last_not_of",
    "find_last_not_of": "find_first_not_of", "min": "max", "cout": "cerr", "cerr": "cout",
    "rfds": "wfds", "wfds": "rfds", "master": "slave", "slave": "master", "fdConn": "master",
    "fdServer": "fdConn", "srcdir": "builddir", "unzip": "zip", "isSet": "isActiveAndSet",
    "isActiveAndSet": "isSet", "empty": "size", "continue": "break", "break": "continue",
}
NOT_STATEMENTS = {
    "break", "case", "class", "const", "continue", "default", "delete", "do", "else", "explicit",
    "extern", "for", "if", "inline", "namespace", "private", "protected", "public", "return",
    "static", "struct", "switch", "template", "throw", "try", "typedef", "using", "virtual",
    "while", "friend", "mutable",
}
# Where an operand of && and || ends, besides at an unmatched bracket.
OPERAND_ENDS = {";", "{", "}", ",", "?", ":", "=", "<<", "&&", "||"}
# Declarations: a name behind a type, perhaps with *, & or template arguments between.
NO_STATEMENT = re.compile(
    r"([\w:]+(<[^;()]*>)?\s*[*&]*\s+[*&]*([\w:]+\s*(\[|\(|=|;|\{)|operator))|alignas|.*= delete|"
    r"[A-Z]\w*\(const |~", re.DOTALL)
DECLARATION = re.compile(r"\s*(const\s+)?[\w:]+\s*[*&]?\s+[*&]?\w+\s*[=:]\s")


class Source:
    """A file's text with everything that the operators look at."""

    def __init__(self, text):
        self.text = text
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start(), match.end())
            for match in TOKENS.finditer(text)
            if match.lastgroup not in ("comment", "space", "include")]
        self.partner = {}
        opened = []
        for i, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in "([{":
                opened.append(i)
            elif token.kind == "sign" and token.text in ")]}":
                self.partner[i] = opened.pop()
                self.partner[self.partner[i]] = i

    def between(self, first, last):
        """The text of the tokens from first to last, both included."""
        return self.text[self.tokens[first].start:self.tokens[last].end]

    def is_binary(self, i):
        token = self.tokens[i]
        return self.text[token.start - 1] in " \n" and self.text[token.end] in " \n"

    def operand(self, i, step, logical):
        """The far end of the operand of && or || beside token i; step is the direction."""
        brackets = ")]}" if step < 0 else "([{"
        i += step
        last = i
        while 0 <= i < len(self.tokens):
            token = self.tokens[i]
            if token.kind == "sign" and token.text in brackets:
                i = self.partner[i]
            elif token.kind == "sign" and token.text in "([{)]}":
                break
            elif token.text == "return" or (token.text in OPERAND_ENDS and token.kind == "sign"):
                if not (token.text == "&&" and logical == "||"):
                    break
            last = i
            i += step
        return last


def conditions(source):
    """Yields the first and the last token of every condition of if, while and for."""
    for i, token in enumerate(source.tokens[:-1]):
        if token.kind != "word" or source.tokens[i + 1].text != "(":
            continue
        first, last = i + 2, source.partner[i + 1] - 1
        if token.text == "for":
            ends = [j for j in range(first, last) if source.tokens[j].text == ";"]
            if len(ends) == 2 and ends[1] > ends[0] + 1:
                yield ends[0] + 1, ends[1] - 1
        elif token.text in ("if", "while"):
            yield first, last
    for i, token in enumerate(source.tokens):
        if token.text == "?" and token.kind == "sign":
            first = source.operand(i, -1, "||")
            while source.tokens[first - 1].text in ("||", "&&"):
                first = source.operand(first - 1, -1, "||")
            yield first, i - 1


def mutate_conditions(source):
    for first, last in conditions(source):
        text = source.between(first, last)
        if DECLARATION.match(text) or text in ("true", "false"):
            continue
        start, end = source.tokens[first].start, source.tokens[last].end
        yield "true", start, end, "true"
        yield "false", start, end, "false"
        signs = {source.tokens[i].text for i in range(first, last) if source.is_binary(i)}
        if signs & {"&&", "||"} or not signs & {"==", "!=", "<", ">", "<=", ">="}:
            yield "negate", start, end, text[1:] if text[0] == "!" else "!(" + text + ")"


def mutate_operators(source):
    for i, token in enumerate(source.tokens):
        if token.kind != "sign" or not source.is_binary(i):
            continue
        for other in OPERATORS.get(token.text, []):
            if "string" not in (source.tokens[i - 1].kind, source.tokens[i + 1].kind):
                yield "operator", token.start, token.end, other
        if token.text in SHIFTS and source.tokens[i + 1].kind == "number" and \
                source.tokens[i - 1].kind == "word" and source.tokens[i + 2].text == ")":
            yield "operator", token.start, token.end, SHIFTS[token.text]
        if token.text in ("&&", "||"):
            left = source.operand(i, -1, token.text)
            right = source.operand(i, 1, token.text)
            yield "drop", source.tokens[left].start, source.tokens[i + 1].start, ""
            yield "drop", source.tokens[i - 1].end, source.tokens[right].end, ""
    for token in source.tokens:
        if token.text in ("++", "--") and token.kind == "sign":
            yield "operator", token.start, token.end, "--" if token.text == "++" else "++"


def mutate_numbers(source):
    for i, token in enumerate(source.tokens):
        if token.kind != "number":
            continue
        before = source.tokens[i - 1]
        octal = token.text.startswith("0") and token.text.isdigit()
        value = int(token.text, 8 if octal else 0)
        if before.text == "-" and not source.is_binary(i - 1):
            yield "number", before.start, token.end, str(1 - value)
            yield "number", before.start, token.end, str(value)
        else:
            yield "number", token.start, token.end, str(value + 1)
            if value:
                yield "number", token.start, token.end, str(value - 1)


def mutate_words(source):
    for i, token in enumerate(source.tokens):
        if token.kind != "word" or token.text not in WORDS:
            continue
        other = WORDS[token.text]
        if source.tokens[i - 1].text == "." and token.text in ("master", "slave"):
            continue
        yield "word", token.start, token.end, other


def mutate_texts(source):
    """Alters the character in the middle of each literal, and the last one of a long text."""
    for i, token in enumerate(source.tokens):
        if token.kind not in ("string", "char") or source.tokens[i - 1].text == "extern":
            continue
        inner = list(re.finditer(r"\\.|[^\\]", token.text[1:-1]))
        if not inner:
            yield "text", token.start, token.end, '"x"'
            continue
        places = {len(inner) // 2}
        if len(inner) > 16:
            places |= {0, len(inner) - 1}
        for place in sorted(places):
            match = inner[place]
            other = "_" if match.group() in (" ", "\\n") else \
                match.group().swapcase() if match.group().isalpha() else "x"
            start = token.start + 1 + match.start()
            yield "text", start, start + len(match.group()), other


def statements(source):
    """Yields the first token and the semicolon of every expression statement."""
    brackets = []  # those that enclose the token
    for i, token in enumerate(source.tokens):
        before = source.tokens[i - 1]
        if token.kind == "sign" and token.text in "([{":
            brackets.append(token.text)
        elif token.kind == "sign" and token.text in ")]}":
            brackets.pop()
        begins = before.text in (";", "{", "}", "else", "do") and brackets[-1:] != ["("]
        if i and before.text == ")":
            begins = source.tokens[source.partner[i - 1] - 1].text in ("if", "for", "while")
        if not begins or token.text in NOT_STATEMENTS or \
                not (token.kind == "word" or token.text in ("*", "++", "--")):
            continue
        end = i
        while end < len(source.tokens) and source.tokens[end].text not in (";", "{", "}"):
            end = 1 + (source.partner[end] if source.tokens[end].text in ("(", "[") else end)
        if end == len(source.tokens) or source.tokens[end].text != ";":
            continue
        text = source.between(i, end)
        if not NO_STATEMENT.match(text):
            yield i, end


def mutate_statements(source):
    for first, last in statements(source):
        yield "remove", source.tokens[first].start, source.tokens[last - 1].end, ""
    for i, token in enumerate(source.tokens):
        if token.kind != "word" or token.text not in ("throw", "return", "break", "continue"):
            continue
        end = i
        while source.tokens[end].text != ";":
            end += 1 if source.tokens[end].text not in "([{" else source.partner[end] - end
        if token.text != "return":
            yield "remove", token.start, source.tokens[end - 1].end, ""
        elif end > i + 1 and source.between(i + 1, end - 1) not in ("0", "false", "nullptr"):
            yield "return", source.tokens[i + 1].start, source.tokens[end - 1].end, "{}"


FAMILIES = [mutate_conditions, mutate_operators, mutate_numbers, mutate_words, mutate_texts,
            mutate_statements]


def apply(text, mutant):
    """The mutated text, with as many lines as before."""
    lost = text[mutant.start:mutant.end].count("\n") - mutant.replacement.count("\n")
    return text[:mutant.start] + mutant.replacement + "\n" * lost + text[mutant.end:]


def mutants_of(name, text):
    """All mutants of a file, by line; no two of them are the same text."""
    source = Source(text)
    found, count, seen = [], collections.Counter(), {text}
    for family in FAMILIES:
        for operator, start, end, replacement in family(source):
            line = text.count("\n", 0, start) + 1
            count[line, operator] += 1
            identity = "%s:%d:%s:%d" % (name, line, operator, count[line, operator])
            mutant = Mutant(identity, name, line, operator, start, end, replacement)
            mutated = "".join(apply(text, mutant).split())
            if mutated not in seen:
                seen.add(mutated)
                found.append(mutant)
    return sorted(found, key=lambda mutant: (mutant.line, mutant.start))
