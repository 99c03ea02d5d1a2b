#!/usr/bin/env python3
"""usage: grammar.py GRAMMAR DOCUMENT

Checks a TextMate grammar on the examples of a document: reads its rules as an editor does, line by line,
and prints what is wrong, with status 1. Rules that are included from other grammars match nothing here.

The regular expressions of editors are Oniguruma's. All that the grammar uses means the same in Python,
where only inline flags have to be at the begin; other constructs are refused.
"""

import json
import re
import sys

problems = []


class Grammar:
    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            self.data = json.load(file)
        self.compiled = {}

    def regex(self, text):
        if text not in self.compiled:
            # Oniguruma's \h is a hexadecimal digit, and a look-behind of several lengths is an error in
            # Python, but not there.
            if re.search(r"\\[hHRXKgkpP]|\(\?[>#]|[*+?]\+(?!\+)", text.replace(r"\+\+", "")):
                problems.append(f"a construct that differs between engines: {text}")
            flags = 0
            if text.startswith("(?i)"):
                flags, text = re.I, text[4:]
            self.compiled[text] = re.compile(text.replace(r"(?<=^|\s|:)", r"(?:(?<=[\s:])|^)"), flags)
            return self.compiled[text]
        return self.compiled[text]

    def rules(self, patterns):
        for rule in patterns:
            include = rule.get("include")
            if include is None:
                if "match" in rule or "begin" in rule:
                    yield rule
                else:
                    yield from self.rules(rule["patterns"])
            elif include.startswith("#"):
                target = self.data["repository"][include[1:]]
                yield from self.rules([target])

    def tokens(self, source):
        """Tuples of text and scopes; and the names of the rules that are open at the end."""
        found = []
        stack = []
        for line in source.splitlines(keepends=True):
            at = 0
            steps = 0
            while at <= len(line):
                steps += 1
                if steps > 10000:
                    problems.append(f"no progress in {line!r}")
                    return found, stack
                patterns = stack[-1].get("patterns", []) if stack else self.data["patterns"]
                best, rule, ends = None, None, False
                if stack:
                    best = self.regex(stack[-1]["end"]).search(line, at)
                    ends = best is not None
                for candidate in self.rules(patterns):
                    match = self.regex(candidate.get("match") or candidate["begin"]).search(line, at)
                    if match and (best is None or match.start() < best.start()):
                        best, rule, ends = match, candidate, False
                scopes = [open_rule.get("name", "") for open_rule in stack]
                if best is None:
                    found.append((line[at:], scopes))
                    break
                found.append((line[at:best.start()], scopes))
                if ends:
                    self.add(found, best, stack[-1], stack[-1].get("endCaptures", {}), scopes)
                    stack.pop()
                elif "match" in rule:
                    self.add(found, best, rule, rule.get("captures", {}), scopes + [rule["name"]])
                else:
                    self.add(found, best, rule, rule.get("beginCaptures", {}), scopes + [rule["name"]])
                    stack.append(rule)
                if best.end() == at and not ends and "begin" not in (rule or {}):
                    at += 1
                at = max(at, best.end())
                if at >= len(line):
                    break
        return found, stack

    @staticmethod
    def add(found, match, rule, captures, scopes):
        if not captures:
            found.append((match.group(), scopes))
        for number, capture in captures.items():
            found.append((match.group(int(number)), scopes + [capture["name"]]))


def check(grammar, place, source, is_error):
    tokens, stack = grammar.tokens(source)
    if stack:
        problems.append(f"{place}: {stack[-1].get('name')} is open at the end")
    names = [text.lower() for text, scopes in tokens if scopes and scopes[-1] == "entity.name.tag.zeph"]
    invalid = [text for text, scopes in tokens if any(scope.startswith("invalid") for scope in scopes)]
    # Independent of the grammar: what looks like a tag, where comments and backslashes are not.
    plain = re.sub(r"(?is)<zpcomment>.*?</zpcomment>", "<zpcomment>", source)
    written = [name.lower() for name in re.findall(r"(?i)(?<!\\)</?(zp[a-z-]+|zeph)(?![a-z])", plain)]
    written = [name for name in written if name != "zpcomment"]
    if is_error:
        if any(name not in names and not invalid for name in written):
            problems.append(f"{place}: {written} but {names}, {invalid}")
        return len(names)
    if invalid:
        problems.append(f"{place}: {invalid} is marked as an error")
    if names != written:
        problems.append(f"{place}: the tags are {written}, the grammar finds {names}")
    return len(names)


def expect(grammar, source, expected):
    tokens, _ = grammar.tokens(source)
    for text, scope in expected:
        if not any(t == text and s and s[-1].startswith(scope) for t, s in tokens):
            problems.append(f"{source!r}: {text!r} is not {scope} in {tokens}")


def main():
    grammar = Grammar(sys.argv[1])
    with open(sys.argv[2], encoding="utf-8") as file:
        document = file.read()
    tags = 0
    examples = list(re.finditer(r"^```zeph([^\n]*)\n(.*?)^```", document, re.S | re.M))
    for example in examples:
        line = document.count("\n", 0, example.start()) + 1
        tags += check(grammar, f"line {line}", example.group(2), "error" in example.group(1))
    if len(examples) < 30 or tags < 150:
        problems.append(f"only {len(examples)} examples with {tags} tags")
    expect(grammar, "<a href='{{ x }}'>", [("{{", "punctuation.section.embedded"), ("}}", "punctuation")])
    expect(grammar, "<ZpASSIGN x = 1.5 y = \"a\\\"b\" $ g.z>",
           [("ZpASSIGN", "entity.name.tag"), ("x", "entity.other.attribute-name"), ("1.5", "constant.numeric"),
            ("\\\"", "constant.character.escape"), ("$", "keyword.operator"), ("g.", "storage.modifier")])
    expect(grammar, "{{{ f(a) MOD 2 }}}", [("f", "entity.name.function"), ("MOD", "keyword.operator.word")])
    expect(grammar, "<zpfor i = 1 TO 9>", [("zpfor", "entity.name.tag"), ("TO", "keyword.other")])
    expect(grammar, "<ZpASIGN x>", [("<ZpASIGN", "invalid")])
    expect(grammar, "\\{{ x }}", [("\\{{", "constant.character.escape")])
    for problem in problems:
        print(problem)
    sys.exit(1 if problems else 0)


main()
