#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes the manual from the public headers and the pages in docs/, which are written to be read as they stand.

manual.py filter FILE       what Doxygen is to read instead of a header or a page (its INPUT_FILTER)
manual.py prepare DIR       fails where the filter would; puts the programs that Doxygen is to quote into DIR
manual.py man VERSION DIR   a page of section 3 for each header into DIR, and a link to it for each exported name
manual.py check TAGS HTML MAN
                            fails unless each exported name is in Doxygen's tag file and has a page in MAN, each other
                            one is on the page of its header, and no sentence of a header was lost on its way

How headers are written:
    /* name.h - title. Text ... */     opens the file and tells what holds for all of it
    /* ---- title ---- Text ... */     opens a section
    /** Text ... */                    tells of the declarations up to the next empty line
Text is plain: paragraphs, "- " lists, "term  text" lists with aligned text, a short line as the heading of indented
text, and examples indented by four blanks or more behind an empty line.
"""

import html
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = ROOT / "include"
MODULES = """core process mem pool thread sync queue thrpool file path ini stream buffstream log trace format
    strutil utf8 parse random uuid align""".split()
ORDER = ["eko.h"] + [f"eko/{module}.h" for module in MODULES] + ["base.h", "dbtype.h", "ekoplat.h"]

# ---- text --------------------------------------------------------------------------------------------------------
#
# A text is a list of blocks: ("p", text), ("code", lines), ("list", [text...]), ("terms", [(term, text)...]) and
# ("head", title, text).

TERM = re.compile(r"(\S(?:.*?\S)?) {2,}(\S.*)$")
NUMBER = re.compile(r"^( +)(-?\d+)( {2,}(?=\S))") # numbers as terms stand right


def indent(line):
    return len(line) - len(line.lstrip())


def nested(lines, start):
    """The index behind the lines from `start` on that are indented, or empty and followed by such."""
    end = start
    for i in range(start, len(lines)):
        if lines[i] and not indent(lines[i]):
            break
        if lines[i]:
            end = i + 1
    return end


def blocks(lines):
    """The blocks of a text."""
    depth = min((indent(line) for line in lines if line), default=0)
    lines = [NUMBER.sub(lambda match: match[2] + match[1] + match[3], line[depth:]) for line in lines]
    result = []
    i = 0
    while i < len(lines):
        line = lines[i]
        end = nested(lines, i + 1)
        term = TERM.match(line)
        if term and term[1].count('"') % 2:
            term = None # blanks in a quoted text
        if not line:
            if nested(lines, i) > i:
                end = nested(lines, i)
                deep = lines[i + 1:end]
                margin = min(indent(line) for line in deep if line)
                if margin >= 4:
                    result.append(("code", [line[margin:] for line in deep]))
                else:
                    result += [("gap",)] + blocks(deep)
            else:
                end = i + 1
            result.append(("gap",))
        elif line.startswith("- "):
            item = blocks(["  " + line[2:]] + lines[i + 1:end])
            extend(result, "list", item)
        elif term:
            body = [" " * term.start(2) + term[2]] + lines[i + 1:end]
            extend(result, "terms", (term[1], blocks(body)))
        elif end > i + 1 and lines[i + 1] and len(line) < 40 and line[-1] not in ".,:;" and not continues(result):
            result.append(("head", line, blocks(lines[i + 1:end])))
        else:
            if continues(result):
                result[-1] = ("p", result[-1][1] + " " + line)
            else:
                result.append(("p", line))
            end = end if end > i + 1 and lines[i + 1] else i + 1
            result += blocks(lines[i + 1:end])
        i = end
    return [block for block in merged(result) if block[0] != "gap"]


def continues(result):
    return bool(result) and result[-1][0] == "p"


def extend(result, kind, item):
    """Adds an item to the list that stands last, or begins one."""
    if result and result[-1][0] == kind:
        result[-1][1].append(item)
    else:
        result.append((kind, [item]))


def merged(result):
    """Joins lists of one kind that an empty line separates."""
    out = []
    for block in result:
        solid = [b for b in out[-2:] if b[0] != "gap"]
        if block[0] in ("list", "terms") and solid and solid[-1][0] == block[0] and out[-1][0] == "gap":
            out.pop()
            out[-1][1].extend(block[1])
        else:
            out.append(block)
    return out


def parts(text):
    """A paragraph of an entry, cut in front of the sentences that tell of results, of threads and of surprises."""
    return [part.strip() for part in re.split(r"(?<=[.;:)] )(?=(?:Surprises?|Threads): |Returns )", text)]


def comment_lines(comment):
    """The lines of a comment without its marks."""
    body = re.sub(r"^/\*+<?|\*/$", "", comment).rstrip()
    lines = body.split("\n")
    return [lines[0].strip()] + [re.sub(r"^ *\* ?", "", line).rstrip() for line in lines[1:]]


def entry_text(comment):
    """The text of a /** comment: behind the first line, text begins two blanks behind the star."""
    lines = comment_lines(comment)
    return [lines[0]] + [line[1:] if line.startswith(" ") else line for line in lines[1:]]


# ---- headers -----------------------------------------------------------------------------------------------------


class Header:
    """A public header: its title, its text, and its pieces, comments and code by turns, as (kind, text)."""

    def __init__(self, path):
        self.name = path.stem
        source = path.read_text(encoding="utf-8")
        pieces = re.split(r"(/\*.*?\*/)", source, flags=re.S)
        head = comment_lines(pieces[3])
        opening = re.match(r"[\w.]+\.h - (.*)$", head[0])
        if not opening:
            sys.exit(f"{path}: no opening comment")
        first, head = opening[1], [opening[1]] + head[1:]
        while not re.search(r"\.( |$)", first): # the title is the first sentence
            head.pop(0)
            first = f"{first} {head[0].strip()}"
        self.title, rest = re.match(r"(.*?)\.(?: +|$)(.*)$", first).groups()
        self.text = blocks([rest] + head[1:])
        self.pieces = []
        for piece in pieces[4:]:
            self.pieces.append((self.kind(piece), piece))

    @staticmethod
    def kind(piece):
        for mark, kind in (("/**<", "behind"), ("/**", "entry"), ("/* ----", "section"), ("/*", "plain")):
            if piece.startswith(mark):
                return kind
        return "code"

    @staticmethod
    def section(comment):
        """Title and text of a section."""
        lines = comment_lines(re.sub(r"-{3,}", "", comment))
        lines = ["" if line == "*" else line for line in lines]
        title, *rest = re.split("[:;] ", lines[0].strip(" *"), maxsplit=1)
        rest = [line[:1].upper() + line[1:] + "." for line in rest]
        return title[:1].upper() + title[1:], blocks(rest + lines[1:])

    def plain_sections(self):
        """The sections without declarations, which tell of something for all the others."""
        kinds = [(kind, piece) for kind, piece in self.pieces if kind in ("section", "entry")] + [("section", "")]
        return [self.section(piece) for (kind, piece), (following, _) in zip(kinds, kinds[1:])
                if kind == following == "section"]


