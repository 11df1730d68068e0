"""What Python's email package reads in mail files, as the expectations of the corpus test.

Prints, for each file named on the command line, one line per fact, fields separated by tabs,
with backslash, tab, CR and LF inside a field written as \\, \t, \r and \n:
  FILE <path>              starts the facts of one file
  SUBJECT <text>           the decoded Subject, when the message has one
  FROM <name> <address>    the first From mailbox (either may be empty)
  ATTACHMENT <type> <name> a part the reader gets as an attachment, in MIME order; the name is
                           empty when the part carries no file name
  PICTURE <content id>     a part the HTML body shows through a cid: link
  DAMAGED                  Python found the structure damaged, so another parser may cut the
                           parts differently
"""

import email
import email.header
import email.policy
import email.utils
import re
import sys


def decoded(value):
    """A header value as a person reads it, the way the corpus test expects it."""
    return str(email.header.make_header(email.header.decode_header(value)))


def file_name(part):
    name = part.get_filename()
    if name is None:
        return None
    if "=?" in name:
        name = decoded(name)
    # Only the last path component is a name; control characters and separators go.
    name = re.split(r"[/\\]", name)[-1]
    name = "".join(c for c in name if ord(c) >= 0x20 and ord(c) != 0x7F)
    return name if name not in ("", ".", "..") else None


def leaves(part):
    """The parts without sub-parts, an attached message counting as one, in MIME order."""
    if part.get_content_maintype() == "multipart" and isinstance(part.get_payload(), list):
        for sub in part.get_payload():
            yield from leaves(sub)
    else:
        yield part


def is_attachment(part):
    """A part with a file name is listed as an attachment even when it is marked inline, as mail
    clients of the Outlook kind list it; Python's is_attachment() looks at the disposition only."""
    return part.is_attachment() or part.get_filename() is not None


def find_body(part, found):
    """Python's get_body(("html", "plain")) search, with is_attachment() as above: the first
    text/html candidate, else the first text/plain one; a multipart/related stands for its root."""
    if is_attachment(part):
        return
    maintype, subtype = part.get_content_type().split("/")
    if maintype == "text":
        if subtype in ("html", "plain") and subtype not in found:
            found[subtype] = part
        return
    if maintype != "multipart" or not isinstance(part.get_payload(), list):
        return
    subparts = part.get_payload()
    if subtype == "related" and subparts:
        start = part.get_param("start")
        root = next((p for p in subparts if start and p.get("Content-ID") == start), subparts[0])
        find_body(root, found)
        return
    for sub in subparts:
        find_body(sub, found)


def alternatives_of(root, body):
    """The parts standing for the same text as `body`: the other branches of every
    multipart/alternative above it."""
    siblings = []

    def walk(part, chain):
        if part is body:
            for ancestor, branch in chain:
                if ancestor.get_content_subtype() == "alternative":
                    for other in ancestor.get_payload():
                        if other is not branch:
                            siblings.extend(leaves(other))
            return True
        if part.get_content_maintype() == "multipart" and isinstance(part.get_payload(), list):
            return any(walk(sub, chain + [(part, sub)]) for sub in part.get_payload())
        return False

    walk(root, [])
    return siblings


def describe(path):
    with open(path, "rb") as f:
        raw = f.read()
    plain = email.message_from_bytes(raw, policy=email.policy.compat32)
    rich = email.message_from_bytes(raw, policy=email.policy.default)

    subject = plain.get("Subject")
    senders = email.utils.getaddresses(plain.get_all("From", []))
    name, address = senders[0] if senders else ("", "")

    found = {}
    find_body(rich, found)
    body = found.get("html", found.get("plain"))
    skipped = [body] + alternatives_of(rich, body) if body is not None else []
    pictures = []
    if body is not None and body.get_content_subtype() == "html":
        html = body.get_content()
        pictures = re.findall(r"""cid:([^"'\s>)]+)""", html, flags=re.IGNORECASE)

    attachments = []
    for part in leaves(rich):
        if any(part is s for s in skipped):
            continue
        cid = (part.get("Content-ID") or "").strip().strip("<>")
        if cid and cid in pictures:
            continue
        attachments.append({"name": file_name(part), "type": part.get_content_type()})

    damaged = any(
        p.defects for p in plain.walk() if p.get_content_maintype() == "multipart"
    ) or bool(plain.defects)
    return {
        "subject": decoded(subject) if subject is not None else None,
        "fromName": decoded(name) if name else "",
        "fromAddress": address,
        "attachments": attachments,
        "pictures": pictures,
        "exact": not damaged,
    }


def escape(text):
    return (text.replace("\\", "\\\\").replace("\t", "\\t").replace("\r", "\\r")
            .replace("\n", "\\n"))


def main():
    out = sys.stdout
    out.reconfigure(encoding="utf-8", errors="replace", newline="\n")
    for path in sys.argv[1:]:
        facts = describe(path)
        lines = [["FILE", path]]
        if facts["subject"] is not None:
            lines.append(["SUBJECT", facts["subject"]])
        lines.append(["FROM", facts["fromName"], facts["fromAddress"]])
        lines += [["ATTACHMENT", a["type"], a["name"] or ""] for a in facts["attachments"]]
        lines += [["PICTURE", cid] for cid in facts["pictures"]]
        if not facts["exact"]:
            lines.append(["DAMAGED"])
        for fields in lines:
            out.write("\t".join(escape(f) for f in fields) + "\n")


if __name__ == "__main__":
    main()
