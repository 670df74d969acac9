"""Every way in which one place of a source file is broken."""
import collections
import re

# Lines [first, last) of the file at `path` become `new`.
Break = collections.namedtuple("Break", "path first last old new")

# A token, and what takes its place.
SWAPS = [(re.compile(token), other) for token, other in [
    # comparisons, arithmetic, logic
    (r" == ", " != "), (r" != ", " == "), (r" < ", " <= "), (r" > ", " >= "), (r" <= ", " < "),
    (r" >= ", " > "), (r" && ", " || "), (r" \|\| ", " && "), (r" \+ ", " - "), (r" - ", " + "),
    (r" \+= ", " -= "), (r" -= ", " += "), (r"\+\+(?=\w)", "--"), (r"(?<=\()!", ""),
    # (`? 0` becomes `? 1`, as each number)
    (r" \? (?!0\b)", " ? !"), (r"\btrue\b", "false"), (r"\bfalse\b", "true"), (r" << 16", " << 15"),
    (r" % ", " / "),
    # the width of an integer
    (r"\buint64_t\b", "uint32_t"), (r"\bint64_t\b", "int32_t"), (r"\buint32_t\b", "uint16_t"),
    (r"\bstd::size_t\b", "std::uint32_t"), (r"\bunsigned long\b", "unsigned int"),
    (r"\bunsigned int\b", "unsigned short"), (r"\boff_t\b", "int"), (r"\bssize_t\b", "short"),
    # the kind of a clock
    (r"\bsteady_clock\b", "system_clock"), (r"\bsystem_clock\b", "steady_clock"),
    (r"\bCLOCK_MONOTONIC\b", "CLOCK_REALTIME"), (r"\bCLOCK_REALTIME\b", "CLOCK_MONOTONIC"),
    (r"\buniversal_time\b", "local_time"), (r"\bsecond_clock\b", "microsec_clock"),
    # what is caught
    (r"\bcatch \(\.\.\.\)", "catch (const std::exception&)"),
    # a flag among others, or alone
    (r" \| [A-Z][A-Z0-9_]+\b", ""), (r"\b[A-Z][A-Z0-9_]+ \| ", ""), (r"\bMSG_\w+\b", "0"),
    (r"\bPOLLRDHUP\b", "POLLIN"),
]]
# Any negative number says the same where -1 means "none".
NUMBER = re.compile(r"(?<![\w.\"'])(?<![(, ]-)(0x[0-9A-Fa-f]+|\d+(?:'\d+)*)(?![\w.\"'])")
# One larger shows nowhere: it is broken as one smaller.
ROOM = re.compile(r"\s*[\w:]+ \w+\[(\d+)\](?: = \{\})?;")
# Nothing reads a clock at this very nanosecond.
MOMENT = re.compile(r"\bnow\(\)$")
LITERAL = re.compile(r"'(?:[^'\\]|\\.[^']*)'|\"((?:[^\"\\]|\\.)*)\"")
# In a narrower type it is the same number, or the compiler warns of it.
CONSTANT = re.compile(r"\s*(static )?constexpr [\w: ]+ = [^;]*;")
WIDTH = re.compile(r"int\d\d_t|size_t|off_t|unsigned (int|long)")
NOT_BROKEN = re.compile(r"\s*(#|namespace\b|template\b|static_assert\b|$)")

# A number that starts at 0: one that only counts cannot pass 32 bits while a test runs.
COUNTER = re.compile(r"\s*std::uint64_t (\w+) = 0;")

# Leaving these out, or moving them, says nothing or does not compile. (On x86-64 va_end does nothing.)
FIXED = re.compile(r"\s*(return|throw|using|static_assert|break|continue|friend|public|private|protected|case"
                   r"|default|struct|class|enum|namespace|template|constexpr|goto|va_end|\[\[|~)\b|\s*[#}]")