FUNCTION = re.compile(r"EKO_API [^;]*?(\w+)\(")
DECLARATION = (r"^(?:EKO_API [^;]*;|#define +\w+.*|typedef (?:struct|enum) \w+ \{|typedef [^;{]*;"
               r"|static const [^;]*;)")
VARIABLE = re.compile(r"EKO_API extern [^;]*?(\w+);")


def declared(code):
    """The names that code declares, one after the other."""
    found = []
    for match in re.finditer(DECLARATION, code, flags=re.M):
        text = match[0]
        name = VARIABLE.match(text) or re.match(r"static const \w+ (\w+)", text) or FUNCTION.match(text)
        name = name or re.match(r"(?:#define +|typedef \w+ (?=\w+ \{))(\w+)", text)
        name = name or re.search(r"\(\*(\w+)\)", text) or re.search(r"(\w+)(?:\[\w*\]|\([^)]*\))?;", text)
        found.append((name[1], match.start(), match.end()))
    return found


def run(code):
    """The code that an entry tells of: up to the next empty line."""
    return re.split(r"\n[ \t]*\n", code, maxsplit=1)[0]


class Names:
    """What the headers declare, and where."""

    def __init__(self):
        self.header_of = {}
        self.exported = []
        for path in ORDER:
            text = (INCLUDE / path).read_text(encoding="utf-8")
            code = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
            for name, start, _ in declared(code):
                self.header_of[name] = pathlib.Path(path).stem
                if code.startswith("EKO_API", start):
                    self.exported.append(name)
            for match in re.finditer(r"\benum \w+ \{(.*?)\}", code, flags=re.S):
                for name in re.findall(r"\b([A-Z][A-Z0-9_]+)\b(?= *[=,\n])", match[1]):
                    self.header_of[name] = pathlib.Path(path).stem
        for guard in [name for name in self.header_of if name.endswith("_H")]:
            del self.header_of[guard]


