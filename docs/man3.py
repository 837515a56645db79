"""The manual pages of the operations, section 3, made from the comments of prsr.h alone.

A comment has paragraphs: what the operation does; its arguments, one a line, two blanks or more before
their meaning; "Takes" with the locks; "Returns" with each code and when. "Locks and codes as for X" and
"As X" refer to another operation. The head of the header has what holds for all.
"""
import re
from pathlib import Path

DATE = "November 26, 2026"
NAMES = {"dbname": "sales", "srvname": "reporting", "instname": "sales4", "nodename": "node1", "stg_scope": "node1",
         "stg_name": "stg1"}


class Operation:
    def __init__(self, name, parameters, comment, group):
        self.name, self.group = name, group
        self.parameters = [one.strip() for one in parameters.split(",")]
        self.arguments, self.text, self.locks, self.codes, self.after = {}, [], [], [], []
        for paragraph in comment.split("\n\n"):
            self.read(paragraph)
        self.sentence = self.text[0].split(". ")[0].rstrip(".")

    def names(self):
        return [re.search(r"\w+$", one)[0] for one in self.parameters]

    def read(self, paragraph):
        if re.match(r"[\w, ]+?  +\S", paragraph) and not paragraph.startswith("Takes"):
            for line in paragraph.split("\n"):
                row = re.match(r"(\w[\w, ]*?)  +(\S.*)", line)
                if row:
                    self.arguments[row[1]] = row[2]
                else:
                    self.arguments[list(self.arguments)[-1]] += " " + line.strip()
            return
        for sentence in re.split(r"(?<=\.) (?=[A-Z])", " ".join(paragraph.split("\n"))):
            if sentence.startswith("Takes "):
                self.locks.append(sentence)
            elif sentence.startswith("Returns PRSR_") or sentence.startswith("Returns the lock's"):
                self.codes = codes_of(sentence[len("Returns "):].rstrip("."))
            else:
                (self.after if self.codes else self.text).append(sentence)

    def refers_to(self):
        found = re.search(r"(?:and codes as for|^As|^Makes .*:) (prsr_\w+)", "\n".join(self.text), re.M)
        return None if self.codes or not found else found[1]


def codes_of(text):
    """The rows of "CODE when; CODE or CODE when": each code with when it comes, in order."""
    rows = []
    for part in text.split("; "):
        if part.startswith("the lock's code"):
            rows += [("PRSR_ERR_LOCK", "the lock is refused"), ("PRSR_ERR_MEMORY", "")]
            continue
        codes = re.match(r"(PRSR_\w+)(?: or (PRSR_\w+))?[,:]? ?(.*)", part)
        if codes is None:
            rows[-1] = (rows[-1][0], rows[-1][1] + "; " + part)  # goes on after its own meaning
            continue
        rows += [(code, codes[3]) for code in codes.groups()[:2] if code]
    return rows


class Header:
    def __init__(self, text):
        head = text[:text.index("#ifndef")]
        head = re.sub(r"(?m)^// ?", "", head)
        self.rules = {}
        for line in head.split("\n"):
            name = line[:9].strip()
            if re.fullmatch("[a-z]+", name):
                self.rules[name] = line[9:]
            elif line.startswith(" " * 9) and self.rules:
                self.rules[list(self.rules)[-1]] += " " + line.strip()
        self.meanings = dict(re.findall(r"(PRSR_\w+) = \d+, +// (.*)", text))
        self.enums = {kind: block.strip() for block, kind in re.findall(r"(enum \{\n    (PRSR_[A-Z]+)_[^}]*\};)", text)}
        self.records = {name: block for block, name in re.findall(r"(typedef struct (\w+) \{[^}]*\} \w+;)", text)}
        self.operations = {}
        group = ""
        pattern = r"// ---- ([^-]+?) -+\n|((?://.*\n)+)PRSR_API int32_t (\w+)\(([^)]*)\)"
        for title, comment, name, parameters in re.findall(pattern, text):
            group = title or group
            if name:
                comment = re.sub(r"(?m)^// ?", "", comment).strip()
                self.operations[name] = Operation(name, parameters, comment, group)

    def release_of(self, operation):
        """The operation that ends what this one makes: the next one of its group."""
        if operation.text[0].startswith("Releases") or not any("**" in one for one in operation.parameters):
            return None
        names = list(self.operations)
        following = [self.operations[name] for name in names[names.index(operation.name):]]
        return next(one for one in following if one.text[0].startswith(("Releases", "Ends")))

    def made_by(self, operation):
        made = [one for one in self.operations.values() if self.release_of(one) is operation]
        return made[-1] if made else None