# These neither fail nor read what another statement sets.
SETTERS = (r"storeBig|tool::(add|setStream)|(RecordSteps::)?(fillOpen|fillSegmentFields|setSegmentAlg)"
           r"|layout::write\w+|pvkstrcpy|countSegment|producer->commit|startWriting")
FIELD = re.compile(rf"\s*([\w.>\[\]-]+ [%+-]?= |\+\+|--|({SETTERS})\w*\("
                   r"|\w+((\.|->)\w+)*\.(reset|clear|insert|push_back|store|exceptions|imbue)\()")
# Without it, the same is found sooner.
PAUSE = re.compile(r"\s*(std::this_thread::sleep_for|nanosleep|__builtin_ia32_pause)\(")
LOGGER = re.compile(r"\s*const ([\w:]+::)?Logger ")
COMPUTED = re.compile(r"\s*const [^=]*= (.*);$", re.DOTALL)
# Neither a pointer is followed nor an index used, and nothing is called but these.
LOOKS_NOTHING_UP = re.compile(r"(?:[^(\[*>]|\* |> |\b(?:get|size|head|tail|min|max|now|string_view)\(|(?<!\w)\()*$")
CALL = re.compile(r"\w\(")
DECLARED = re.compile(r"\s*(?:static |const |unsigned |long )*[\w:]+(?:<[^=;]*>)?(?: const)?(?: ?[*&] ?| )(?:const )?"
                      r"(\w+)(?:\[[^\]]*\])?(?:;|\(| =|\{)")
LOCK = re.compile(r"\s*(?:const )?[\w:]*(?:Lock|lock|lock_guard|AutoTrace)(?:<.*>)? \w+[({]")
CLASS = re.compile(r"\s*(class|struct|enum)\b[^;()]*\{$")
OUTER = re.compile(r"(if|for|while|do|switch|try) ?[({]")


def code_of(line):
    """The line without its comment."""
    masked = LITERAL.sub(lambda match: "x" * len(match[0]), line)
    return line[:masked.find("//")] if "//" in masked else line


def only_counts(name, text):
    """Is this number only incremented, one at a time?"""
    changes = re.findall(rf"(\+\+)?\b{name}\b( [-+%&|^]?= |\+\+|--)?", text)
    return any(before for before, _ in changes) and not any(after for _, after in changes)


def line_breaks(line, text):
    """Every change of one token of a line; `text` is that of its file, and of the .cpp file beside it."""
    code = code_of(line)
    if NOT_BROKEN.match(code):
        return
    counter = COUNTER.match(code)
    counts = counter is not None and only_counts(counter[1], text.replace(line, ""))
    literals = list(LITERAL.finditer(code))
    in_text = lambda at: any(one[1] is not None and one.start() < at < one.end() for one in literals)
    for token, other in SWAPS:
        for match in token.finditer(code):
            is_same = (WIDTH.search(match[0]) and (CONSTANT.match(code) or counts)
                       or match[0] in (" < ", " >= ") and MOMENT.search(code[:match.start()]))
            if not in_text(match.start()) and not is_same:
                yield line[:match.start()] + other + line[match.end():]
    for match in NUMBER.finditer(code):
        if not in_text(match.start()):
            number = match[1].replace("'", "")
            base, form = (16, "0x%X") if number.startswith("0x") else (
                8, "0%o") if number.startswith("0") and len(number) > 1 else (10, "%d")
            value = int(number, base)
            other = form % (value - 1 if ROOM.match(code) and value > 1
                            else 2 * value if "'" in match[1]  # 1'000'001 shows nowhere
                            else value + 1)
            yield line[:match.start()] + other + line[match.end():]
    for match in filter(lambda one: one[1], literals):
        middle = match.start(1) + len(match[1]) // 2
        if code[middle - 1] == "\\":  # the pair of an escaped character stays one
            middle -= 1
            yield line[:middle] + line[middle + 2:]
        else:
            yield line[:middle] + ("#" if line[middle] != "#" else "?") + line[middle + 1:]


