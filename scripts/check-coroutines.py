#!/usr/bin/env python3
"""Refuses the two coroutine patterns that have corrupted memory in this code base.

1. `co_return X;` where X is an lvalue that is not provably a local variable or a by-value parameter.
   QCoro 0.8's `return_value(U &&)` moves even from an lvalue reference, so `co_return m_list;` (or a
   reference parameter, or anything reached through `this` or a pointer) empties the original.
   Return a copy instead: `co_return QList<T>(m_list);`.
2. `co_await` inside a larger expression (a condition, an argument, `?:`, an operator). g++ 12 freed
   live temporaries there; keep every await a statement of its own:
   `co_await f();`, `x = co_await f();`, `auto x = co_await f();`, `co_return co_await f();`.

Prints one line per finding (file:line: why) and exits 1 when there is any.
"""

import pathlib
import re
import sys

IDENT = r"[A-Za-z_]\w*"
LVALUE = re.compile(rf"^\*?\s*{IDENT}(\s*(\.|->)\s*{IDENT}|\s*\[[^\]]*\])*$")
ALLOWED_AWAIT_PREFIX = re.compile(
    r"^(co_return\s+"
    r"|(?:(?:const|static)\s+)*[\w:<>,\s*&]+?[\s*&]+" + IDENT + r"\s*=\s*"
    r"|" + IDENT + r"(\s*(\.|->)\s*" + IDENT + r")*\s*=\s*"
    r"|)$"
)
FUNCTION_HEAD = re.compile(r"^(?![ \t#/}])[^;{}\n]*\b(" + IDENT + r")\s*\(", re.M)