# ---- roff ---------------------------------------------------------------------------------------

def escaped(text):
    text = text.replace("\\", "\\e").replace("-", "\\-") if text.startswith("    ") else text.replace("\\", "\\e")
    return "\\&" + text if text[:1] in (".", "'") else text


def prose(text):
    """Text as lines of mdoc, a sentence a line at least, none longer than 80 characters."""
    lines = []
    for sentence in re.split(r"(?<=[.:;]) (?=[A-Z\"])", text):
        line = ""
        for word in sentence.split():
            if len(line) + len(word) > 76 and line:
                lines.append(line)
                line = ""
            line += (" " if line else "") + word
        lines.append(line)
    return [escaped(line) for line in lines]


def linked(text, names):
    """prose(), with other operations as cross references."""
    lines = []
    for line in prose(text):
        for piece in re.split(r"\s?(prsr_\w+[.,:;)]*)\s?", line):
            found = re.fullmatch(r"(prsr_\w+?)([.,:;)]*)", piece)
            if found and found[1] in names:
                lines.append(f".Xr {found[1]} 3" + "".join(" " + mark for mark in found[2]))
            elif piece:
                lines.append(escaped(piece))
    return lines


def literal(text):
    return [".Bd -literal -offset indent", *[escaped(line) for line in text.split("\n")], ".Ed"]


def tagged(rows, names, width="PRSR_ERR_NO_NODEAPPS", macro="Er"):
    lines = [f".Bl -tag -width {width}"]
    for name, text in rows:
        lines += [f".It {macro} {name}", *linked(text, names)]
    return lines + [".El"]


# ---- Parts of a page ----------------------------------------------------------------------------

def capital(text):
    return text if re.match(r"ctx |dbname|nodename", text) else text[:1].upper() + text[1:]


def arguments(header, operation):
    rows = []
    own = {name.strip(): text for names, text in operation.arguments.items() for name in names.split(",")}
    if operation.refers_to():
        for names, text in header.operations[operation.refers_to()].arguments.items():
            for name in names.split(","):
                own.setdefault(name.strip(), text)
    for name in operation.names():
        if name in ("buf", "bufsize") and operation.parameters[-1].startswith("char *"):
            texts = [header.rules["buf"] if name == "buf" else "the bytes of buf, at least 1", capital(own.get(name, ""))]
        elif name in NAMES:
            rule = header.rules["names"].replace(", never null", "" if name in own else ", never null")
            texts = [own.get(name), rule if name == first_name(operation) else None if name in own else "a name, as above"]
        elif name in header.rules:
            texts = [own.get(name, header.rules[name])]
        else:
            texts = [own.get(name, fallback(header, operation))]
        rows.append((name, capital(". ".join(text.rstrip(".") for text in texts if text)) + "."))
    return [(name, text) for name, text in rows if text != "."]


def fallback(header, operation):
    made = header.made_by(operation)
    return "as " + made.name + " wrote it" if made else "out; written on PRSR_SUCCESS only"


def first_name(operation):
    return next(name for name in operation.names() if name in NAMES)


def ownership(header, operation):
    release = header.release_of(operation)
    if release:
        return f"What it makes belongs to the caller and ends with {release.name}" + (
            "." if "ctx_out" in operation.names() else
            ", which is called with the same context before prsr_terminate. It is a snapshot: later changes of the "
            "registry do not show in it.")
    if header.made_by(operation):
        return "What is released must not be used afterwards."
    if "buf" in operation.names():
        return "The buffer is the caller's; nothing has to be released."
    return "The arguments stay the caller's; nothing has to be released."