class Statement:
    """The lines [first, last) of a file: one statement, or one with a block."""

    def __init__(self, lines, first, last, indent):
        self.first, self.last, self.indent = first, last, indent
        self.lines = lines[first:last]
        self.text = "\n".join(map(code_of, self.lines)).rstrip()
        self.is_outer = OUTER.match(self.text.lstrip()) is not None
        self.is_fixed = FIXED.match(self.text) is not None
        is_no_name = self.is_outer or FIELD.match(self.text) or LOCK.match(self.text)
        declared = None if is_no_name else DECLARED.match(self.text)
        self.name = declared[1] if declared else None  # that it declares

    def calls(self):
        return CALL.search(self.text) is not None

    def is_field(self):
        lines = self.text.split("\n")
        if self.is_outer:  # a block that only sets fields
            return self.text.lstrip().startswith("if ") and len(lines) > 2 and all(
                map(FIELD.match, lines[1:-1]))
        return FIELD.match(self.text) is not None

    def is_trace(self):
        return self.text.lstrip().startswith("if (TraceOn())")

    def is_guard(self):
        """An `if` after which nothing is done when it holds."""
        inner = [line for line in self.lines[1:-1] if indent_of(line) == self.indent + 2]
        return self.text.lstrip().startswith("if (") and bool(inner) and re.match(
            r"\s*(return|throw|fail\w*\()", inner[-1]) is not None

    def is_computed(self):
        """A constant made of values that are there: it has no effect, and cannot fail."""
        match = COMPUTED.match(self.text)
        return match is not None and LOOKS_NOTHING_UP.match(match[1]) is not None

    def is_logger(self):
        return LOGGER.match(self.text) is not None

    def is_log(self):
        return self.text.lstrip().startswith("log.")

    def shows(self, field):
        """Does this line of the log print what `field` sets?"""
        target = re.match(r"\s*(?:\+\+|--|tool::\w+\()?(\w+)", field.text)
        return target is None or re.search(rf"\b{target[1]}\b", LITERAL.sub("", self.text)) is not None

    def needs(self, other):
        return other.name is not None and re.search(rf"\b{other.name}\b", self.text) is not None


def indent_of(line):
    return len(line) - len(line.lstrip())


def members(lines):
    """The numbers of the lines that stand in a class, but not in a function of it."""
    found, indents = set(), []
    for at, line in enumerate(map(code_of, lines)):
        if indents and line.startswith(" " * indents[-1] + "}"):
            indents.pop()
        elif indents and line.strip() and indent_of(line) == indents[-1] + 2:
            found.add(at)
        if CLASS.match(line):
            indents.append(indent_of(line))
    return found


def statements(lines):
    """The statements in functions' bodies, each followed by the statements in it."""
    not_in_functions = members(lines)
    at, before = 0, ""
    while at < len(lines):
        code = code_of(lines[at]).rstrip()
        begins = before.endswith((";", "{", "}", ":")) and at not in not_in_functions
        before = code or before
        if (not begins or not code.strip() or indent_of(code) == 0
                or FIXED.match(code) and not code.endswith(";")):
            at += 1
            continue
        indent = indent_of(code)
        last = at
        is_outer = OUTER.match(code.lstrip()) is not None
        if is_outer:  # up to the brace at the same depth that nothing follows
            while last < len(lines) and not (
                    last > at and indent_of(lines[last]) == indent and lines[last].strip()
                    and re.match(r"\s*\}(;| while .*;)?\s*$", code_of(lines[last]))):
                last += 1
        else:
            while (last < len(lines) and not code_of(lines[last]).rstrip().endswith(";")
                   and code_of(lines[last]).strip() and not code_of(lines[last]).rstrip().endswith("{")):
                last += 1
            if last < len(lines) and not code_of(lines[last]).rstrip().endswith(";"):
                before = code_of(lines[last]).rstrip()  # the head of a function, or a list
                at = last + 1
                continue
        if last < len(lines):
            yield Statement(lines, at, last + 1, indent)
        if not is_outer:
            before = code_of(lines[min(last, len(lines) - 1)]).rstrip()
        at = at + 1 if is_outer else last + 1