# ---- examples ----------------------------------------------------------------------------------------------------
#
# A program of examples/ is quoted without its licence and its marks. Parts lie between two comments [mark].


def quoted_program(path, mark=None):
    """A program, or a part of it, as lines."""
    text = (ROOT / "examples" / path).read_text(encoding="utf-8")
    if mark:
        text = text.split(f"/* [{mark}] */")[1] # an error when there is none
    lines = [line for line in text.strip("\n").split("\n") if "SPDX-" not in line]
    return [line for line in lines if not re.fullmatch(r" */\* \[\w+\] \*/", line)]


class Example:
    """The program of examples/ that shows a header, and what it prints."""

    def __init__(self, header):
        directory = "hello" if header.name == "eko" else header.name
        self.name = f"{directory}.c"
        self.exists = (ROOT / "examples" / directory / self.name).exists()
        if self.exists:
            readme = (ROOT / "examples" / directory / "README.md").read_text(encoding="utf-8")
            self.output = re.search(r"```text\n(.*?)\n```", readme, flags=re.S)[1].split("\n")
            self.program = quoted_program(f"{directory}/{self.name}")


# ---- Doxygen -----------------------------------------------------------------------------------------------------


class Doxygen:
    """Writes blocks as Doxygen reads them: each block on one line of HTML, names as references."""

    WORD = re.compile(r"`([^`]+)`|\b(\w+\.h)\b|\b([A-Za-z_]\w*)\b|([\\@&$#<>%\"*`\[\]~|])")

    def __init__(self, names):
        self.names = names

    def inline(self, text):
        quoted = False

        def word(match):
            nonlocal quoted
            code, header, name, special = match.groups()
            if code:
                return f"<code>{self.inline(code)}</code>"
            if header:
                known = any(pathlib.Path(path).name == header for path in ORDER)
                return f'@ref {header[:-2]}_h "{header}"' if known else header
            if name:
                return self.reference(name) if name in self.names.header_of else name
            quoted ^= special == '"'
            # Doxygen takes what is in quotes for no Markdown, and so a backslash in front of it for itself.
            return special if quoted and special in "*[]`~|" else "\\" + special

        return self.WORD.sub(word, text)

    @staticmethod
    def reference(name):
        return f'@ref {name} "{name}"'

    def html(self, text):
        """Blocks as HTML on one line."""
        return "".join(self.block(block) for block in text)

    def block(self, block):
        kind, content = block[0], block[1]
        if kind == "p":
            return f"<p>{self.inline(content)}</p>"
        if kind == "code":
            lines = "\n".join(content)
            return f"\n@code{{.c}}\n{lines}\n@endcode\n\n"
        if kind == "list":
            return "<ul>" + "".join(f"<li>{self.tight(item)}</li>" for item in content) + "</ul>"
        if kind == "terms":
            items = [f"<dt>{self.inline(term)}</dt><dd>{self.tight(body)}</dd>" for term, body in content]
            return "<dl>" + "".join(items) + "</dl>"
        return f"<p><b>{self.inline(content)}</b></p><blockquote>{self.html(block[2])}</blockquote>"

    def tight(self, text):
        """The same without a paragraph of its own for the first one."""
        if text and text[0][0] == "p":
            return self.inline(text[0][1]) + self.html(text[1:])
        return self.html(text)

    # ---- comments

    def entry(self, comment, code):
        """An entry's comment, followed by its declarations with references to it in front of all but the first."""
        family = run(code)
        found = declared(family)
        text = self.described(blocks(entry_text(comment)), [family[start:end] for _, start, end in found])
        others = [name for name, _, _ in found[1:]]
        if others:
            text += "\n\n@par Likewise\n" + ", ".join(self.reference(name) for name in others)
        out, last = f"/** {text} */", 0
        for _, start, _ in found[1:]:
            out += family[last:start] + f"/** See {self.reference(found[0][0])}, which tells of it too. */\n"
            last = start
        return out + family[last:] + code[len(family):]

    def described(self, text, declarations):
        """An entry's text, with its marked sentences as Doxygen's sections."""
        out = []
        for number, block in enumerate(text):
            if block[0] == "p":
                out += self.sentences(block[1], number == 0)
            elif block[0] == "terms" and self.are_parameters(block[1], declarations):
                for term, body in block[1]:
                    out.append(f"@param {term.replace(' ', '')} {self.tight(body)}")
            elif out and out[-1].startswith(("@par", "@return")):
                out[-1] += self.block(block)
            else:
                out.append(self.block(block))
        return "\n\n".join(out)

    def sentences(self, text, is_first):
        out = []
        for part in parts(text):
            mark = re.match(r"(Surprises?|Threads): ", part)
            if mark:
                rest = part[mark.end():]
                out.append(f"@par {mark[1]}\n" + self.inline(rest[:1].upper() + rest[1:]))
            elif part.startswith("Returns ") and not (is_first and not out):
                out.append("@return " + self.inline(part[len("Returns "):]))
            elif is_first and not out:
                whole = part if part.endswith(".") else part + "."
                first, rest = re.match(r"(.*?\.)(?: (?=[A-Z\"`])(.*))?$", whole).groups()
                out.append("@brief " + self.inline(first))
                if rest:
                    out.append(self.inline(rest))
            else:
                out.append(self.inline(part))
        return out

    @staticmethod
    def are_parameters(terms, declarations):
        """Whether these are parameters of the first declaration. Each must be one of some, or none."""
        def all_known(declared):
            words = re.findall(r"\w+(?=[,)])", declared[declared.find("("):])
            return [set(re.split(r", *", term)) <= set(words) for term, _ in terms]
        calls = [declaration for declaration in declarations if "(" in declaration]
        known = all_known(" ".join(["("] + [call.partition("(")[2] for call in calls]))
        if any(known) and not all(known):
            sys.exit(f"{[term for term, _ in terms]}: not all are parameters of\n{declarations[0]}")
        return bool(calls) and all(all_known(calls[0]))

    # ---- files

    def header(self, header):
        """A header whose comments Doxygen understands: a group of its name, its sections as groups of members."""
        group = f"{header.name}_h"
        out = ["/** @file\n See @ref ", group, ". */\n"]
        if header.name == "eko":
            for path in ORDER:
                other = Header(INCLUDE / path)
                out.append(f"/** @defgroup {other.name}_h {other.name}.h: {other.title} */\n")
        pieces = header.pieces
        text = header.text + [("head", *piece) for piece in header.plain_sections()]
        out.append(f"/** @addtogroup {group}\n@{{\n{self.html(text)}{self.example(header)} */\n")
        open_section = False
        skip = False
        for number, (kind, piece) in enumerate(pieces):
            if skip:
                skip = False
            elif kind == "section":
                title, text = Header.section(piece)
                if open_section:
                    out.append("/** @} */\n")
                if (title, text) in header.plain_sections():
                    open_section = False
                    continue
                out.append(f"/** @name {self.inline(title)}\n{self.html(text)} */\n/** @{{ */")
                open_section = True
            elif kind == "entry":
                out.append(self.entry(piece, pieces[number + 1][1]))
                skip = True
            elif kind == "behind":
                out.append("/**< " + self.inline(" ".join(comment_lines(piece)).strip()) + " */")
            else:
                out.append(piece)
        if open_section:
            out.append("/** @} */\n")
        return "".join(out) + "/** @} */\n"

    def example(self, header):
        example = Example(header)
        if not example.exists:
            return ""
        output = "\n".join(example.output)
        return f"\n\n@par Example\n@include {example.name}\nIt prints\n@verbatim\n{output}\n@endverbatim\n"

    def page(self, path):
        """A page: its own label, references instead of names and links, programs of examples/ quoted."""
        text = path.read_text(encoding="utf-8")
        text = re.sub(r"<!--.*?-->\n?", "", text, flags=re.S)
        text = re.sub(r"\A\s*# (.*)$", rf"# \1 {{#page_{path.stem}}}", text, count=1, flags=re.M)
        def quote(match):
            return "\n".join(["```c"] + quoted_program(match[1], match[2]) + ["```"])
        text = re.sub(r"^\[[^\]]*\]\(\.\./examples/([^)#]+)(?:#(\w+))?\)$", quote, text, flags=re.M)
        anchors = []
        def heading(match):
            anchor = base = f"{path.stem}_{self.slug(match[1])}"
            while anchor in anchors: # the first one has the plain name, as in browsers
                anchor = f"{base}-{sum(other.startswith(base) for other in anchors)}"
            anchors.append(anchor)
            return f"{match[0]} {{#{anchor}}}"
        text = re.sub(r"^##+ (.*)$", heading, text, flags=re.M)
        text = re.sub(r"\]\((\w+)\.md\)", r"](@ref page_\1)", text)
        text = re.sub(r"\]\((\w+)\.md#([\w-]+)\)", r"](@ref \1_\2)", text)
        text = re.sub(r"\]\(\.\./include/(?:eko/)?(\w+)\.h\)", r"](@ref \1_h)", text)
        text = re.sub(r"(?<!!)\[([^\]]*)\]\(\.\./[^)]*\)", r"\1", text) # what is not in the manual
        fenced = re.split(r"(^```.*?^```$)", text, flags=re.M | re.S)
        return "".join(re.sub(r"\A```(\w+)", r"```{.\1}", part) if number % 2 else self.linked(part)
                       for number, part in enumerate(fenced))

    @staticmethod
    def slug(title):
        """A heading's anchor, as browsers of repositories name it."""
        return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")

    def linked(self, text):
        text = re.sub(r"\*\*(.+?)\*\*", r"<b>\1</b>", text, flags=re.S) # Doxygen wants no references inside

        def code(match):
            if not match[1]:
                return "\\%" # in front of a word Doxygen would swallow it
            if match[1] in self.names.header_of:
                return f"<code>{self.reference(match[1])}</code>"
            if re.fullmatch(r"(\w+)\.h", match[1]) and match[1][:-2] in MODULES:
                return f'<code>@ref {match[1][:-2]}_h "{match[1]}"</code>'
            if "__" in match[1]:
                return match[0] # which the other form would show in bold
            return "<code>" + re.sub(r"--|[\\@&$#<>%\"*\[\]~|]", r"\\\g<0>", match[1]) + "</code>"

        return re.sub(r"`([^`\n]+)`|%", code, text)


