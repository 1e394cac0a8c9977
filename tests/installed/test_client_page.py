"""The client's page against the client's own help."""

import re
import subprocess

import pytest

from manual import ENDLESS, SOURCES, render, sections, terms


@pytest.fixture
def page(build):
    return sections(render(build.pages / "ledgerctl.1", ENDLESS))


@pytest.fixture
def ledgerctl(build):
    """Returns what the client prints."""
    def run(*arguments):
        return subprocess.run([build.ledgerctl, *arguments], check=True, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout
    return run


def verbs(overview):
    """The verbs of the overview. Only their lines begin with two spaces."""
    listed = overview.split("\n\n")[2]
    return re.findall(r"(?m)^  (\w+)", listed)


def terms_of(text):
    """The terms of the page. Its sentences end with one full stop."""
    return [line for line in terms(text, indent=7) if line.endswith("...") or not line.endswith(".")]


def test_verbs_and_their_arguments_are_those_of_the_help(page, ledgerctl):
    own = verbs(ledgerctl("help"))
    assert {"get", "load", "help"} <= set(own)
    synopses = [ledgerctl("help", verb).splitlines()[0].removeprefix("ledgerctl ") for verb in own]
    assert terms_of(page["VERBS"]) == [synopsis.lower() for synopsis in synopses]


def test_options_of_a_verb_are_those_of_its_help(page, ledgerctl):
    everywhere = options(page["OPTIONS"])
    paragraphs = re.split(r"(?m)^ {7}(?=\S)", page["VERBS"])[1:]
    documented = {paragraph.split()[0]: options(paragraph) - everywhere for paragraph in paragraphs}
    assert documented == {verb: options(ledgerctl("help", verb)) - everywhere for verb in verbs(ledgerctl("help"))}


def options(text):
    return set(re.findall(r"(?<![\w-])(--?[a-z0][a-z-]*)", text))


def test_options_are_those_of_the_help(page, ledgerctl):
    listed = ledgerctl("help").split("\nOptions", 1)[1].split("\n\n")[0]
    own = re.findall(r"(?m)^  (-[^\s,]+(?:, -\S+)?)", listed)
    assert [re.sub(" [a-z]+$", "", term) for term in terms_of(page["OPTIONS"])] == own


def test_exit_statuses_are_those_of_the_help(page, ledgerctl):
    listed = ledgerctl("help").split("\nExit status:\n", 1)[1]
    assert terms_of(page["EXIT STATUS"]) == re.findall(r"(?m)^ *(\d+)  ", listed)


def test_time_limit_is_that_of_the_help(page, ledgerctl):
    seconds = re.search(r"instead of (\d+)", ledgerctl("help"))[1]
    assert f"{seconds} by default" in page["OPTIONS"]


def test_quoted_failure_is_what_the_client_prints(page):
    quoted = re.findall('(?m)^ *"(.+)"$', page["EXIT STATUS"])
    # The source has an expression where the text has a number.
    source = re.sub(r'" \+ [^"]+ \+ "', "16383", (SOURCES / "client/failure.cpp").read_text())
    assert quoted and all(text in source for text in quoted)