def left_out(lines, found):
    """Statements left out, locks too. A declaration whose name is needed below stays."""
    for one in found:
        if one.is_outer or one.is_fixed or PAUSE.match(one.text):
            continue
        below = []
        for line in lines[one.last:]:
            if line.startswith("}") or indent_of(line) < one.indent and line.strip():
                break
            below.append(line)
        if one.name is None or not re.search(rf"\b{one.name}\b", "\n".join(map(code_of, below))):
            yield one.first, one.last, []


def in_other_order(lines, found):
    """Two neighbours swapped, and fields set on the other side of the call next to them."""
    by_first = {one.first: one for one in found}

    def after(one):
        at = one.last
        while at < len(lines) and not code_of(lines[at]).strip() and lines[at].strip():
            at += 1  # a comment belongs to what follows
        following = by_first.get(at)
        return following if following and following.indent == one.indent else None

    def may_swap(a, b):
        shows_nowhere = (a.is_field() and (b.is_trace() or b.name or b.is_log() and not b.shows(a))
                         or b.is_field() and (a.is_trace() or a.name or a.is_log() and not a.shows(b))
                         or a.is_guard() and b.is_computed() or b.is_guard() and a.is_computed()
                         or a.is_logger() and b.name or b.is_logger() and a.name)
        return not (a.is_fixed or b.is_fixed or b.needs(a) or a.needs(b) or a.is_outer and b.is_outer
                    or shows_nowhere)

    def swapped(a, b):
        between = lines[a.last:b.first]
        return a.first, b.last, between + b.lines + a.lines

    for one in found:
        following = after(one)
        if following is None:
            continue
        both_fields = one.is_field() and following.is_field()
        quiet = not (one.calls() and following.calls()) and (one.name or following.name)
        if (may_swap(one, following) and not both_fields and not quiet
                and (one.calls() or following.calls())):
            yield swapped(one, following)
        # field, field, ..., call: the first field goes below the call, and so backwards
        run = [one]
        while run[-1].is_field() and after(run[-1]):
            run.append(after(run[-1]))
        if len(run) > 2 and not run[-1].is_field() and run[-1].calls() and may_swap(one, run[-1]):
            yield one.first, run[-1].last, lines[one.last:run[-1].last] + one.lines
        if one.calls() and not one.is_field() and not one.is_outer:
            run = [one]
            while after(run[-1]) and after(run[-1]).is_field():
                run.append(after(run[-1]))
            for field in run[2:]:
                if may_swap(one, field):
                    yield one.first, field.last, field.lines + lines[one.first:field.first]


def not_compiled(lines):
    """The numbers of the lines that are for a sanitizer, which the tests are not built with."""
    found, inside = set(), False
    for at, line in enumerate(lines):
        if line.startswith("#"):
            inside = line.startswith("#ifdef __SANITIZE")
        elif inside:
            found.add(at)
    return found


def breaks_of(path, text, beside=""):
    """Every break of the file at `path`, whose content is `text`; `beside`: that of the .cpp file beside it."""
    lines = text.splitlines()
    found = list(statements(lines))
    made = [(at, at + 1, [new]) for at, line in enumerate(lines) for new in line_breaks(line, text + beside)]
    made += left_out(lines, found)
    made += in_other_order(lines, found)
    seen, dead = set(), not_compiled(lines)
    for first, last, new in sorted(made, key=lambda one: one[0]):
        key = (first, last, tuple(new))
        if key not in seen and first not in dead:
            seen.add(key)
            yield Break(path, first, last, lines[first:last], new)


def describe(one):
    joined = lambda lines: " / ".join(line.strip() for line in lines if line.strip()) or "(dropped)"
    return f"{one.path} | {joined(one.old)} | {joined(one.new)}"