# ---- man pages ---------------------------------------------------------------------------------------------------


class Man:
    """Writes a header as a page of man(7)."""

    @staticmethod
    def escape(text):
        text = text.replace("\\", "\\e").replace("-", "\\-")
        text = re.sub(r"`([^`]+)`", r"\1", text)
        text = re.sub(r"[^\x00-\x7f]", lambda match: f"\\[u{ord(match[0]):04X}]", text)
        return re.sub(r"^([.'])", r"\\&\1", text)

    def text(self, text):
        """Blocks as lines."""
        out = []
        for block in text:
            kind, content = block[0], block[1]
            if kind == "p":
                out += [".PP"] + self.filled(content)
            elif kind == "code":
                out += [".PP", ".in +4n", ".EX"] + [self.escape(line) for line in content] + [".EE", ".in"]
            elif kind == "list":
                for item in content:
                    out += [".IP \\(bu 2"] + self.body(item)
            elif kind == "terms":
                for term, item in content:
                    out += [".TP", f".B {self.quoted(term)}"] + self.body(item)
            else:
                out += [".PP", f".B {self.quoted(content)}", ".RS 4"] + self.text(block[2]) + [".RE"]
        return out

    def body(self, text):
        """What stands in an item: its first paragraph needs no request, what follows is indented."""
        first = self.filled(text[0][1]) if text and text[0][0] == "p" else []
        rest = text[1:] if first else text
        return first + ([".RS"] + self.text(rest) + [".RE"] if rest else [])

    def filled(self, text):
        """One sentence a line, but for those in quotes."""
        ends = re.finditer(r"(?<=[.:;]) (?=[A-Z0-9\"])", text)
        cuts = [end.start() for end in ends if text.count('"', 0, end.start()) % 2 == 0]
        return [self.escape(text[start:end].strip()) for start, end in zip([0] + cuts, cuts + [len(text)])]

    def quoted(self, text):
        return '"' + self.escape(text).replace('"', '\\(dq') + '"'

    def declaration(self, code):
        code = re.sub(r"\n[ \t]*", " ", code).strip()
        if not code.startswith("#define"):
            code = re.sub(r"\bEKO_API (extern )?|\bEKO_NORETURN |\s*EKO_PRINTF_CHECK\([^)]*\)", "", code)
        lines = [code]
        while len(lines[-1]) > 76 and ", " in lines[-1][:76] and "/*" not in code: # continue behind a comma
            cut = lines[-1].rfind(", ", 0, 76) + 1
            lines[-1:] = [lines[-1][:cut], "    " + lines[-1][cut:].strip()]
            if cut <= 5:
                break
        return [f".B {self.quoted(line)}" for line in lines]

    def described(self, text):
        """An entry's text."""
        split = [[("p", part) for part in parts(block[1])] if block[0] == "p" else [block] for block in text]
        return self.text(sum(split, []))

    def entry(self, comment, code):
        family = run(code)
        found = declared(family)
        if not found and not family.strip():
            return self.text(blocks(entry_text(comment)))
        out = [".PP", ".nf"]
        if found and "{" not in family.strip().split("\n")[0]:
            for _, start, end in found:
                rest = family[start:end]
                if rest.startswith("#define"):
                    rest = family[start:].split("\n")[0]
                out += self.declaration(rest)
        else:
            out += [f".B {self.quoted(line)}" for line in family.strip("\n").split("\n") if line.strip()]
        return out + [".fi", ".RS 4"] + self.described(blocks(entry_text(comment))) + [".RE"]

    def page(self, header, version):
        name = self.title(header.name)
        out = ['.\\" SPDX-License-Identifier: MIT', ".nr HY 0"] # no name is to be hyphenated
        out += [f'.TH {name} 3 "" "eko {version}" "eko, the platform library"', ".ad l"]
        out += [".SH NAME", f"{name} \\- {self.escape(header.title)}"]
        out += [".SH LIBRARY", "eko (libeko,", ".BR \\-leko ),", "compiled with",
                ".BR \"$(pkg\\-config \\-\\-cflags \\-\\-libs eko)\""]
        out += [".SH SYNOPSIS", ".nf", ".B #include <eko.h>", ".fi", ".SH DESCRIPTION"] + self.text(header.text)
        plain = bool(header.text)
        pieces = header.pieces
        for number, (kind, piece) in enumerate(pieces):
            if kind == "section":
                title, text = Header.section(piece)
                out += [f".SH {self.quoted(title.upper())}"] + self.text(text)
                plain = False
            elif kind == "entry":
                if plain:
                    out.append(".SH INTERFACE")
                    plain = False
                out += self.entry(piece, self.whole(pieces, number + 1))
        if header.name == "eko":
            out += [".SH MODULES"] + self.modules()
        example = Example(header)
        if example.exists:
            out += [".SH EXAMPLE"] + self.text([("code", example.program)])
            out += [".PP", "It prints"] + self.text([("code", example.output)])
        out += [".SH SEE ALSO"] + self.see_also(header)
        return self.clean(out)

    @staticmethod
    def whole(pieces, start):
        """The code behind an entry, with the fields' comments as C has them."""
        code = ""
        for kind, piece in pieces[start:]:
            if kind not in ("code", "behind", "plain"):
                break
            code += piece.replace("/**<", "/*") if kind == "behind" else piece
        return code

    @staticmethod
    def title(module):
        return "eko" if module == "eko" else f"eko_{module}"

    def modules(self):
        """The pages of all the others, with their titles."""
        out = []
        for path in ORDER[1:]:
            other = Header(INCLUDE / path)
            out += [".TP", f".BR {self.title(other.name)} (3)", self.escape(other.title)]
        return out

    def see_also(self, header):
        others = [path for path in ORDER if pathlib.Path(path).stem != header.name]
        names = ["eko" if path == "eko.h" else "eko_" + pathlib.Path(path).stem for path in others]
        return [f".BR {name} (3){',' if number + 1 < len(names) else ''}" for number, name in enumerate(names)]

    @staticmethod
    def clean(lines):
        """Without paragraphs that begin where one begins anyway."""
        out = []
        for line in lines:
            if line == ".PP" and out and out[-1].startswith((".SH", ".SS", ".PP", ".RS")):
                continue
            out.append(line)
        return "\n".join(out) + "\n"


