"""The manual pages are readable on a terminal, and quote what the programs print."""

import errno
import os
import re
import subprocess

import pytest

from manual import ENDLESS, SOURCES, TERMINAL, render, sections, terms

PAGES = ["ledgerctl.1", "ledgerd.8", "ledgerd-registry.5", "com.tavimesh.Registry.5"]

# The sources that print the daemon's diagnostics, and their calls. Most texts of exceptions are only a part of a line,
# and are left out.
PRINTING_SOURCES = ["daemon/*.cpp", "lib/hardware/*.cpp", "lib/platform/*.cpp", "lib/platform/safe_print.h",
                    "registry/*.cpp"]
LITERAL = r'"((?:[^"\\]|\\.)*)"'
PRINTING_CALL = (r'(?:SafePrint\(stderr, "%s", __extension__ strprintf\(|SafePrint\(stderr, |fprintf\(\w+, |'
                 r'std::printf\(|puts\(|runtime_error\(__extension__ strprintf\(|runtime_error\(strprintf\()') + LITERAL


@pytest.fixture(params=PAGES)
def page(request, build):
    return build.pages / request.param


@pytest.fixture
def manual(build):
    """Returns a section of a page, one line for each paragraph."""
    def section(name, heading):
        return sections(render(build.pages / name, ENDLESS))[heading]
    return section


def source(path):
    return (SOURCES / path).read_text()


def test_every_source_has_a_page():
    assert sorted(path.stem for path in SOURCES.glob("docs/man/*.scd")) == sorted(PAGES)