def locks(header, operation):
    refers = operation.refers_to()
    inherited = header.operations[refers].locks if refers else []
    own = [one.split(": ", 1)[1] for one in operation.text if one.startswith("Locks and codes as for") and ": " in one]
    return operation.locks or [*inherited, *[capital(one) for one in own]] or ["Takes no lock."]


def codes(header, operation):
    refers = operation.refers_to()
    listed = operation.codes or (header.operations[refers].codes if refers else [])
    for text in operation.text:  # what another operation returns for the same case, renamed
        renamed = re.search(r"with (PRSR_ERR_\w+) for a missing entry", text)
        if renamed:
            listed = [(renamed[1] if code == "PRSR_ERR_NO_DATABASE" else code, when) for code, when in listed]
    for names, text in operation.arguments.items():
        refused = re.search(r"null( or empty)?,? (?:which )?gives (PRSR_\w+)", text)
        if refused:
            listed = [(refused[2], f"{names.replace(', ', ' or ')} is null{refused[1] or ''}"), *listed]
    rows = [("PRSR_SUCCESS", "")] + listed
    if "ctx" in operation.names():
        rows.append(("PRSR_ERR_CONTEXT", ""))
    merged = {}
    for code, when in rows:
        meaning = header.meanings.get(code, "done")
        when = re.sub("^(also )?if ", "", when) if when and when[0] != ";" else meaning + when
        merged.setdefault(code, {})[when] = True
    return [(code, capital("; ".join(whens)) + ".") for code, whens in merged.items()]


def definitions(header, operation):
    """The records and words of the interface that the operation hands over."""
    text = " ".join(operation.parameters + list(operation.arguments.values()))
    found, queue = [], re.findall(r"prsr_\w*cfg", text)
    while queue:
        name = queue.pop()
        if name not in found:
            found.append(name)
            queue += [one for one in re.findall(r"(prsr_\w*cfg) \*", header.records[name]) if one != name]
    blocks = [header.records[name] for name in reversed(found)]
    return blocks + [block for kind, block in header.enums.items() if kind + "_*" in text]


# ---- Examples -----------------------------------------------------------------------------------

FRAME = """#include <keyview/prsr.h>
#include <stdio.h>

int main(void) {
    uint64_t status[28] = {0};
    prsr_ctx *ctx = NULL;
    int32_t rc = %s;
    if (rc != PRSR_SUCCESS) return 1;

%s
    prsr_terminate(status, ctx);
    return rc == PRSR_SUCCESS ? 0 : 1;
}"""


def call(operation, **out):
    """The call, broken where a line would be longer than 80 characters."""
    values = {**{name: f'"{value}"' for name, value in NAMES.items()}, "status": "status", "ctx": "ctx", "lk": "NULL", **out}
    words = [values[name] for name in operation.names()]
    start, line, lines = f"{operation.name}(", "", []
    for number, word in enumerate(words):
        word += ", " if number + 1 < len(words) else ")"
        if len("    rc = " + start + line + word) > 76:
            lines.append(line.rstrip())
            line = ""
        line += word
    return start + ("\n" + " " * len("    rc = " + start)).join(lines + [line])