def write_man(version, target):
    names, man = Names(), Man()
    target.mkdir(parents=True, exist_ok=True)
    for path in ORDER:
        header = Header(INCLUDE / path)
        (target / f"{man.title(header.name)}.3").write_text(man.page(header, version), encoding="utf-8")
    for name in names.exported:
        page = target / f"{name}.3"
        if page.exists(): # a header and a function of one name, as eko_log: its page tells of the function
            continue
        page.write_text(f".so man3/eko_{names.header_of[name]}.3\n", encoding="utf-8")


def prepare(target):
    for path in [INCLUDE / path for path in ORDER] + list((ROOT / "docs").glob("*.md")):
        filtered(path) # Doxygen takes a filter that fails for an empty file
    target.mkdir(parents=True, exist_ok=True)
    for path in ORDER:
        example = Example(Header(INCLUDE / path))
        if example.exists:
            (target / example.name).write_text("\n".join(example.program) + "\n", encoding="utf-8")


# ---- checks ------------------------------------------------------------------------------------------------------


def words(text):
    """The words of a text, which are the same in all its forms."""
    return " " + " ".join(re.findall(r"\w+", text)).lower() + " "


def sentences(path):
    """The words of each sentence, each item and each term in the comments of a header."""
    comments = re.findall(r"/\*.*?\*/", path.read_text(encoding="utf-8"), flags=re.S)
    told = [comments[1]] + [comment for comment in comments[2:] if Header.kind(comment) != "plain"]
    for comment in told:
        lines = comment_lines(re.sub(r"-{3,}", "", comment))
        text = re.sub(r"^[\w.]+\.h - ", "", "\n".join(lines))
        for sentence in re.split(r"(?<=[.:;])\s|\n\s*\n|\n(?=\s*- )|(?<=\S)  +(?=\S)|\n(?=\s+\S+  )", text):
            yield words(sentence)