@pytest.mark.parametrize("encoding, device", [("UTF-8", "utf8"), ("ascii", "ascii")])
def test_groff_reports_nothing(page, encoding, device):
    # Only these options print groff's own warnings and start no pager.
    verdict = subprocess.run(["man", "--warnings", "-E", encoding, "-l", "-Z", f"-T{device}", str(page)], check=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    assert verdict.stderr == ""


def test_mandoc_finds_no_error(page):
    verdict = subprocess.run(["mandoc", "-T", "lint", "-W", "error", str(page)], check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert (verdict.returncode, verdict.stdout) == (0, "")


def test_page_fits_on_a_terminal_and_refers_to_existing_pages(page):
    lines = render(page, TERMINAL).splitlines()
    assert [line for line in lines if len(line) > TERMINAL] == []
    name, _, section = page.name.rpartition(".")
    assert re.fullmatch(rf"{re.escape(name)}\({section}\) .* {re.escape(name)}\({section}\)", lines[0])
    references = re.findall(r"\b((?:ledger|com\.tavimesh)[\w.-]*)\((\d)\)", render(page, ENDLESS))
    assert references and {f"{name}.{section}" for name, section in references} <= set(PAGES)


def found_in_daemon_sources(pattern):
    # The daemon does not use hex_text.
    return [match for glob in PRINTING_SOURCES for path in sorted(SOURCES.glob(glob)) if path.stem != "hex_text"
            for match in re.findall(pattern, path.read_text())]


def fixed_parts(pattern):
    """The pieces of text that a format always prints."""
    text = re.sub(r"\\[nr]|<2>", "", pattern)
    return [part.strip() for part in re.split("%[a-z]+", text) if re.search(r"\w{2}", part)]


def test_every_line_that_the_daemon_prints_is_explained(manual):
    explained = manual("ledgerd.8", "DIAGNOSTICS")
    patterns = list(filter(fixed_parts, found_in_daemon_sources(PRINTING_CALL)))
    assert len(patterns) > 25, "the printing calls have another form now"
    assert [pattern for pattern in patterns
            if not re.search(".*".join(map(re.escape, fixed_parts(pattern))), explained)] == []


def test_every_line_that_is_explained_is_printed():
    """In the page's source, the bold part of a term is always printed."""
    diagnostics = re.search(r"(?ms)^# DIAGNOSTICS\n(.*?)^# ", source("docs/man/ledgerd.8.scd"))[1]
    terms = re.findall(r"(?m)^(\*.*)\n\t", diagnostics)
    assert len(terms) > 20
    printed = "\n".join([*found_in_daemon_sources(LITERAL),
                         *(f"{os.strerror(number)} ({number})" for number in (errno.ENOENT, errno.ESRCH))])
    bold = [text for term in terms for text in re.findall(r"\*([^*]+)\*", term)]
    pieces = [piece.strip() for text in bold for piece in re.split(r"ledgd|: |[:',*]", text)]
    assert [piece for piece in pieces if piece not in printed] == []


def test_methods_have_the_arguments_of_the_introspection(manual):
    description = source("dbus/registry_introspection.cpp")
    arguments = {}
    for name, rows in re.findall(r"const Argument k(\w+)\[\] = \{(.*?)\};", description, re.DOTALL):
        arguments[name] = re.findall(r'\{"(\w+)", "([^"]+)", (\w+)\}', rows)
    expected = []
    for method, table in re.findall(r'\{"(\w+)", k(\w+)\}', description):
        inputs = ", ".join(f"{kind} {name}" for name, kind, direction in arguments[table] if direction == "kIn")
        output = "".join(f" → {kind} {name}" for name, kind, direction in arguments[table] if direction == "kOut")
        expected.append(f"{method}({inputs}){output}")
    assert len(expected) == 12
    assert [line for line in terms(manual("com.tavimesh.Registry.5", "METHODS"), indent=7) if "(" in line] == expected


def test_every_error_is_explained_with_its_message(manual):
    explained = manual("com.tavimesh.Registry.5", "ERRORS")
    text = source("dbus/registry_errors.cpp")
    names = dict(re.findall(r'RegistryError::(k\w+)\[\] = "([^"]+)"', text))
    cases = re.findall(r'RegistryError\(RegistryError::(k\w+), (?:"([^"]+)"|e\.what\(\))\)', text)
    assert (len(names), len(cases)) == (4, 5)
    for constant, message in cases:
        text_in_page = f' ("{message}")' if message else ""
        assert f"       {names[constant]}{text_in_page}\n" in explained


def test_texts_of_the_general_error_are_those_of_the_sources(manual):
    explained = manual("com.tavimesh.Registry.5", "ERRORS")
    sources = {"dbus/bus_text.cpp": ["D-Bus cannot carry the ", "is not UTF-8", "holds a NUL byte",
                                     "makes the reply too long"],
               "registry/json_parser.cpp": ["parse error - unexpected "],
               "registry/json_printer.cpp": ["No JSON: "]}
    for path, texts in sources.items():
        for text in texts:
            assert text in source(path) and text in explained


@pytest.mark.parametrize("path", ["examples/hostname.cpp", "examples/hostname.py"])
def test_code_is_that_of_the_examples(path):
    """The line breaks may differ."""
    page = source("docs/man/com.tavimesh.Registry.5.scd")
    code = re.search(rf"_{path}_[^`]*```\n(.*?)```", page, re.DOTALL)[1]
    assert " ".join(code.split()) in " ".join(source(path).split())


@pytest.mark.parametrize("page, path, pattern, shown", [
    ("ledgerd.8", "lib/hardware/hardware_config.cpp", r'kRegistryPath\[\] = "(.*)"', "{}"),
    ("ledgerd.8", "lib/platform/daemonise.h", r'"(/var/run/)"', "{}ledgd.pid"),
    ("ledgerd.8", "daemon/main.cpp", r'kInitialProcessName\[\] = "(.*)"', '"{}"'),
    ("ledgerd.8", "daemon/main.cpp", r'kDaemonName\[\] = "(.*)"', '"{}"'),
    ("ledgerd.8", "daemon/main.cpp", r"kStartTimeout\((\d+)\)", "after {} seconds"),
    ("ledgerd.8", "daemon/main.cpp", r"kStopTimeout\((\d+)\)", "waits up to {} seconds"),
    ("ledgerd.8", "daemon/main.cpp", r"kRegistryMode = (\d+)", "mode {}"),
    ("ledgerd-registry.5", "registry/registry.h", r"kRegistryCapacity = (\d+)", "{} bytes"),
    ("com.tavimesh.Registry.5", "registry/registry.h", r"kRegistryCapacity = (\d+)", "{} bytes"),
    ("com.tavimesh.Registry.5", "daemon/main.cpp", r'kBusName\[\] = "(.*)"', "bus name   {}"),
    ("com.tavimesh.Registry.5", "dbus/registry_server.cpp", r'kObjectPath\[\] = "(.*)"', "object     {}"),
    ("com.tavimesh.Registry.5", "lib/platform/string_operations.h", r"kLongestFormattedString = (\d+)", "{} bytes"),
])
def test_page_shows_the_constant_of_the_source(build, page, path, pattern, shown):
    values = re.findall(pattern, source(path))
    assert values
    text = render(build.pages / page, ENDLESS)
    for value in values:
        assert shown.format(value) in text


@pytest.fixture
def client_page(build):
    return sections(render(build.pages / "ledgerctl.1", ENDLESS))


@pytest.fixture
def help_of(build):
    """Returns the client's help for a verb, or the overview."""
    return lambda *verb: subprocess.check_output([build.ledgerctl, "help", *verb], text=True, stdin=subprocess.DEVNULL)


def client_terms(text):
    """The terms of a section of the client's page. Its sentences end with one full stop."""
    return [line for line in terms(text, indent=7) if line.endswith("...") or not line.endswith(".")]


def options(text):
    return set(re.findall(r"(?<![\w-])(--?[a-z0][a-z-]*)", text))


def test_verbs_their_arguments_and_their_options_are_those_of_the_help(client_page, help_of):
    # Only the lines of verbs begin with two spaces.
    verbs = re.findall(r"(?m)^  (\w+)", help_of().split("\n\n")[2])
    assert {"get", "load", "help"} <= set(verbs)
    synopses = [help_of(verb).splitlines()[0].removeprefix("ledgerctl ") for verb in verbs]
    assert client_terms(client_page["VERBS"]) == [synopsis.lower() for synopsis in synopses]
    general = options(client_page["OPTIONS"])
    paragraphs = re.split(r"(?m)^ {7}(?=\S)", client_page["VERBS"])[1:]
    documented = {paragraph.split()[0]: options(paragraph) - general for paragraph in paragraphs}
    assert documented == {verb: options(help_of(verb)) - general for verb in verbs}


def test_options_statuses_and_time_limit_are_those_of_the_help(client_page, help_of):
    text, statuses = help_of().split("\nExit status:\n", 1)
    listed = re.findall(r"(?m)^  (-[^\s,]+(?:, -\S+)?)", text.split("\nOptions", 1)[1].split("\n\n")[0])
    assert [re.sub(" [a-z]+$", "", term) for term in client_terms(client_page["OPTIONS"])] == listed
    assert client_terms(client_page["EXIT STATUS"]) == re.findall(r"(?m)^ *(\d+)  ", statuses)
    seconds = re.search(r"instead of (\d+)", text)[1]
    assert f"{seconds} by default" in client_page["OPTIONS"]


def test_quoted_failure_is_what_the_client_prints(client_page):
    quoted = re.findall('(?m)^ *"(.+)"$', client_page["EXIT STATUS"])
    # The source has an expression where the text has a number.
    printed = re.sub(r'" \+ [^"]+ \+ "', "16383", source("client/failure.cpp"))
    assert quoted and all(text in printed for text in quoted)