def strip_comments_and_strings(text):
    """Blanks out comments and literals, keeping every newline so line numbers stay right."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'', re.S)

    def blank(match):
        return re.sub(r"[^\n]", " ", match.group(0)) if match.group(0).startswith(("/", "R")) else '""'

    return pattern.sub(blank, text)


def strip_brackets(text):
    """Removes the contents of balanced (), [] and {} so only the outer shape of an expression stays."""
    out, depth = [], 0
    for ch in text:
        if ch in "([{":
            if depth == 0:
                out.append(ch)
            depth += 1
        elif ch in ")]}":
            depth -= 1
            if depth == 0:
                out.append(ch)
        elif depth == 0:
            out.append(ch)
    return "".join(out)


def statement_around(text, index):
    """The statement that contains text[index]: back to the ; { or } that opens it, forward to the ;
    that ends it, both outside any brackets (a lambda argument stays inside its statement)."""
    depth, start = 0, 0
    for i in range(index - 1, -1, -1):
        ch = text[i]
        if ch in ")]":
            depth += 1
        elif ch in "([":
            depth -= 1
        elif ch in ";{}" and depth <= 0:
            start = i + 1
            break
    depth, end = 0, len(text)
    for i in range(index, len(text)):
        ch = text[i]
        if ch in "([{":
            depth += 1
        elif ch in ")]}":
            depth -= 1
        elif ch == ";" and depth == 0:
            end = i
            break
    return text[start:end]


CONTROL_FLOW = re.compile(r"^\s*(?:(?:if|while|for|switch)\s*\(\)|else|do|try|case\s+\w+(?:::\w+)*\s*:|default\s*:)\s*")


def await_is_a_statement(statement):
    """True for `co_await E`, `x = co_await E`, `T x = co_await E` and `co_return co_await E`, where
    E is one postfix expression (names, calls, member access, template arguments)."""
    # Awaits inside a lambda argument are statements of the lambda's body, checked on their own.
    if strip_brackets(statement).count("co_await") != 1:
        return False
    prefix, _, operand = statement.partition("co_await")
    # The statement of an if/else/while/case body starts after its head.
    prefix = strip_brackets(prefix)
    while CONTROL_FLOW.match(prefix):
        prefix = CONTROL_FLOW.sub("", prefix, count=1)
    prefix = prefix.strip()
    if prefix and not ALLOWED_AWAIT_PREFIX.match(prefix + " "):
        return False
    shape = strip_brackets(operand).strip()
    return re.fullmatch(r"\*?\s*(::)?\w+(\s*<[\w:,\s*&<>]*>)?(\s*(\(\)|\[\]|\{\}|(\.|->|::)\s*\w+(\s*<[\w:,\s*&<>]*>)?))*",
                        shape) is not None


def enclosing_function(text, index):
    """Signature and body so far of the function around text[index] (the last head before it)."""
    heads = [m for m in FUNCTION_HEAD.finditer(text, 0, index)]
    if not heads:
        return "", text[:index]
    head = heads[-1]
    body_start = text.find("{", head.start())
    return text[head.start():body_start], text[body_start:index]


def is_local(name, signature, body):
    parameters = re.search(r"\((.*)\)", signature, re.S)
    if parameters:
        for parameter in parameters.group(1).split(","):
            parameter = parameter.split("=")[0].strip()
            if re.search(rf"\b{name}$", parameter):
                return "&" not in parameter  # a by-value parameter is the coroutine's own copy
    declared = re.compile(
        rf"([\w>\]]\s+|[*&]\s*){name}\s*(=|;|\{{|\(|:|\[)"  # Type name = …, Type name{…}, for (x : …)
        rf"|\[[^\]]*\b{name}\b[^\]]*\]\s*="  # structured binding
    )
    # A declaration, not a use through another object (`x.name = …`, `p->name(…)`).
    return any(not re.search(r"(\.|->|::)\s*$", body[:m.start() + 1]) for m in declared.finditer(body))


def check_file(path):
    findings = []
    text = strip_comments_and_strings(path.read_text(encoding="utf-8"))

    def line_of(index):
        return text.count("\n", 0, index) + 1

    for match in re.finditer(r"\bco_return\s+([^;]+);", text):
        value = match.group(1).strip()
        if value in ("true", "false", "nullptr") or not LVALUE.match(value):
            continue
        name = re.match(rf"\*?\s*({IDENT})", value).group(1)
        # A local owns what it holds: its members and the value of a local optional die with it.
        owned = "->" not in value and "[" not in value
        signature, body = enclosing_function(text, match.start())
        if owned and not name.startswith("m_") and is_local(name, signature, body):
            continue
        findings.append(f"{path}:{line_of(match.start())}: co_return {value}; moves out of an lvalue "
                        "that outlives the coroutine; return a copy")

    for match in re.finditer(r"\bco_await\b", text):
        if not await_is_a_statement(statement_around(text, match.start())):
            findings.append(f"{path}:{line_of(match.start())}: co_await inside a larger expression; "
                            "make it a statement of its own (auto v = co_await …;)")
    return findings


def sources(roots):
    for root in map(pathlib.Path, roots):
        if root.is_file():
            yield root
        else:
            yield from (p for p in sorted(root.rglob("*")) if p.suffix in (".cpp", ".h") and p.is_file())


def self_test(folder):
    """Every line marked FLAG in flagged.inc is reported, and nothing else; accepted.inc is clean."""
    folder = pathlib.Path(folder)
    flagged = folder / "flagged.inc"
    expected = {i + 1 for i, line in enumerate(flagged.read_text().splitlines()) if "FLAG" in line}
    reported = {int(f.split(":")[1]) for f in check_file(flagged)}
    wrongly = check_file(folder / "accepted.inc")
    for line in sorted(expected - reported):
        print(f"{flagged}:{line}: not reported")
    for line in sorted(reported - expected):
        print(f"{flagged}:{line}: reported but not marked FLAG")
    for finding in wrongly:
        print(f"accepted form reported: {finding}")
    ok = expected == reported and not wrongly
    print(f"coroutine rules self-test: {len(reported & expected)} of {len(expected)} flagged, "
          f"{len(wrongly)} false reports")
    return 0 if ok else 1


def main(arguments):
    if arguments[:1] == ["--self-test"]:
        return self_test(arguments[1])
    findings = [finding for path in sources(arguments or ["src", "tests", "bench", "fuzz"])
                for finding in check_file(path)]
    for finding in findings:
        print(finding)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
