"""Documents and edited texts that the client refuses: its status and its text on standard error, and nothing changed."""

import os

import pytest

from world.ledgerctl import FULL, FULL_TEXT, INVALID_NAME, LOCAL, NO_DOCUMENT, failure

SOURCE = b"standard input: "
LOST = (b"lost at a restart: key '[k' in section 's' (begins with \"[\")\n"
        b"Nothing changed. Use --force to accept the loss.")
KEPT = b"\nYour text is kept in "


@pytest.mark.parametrize("document, status, text", [
    (b"[]", NO_DOCUMENT, SOURCE + b"not a registry document: no JSON object of objects"),
    (b'{"s":1}', NO_DOCUMENT, SOURCE + b"not a registry document: section 's' is neither an object nor null"),
    (b'{"s":{"k":"new"},"t":{"k":1}}', NO_DOCUMENT,
     SOURCE + b"not a registry document: the value of key 'k' in section 't' is neither a string nor null"),
    (b'{"s":{"k":"new"},\n}', NO_DOCUMENT,
     SOURCE + b"line 2, column 1: parse error - unexpected '}'; expected string literal"),
    (b'{"s":{"k":"new"},"caf\xc3\xa9":{}}', INVALID_NAME, b"invalid name 'caf\xc3\xa9': only ASCII is allowed"),
    (b'{"s":{"k":"new","[k":""}}', NO_DOCUMENT, LOST),
    (b'{"s":{"k":"%s"}}' % (b"x" * 16384), FULL, FULL_TEXT),
], ids=["array", "section", "value", "syntax", "name", "lost", "full"])
@pytest.mark.parametrize("mode", [(), ("--replace",), ("--missing-only",)], ids=str)
def test_refused_document(ledgerctl, client, document, status, text, mode):
    client.write("other", "k", "v")
    assert ledgerctl.run("load", *mode, input=document) == failure(status, text)
    assert client.read_all_json() == '{"other":{"k":"v"}}'


@pytest.mark.parametrize("document, status, text", [
    (b"k=v\n", NO_DOCUMENT, SOURCE + b"line 1: this key is before the first [section]"),
    (b"\n", NO_DOCUMENT, SOURCE + b"the text has no [section]"),
    (b"[caf\xc3\xa9]", INVALID_NAME, SOURCE + b"line 1: invalid name 'caf\xc3\xa9': only ASCII is allowed"),
    (b"[s]\nk=new\n'[k'\n", NO_DOCUMENT, LOST),
], ids=["key", "empty", "name", "lost"])
def test_refused_text(ledgerctl, client, document, status, text):
    client.write("other", "k", "v")
    assert ledgerctl.run("load", "--text", "--replace", input=document) == failure(status, text)
    assert client.read_all_json() == '{"other":{"k":"v"}}'


@pytest.mark.parametrize("section, editor, text", [
    ((), "truncate -s 0", b"the text is empty; nothing changed\nTo delete everything: ledgerctl clear --yes"),
    (("s",), "truncate -s 0", b"the text is empty; nothing changed\nTo delete the section: ledgerctl unset -r s"),
    (("s",), "sed -i s/^.s/[t/", b"line 6: this is section 't', but only section 's' can be changed" + KEPT),
    ((), "sed -i s/=v/=$/", b"line 7: the quote is not closed" + KEPT),
    ((), "sed -i s/^k/$[k$/", LOST + KEPT),
], ids=["empty", "empty section", "other section", "mistake", "lost"])
def test_refused_edit(ledgerctl, client, section, editor, text):
    client.write("s", "k", "v")
    status, output, error = ledgerctl.run("edit", *section, environment={"EDITOR": editor.replace("$", "\\'")})
    kept = b"".join(os.fsencode(ledgerctl.folder / name) for name in ledgerctl.left_files())
    assert (status, output, error) == failure(LOCAL, text + kept)
    assert client.read_all_json() == '{"s":{"k":"v"}}'