def shown(page):
    """The words of a page of HTML."""
    text = page.read_text(encoding="utf-8")
    text = re.sub(r"<script.*?</script>|</?(?:a|b|code|em|span)\b[^>]*>", "", text, flags=re.S)
    return words(html.unescape(re.sub(r"<[^>]*>", " ", text)))


def printed(page):
    """The words of a page for man."""
    requests = r"^\.[A-Z]{1,2}\b(?: \\\(bu 2| 4$)?|^\.(?:nf|fi|in)\b"
    text = re.sub(requests, "", page.read_text(encoding="utf-8"), flags=re.M)
    return words(re.sub(r"\\(?:\(dq|e|&|\[u\w+\])", " ", text.replace("\\-", "-")))


def lost(pages, target):
    """Complaints about sentences that are not in a form of the manual."""
    structures = "".join(shown(page) for page in pages.glob("struct*.html"))
    for path in ORDER:
        module = pathlib.Path(path).stem
        forms = {"HTML": shown(pages / f"group__{module}__h.html") + structures,
                 "man": printed(target / f"{Man.title(module)}.3")}
        for sentence in sentences(INCLUDE / path):
            for form, text in forms.items():
                if sentence.strip() and sentence not in text:
                    yield f"{path}, {form}: lost is:{sentence}"