def example_body(header, operation):
    release = header.release_of(operation)
    names = operation.names()
    if names[-1] == "buf":
        return f"""    char buf[256];
    rc = {call(operation, bufsize="sizeof buf", buf="buf")};
    if (rc == PRSR_SUCCESS) printf("%s\\n", buf);"""
    if names[-1] == "cfg":
        record = operation.parameters[-1].split()[0]
        shown = {"prsr_cfg": "sp_name", "prsr_stg_cfg": "version", "prsr_nodeapps_cfg": "vip"}[record]
        return f"""    {record} *cfg = NULL;
    rc = {call(operation, cfg="&cfg")};
    if (rc == PRSR_SUCCESS) {{
        printf("%s\\n", cfg->{shown});
        {release.name}(status, ctx, cfg);
    }}"""
    if names[-1] == "db_count":
        return f"""    char **names = NULL;
    uint32_t count = 0;
    rc = {call(operation, db_list="&names", db_count="&count")};
    for (uint32_t n = 0; n < count; ++n)
        if (names[n] != NULL) printf("%s\\n", names[n]);
    if (names != NULL) {release.name}(status, ctx, names, count);"""
    if names[-1] == "inst_count":
        values = {"inst_names": "&names", "node_names": "&nodes", "avail": "&avail", "inst_count": "&count"}
        return f"""    char **names = NULL, **nodes = NULL;
    int32_t *avail = NULL;
    uint32_t count = 0;
    rc = {call(operation, **values)};
    if (rc == PRSR_SUCCESS) {{
        for (uint32_t n = 0; n < count; ++n)
            printf("%s on %s%s\\n", names[n], nodes[n], avail[n] ? ", takes over" : "");
        {release.name}(status, ctx, names, nodes, avail, count);
    }}"""
    if names[-1] == "domain":
        return f"""    char *domain = NULL;
    rc = {call(operation, domain="&domain")};
    if (rc == PRSR_SUCCESS) {{
        printf("%s\\n", domain);
        {release.name}(ctx, domain);
    }}"""
    if operation.parameters[-1].startswith("int32_t *"):
        name = names[-1]
        return f"""    int32_t {name} = 0;
    rc = {call(operation, **{name: "&" + name})};
    if (rc == PRSR_SUCCESS) printf("%d\\n", (int){name});"""
    value = {"enabled": "1", "role": "PRSR_ROLE_PRIMARY"}[names[-1]]
    return f"""    rc = {call(operation, **{names[-1]: value})};
    if (rc == PRSR_SUCCESS) printf("done\\n");"""


def example(header, operation):
    shown = header.made_by(operation) or operation
    if shown.group == "Context":
        init = shown if shown.name != "prsr_terminate" else header.operations["prsr_init"]
        return FRAME % (call(init, ctx_out="&ctx"), '    printf("ready\\n");')
    return FRAME % ("prsr_init(status, &ctx)", example_body(header, shown))


# ---- A page -------------------------------------------------------------------------------------

def page(header, operation):
    names = set(header.operations)
    lines = [f".\\\" Made from keyview/prsr.h by docs/generate.", f".Dd {DATE}", f".Dt {operation.name.upper()} 3", ".Os",
             ".Sh NAME", f".Nm {operation.name}", f".Nd {operation.sentence[0].lower()}{operation.sentence[1:].split(':')[0]}",
             ".Sh SYNOPSIS", ".In keyview/prsr.h", ".Ft int32_t", f".Fo {operation.name}"]
    lines += [f'.Fa "{one}"' for one in operation.parameters] + [".Fc", ".Pp", "Link with", ".Fl lkeyview12 ,",
              "and with", ".Fl lkeyview\\-host", "unless the program has a host of its own.", ".Sh DESCRIPTION"]
    for text in operation.text + operation.after:
        if not text.startswith("Locks and codes as for"):
            lines += linked(text, names)
    lines += [".Bl -tag -width " + max(operation.names(), key=len)]
    for name, text in arguments(header, operation):
        lines += [f".It Fa {name}", *linked(text, names)]
    lines += [".El", ".Ss Ownership", *linked(ownership(header, operation), names)]
    lines += [".Ss Locks"]
    for text in locks(header, operation):
        lines += linked(text, names)
    for block in definitions(header, operation):
        lines += [*([".Ss Definitions"] if ".Ss Definitions" not in lines else []), *literal(block)]
    lines += [".Sh RETURN VALUES", *tagged(codes(header, operation), names), ".Pp", *prose(header.rules["failures"]),
              ".Sh EXAMPLES", *literal(example(header, operation)), ".Sh SEE ALSO"]
    related = [one.name for one in header.operations.values() if one.group == operation.group and one is not operation]
    lines += [f".Xr {name} 3 ," for name in sorted(related)] + [".Xr keyview 7 ,", ".Xr keyview-locks 7"]
    return "\n".join(lines) + "\n"


def pages(header_file):
    header = Header(Path(header_file).read_text())
    return {f"man/man3/{name}.3": page(header, operation) for name, operation in header.operations.items()}