def check(tags, pages, target):
    documented = set(re.findall(r"<name>(\w+)</name>", tags.read_text(encoding="utf-8")))
    names = Names()
    missing = []
    for name, module in names.header_of.items():
        text = (target / f"{Man.title(module)}.3").read_text(encoding="utf-8")
        if not re.search(rf"\b{name}\b", text):
            missing.append(f"{name} is not in the man page of its header")
    for name in names.exported:
        page = target / f"{name}.3"
        text = page.read_text(encoding="utf-8") if page.exists() else ""
        link = re.match(r"\.so man3/(\S+)\n", text)
        if link:
            text = (target / link[1]).read_text(encoding="utf-8")
        if not re.search(rf"^\.B .*\b{name}\b", text, flags=re.M):
            missing.append(f"{name} has no man page")
        if name not in documented:
            missing.append(f"{name} is not in the HTML manual")
    missing += lost(pages, target)
    if missing:
        sys.exit("\n".join(missing))


def filtered(path):
    doxygen = Doxygen(Names())
    return doxygen.header(Header(path)) if path.suffix == ".h" else doxygen.page(path)


def main(command, *arguments):
    if command == "filter":
        print(filtered(pathlib.Path(arguments[0]).resolve()), end="")
    elif command == "prepare":
        prepare(pathlib.Path(arguments[0]))
    elif command == "man":
        write_man(arguments[0], pathlib.Path(arguments[1]))
    elif command == "check":
        check(*[pathlib.Path(argument) for argument in arguments])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(*sys.argv[1:])
