"""The manual pages: that they can be read on a terminal, and that what they quote is what the programs say."""

import errno
import os
import re
import subprocess

import pytest

from manual import ENDLESS, SOURCES, TERMINAL, render, sections, terms

PAGES = ["ledgerctl.1", "ledgerd.8", "ledgerd-registry.5", "com.tavimesh.Registry.5"]

# Where the daemon's diagnostics are printed, and how. Formats of exceptions are not among them unless they are printed
# alone: they stand for the reason in a line that is.
PRINTING_SOURCES = ["daemon/*.cpp", "lib/hardware/*.cpp", "lib/platform/*.cpp", "lib/platform/safe_print.h",
                    "registry/*.cpp"]
LITERAL = r'"((?:[^"\\]|\\.)*)"'
PRINTING_CALL = (r'(?:SafePrint\(stderr, "%s", __extension__ strprintf\(|SafePrint\(stderr, |fprintf\(\w+, |std::printf\(|'
                 r'puts\(|runtime_error\(__extension__ strprintf\(|runtime_error\(strprintf\()') + LITERAL


@pytest.fixture(params=PAGES)
def page(request):
    return request.config.getoption("--pages") / request.param


@pytest.fixture
def manual(request):
    """The section of a page, in lines without end."""
    def section(name, heading):
        return sections(render(request.config.getoption("--pages") / name, ENDLESS))[heading]
    return section


def source(path):
    return (SOURCES / path).read_text()


def test_every_source_has_a_page(request):
    assert sorted(path.stem for path in SOURCES.glob("docs/man/*.scd")) == sorted(PAGES)


@pytest.mark.parametrize("encoding, device", [("UTF-8", "utf8"), ("ascii", "ascii")])
def test_formatter_has_nothing_to_say(page, encoding, device):
    # The only way to have groff's own warnings, and no pager.
    verdict = subprocess.run(["man", "--warnings", "-E", encoding, "-l", "-Z", f"-T{device}", str(page)], check=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    assert verdict.stderr == ""


def test_other_formatter_finds_no_error(page):
    verdict = subprocess.run(["mandoc", "-T", "lint", "-W", "error", str(page)], check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert (verdict.returncode, verdict.stdout) == (0, "")


def test_page_fits_on_a_terminal(page):
    assert [line for line in render(page, TERMINAL).splitlines() if len(line) > TERMINAL] == []


def test_page_is_called_what_its_heading_says(page):
    name, _, section = page.name.rpartition(".")
    assert re.fullmatch(rf"{re.escape(name)}\({section}\) .* {re.escape(name)}\({section}\)",
                        render(page, TERMINAL).splitlines()[0])


def test_pages_of_ours_that_are_referred_to_exist(page):
    ours = re.findall(r"\b((?:ledger|com\.tavimesh)[\w.-]*)\((\d)\)", render(page, ENDLESS))
    assert ours and {f"{name}.{section}" for name, section in ours} <= set(PAGES)


def daemon_sources():
    paths = [path for glob in PRINTING_SOURCES for path in sorted(SOURCES.glob(glob))]
    # The daemon uses nothing of it.
    return [path.read_text() for path in paths if path.stem != "hex_text"]


def fixed_parts(pattern):
    """What a format always prints, in pieces."""
    text = re.sub(r"\\[nr]|<2>", "", pattern)
    return [part.strip() for part in re.split("%[a-z]+", text) if re.search(r"\w{2}", part)]


def test_every_line_that_the_daemon_prints_is_explained(manual):
    explained = manual("ledgerd.8", "DIAGNOSTICS")
    patterns = [pattern for text in daemon_sources() for pattern in re.findall(PRINTING_CALL, text)]
    patterns = list(filter(fixed_parts, patterns))
    assert len(patterns) > 25, "the printing calls are written in another way now"
    assert [pattern for pattern in patterns
            if not re.search(".*".join(map(re.escape, fixed_parts(pattern))), explained)] == []


def test_every_line_that_is_explained_is_printed():
    """In the page's source, what is bold in a term is what is always printed."""
    diagnostics = re.split("(?m)^# ", source("docs/man/ledgerd.8.scd"))
    diagnostics = next(text for text in diagnostics if text.startswith("DIAGNOSTICS"))
    terms = re.findall(r"(?m)^(\*.*)\n\t", diagnostics)
    assert len(terms) > 20
    printed = "\n".join(literal for text in daemon_sources() for literal in re.findall(LITERAL, text))
    printed += "\n".join(f"{os.strerror(number)} ({number})" for number in (errno.ENOENT, errno.ESRCH))
    for term in terms:
        for bold in re.findall(r"\*([^*]+)\*", term):
            for piece in re.split(r"ledgd|: |[:',*]", bold):
                assert piece.strip() in printed, (term, piece)


def test_every_method_has_its_arguments_as_introspection_tells_them(manual):
    description = source("dbus/registry_introspection.cpp")
    arguments = {}
    for name, rows in re.findall(r"const Argument k(\w+)\[\] = \{(.*?)\};", description, re.DOTALL):
        arguments[name] = re.findall(r'\{"(\w+)", "([^"]+)", (\w+)\}', rows)
    expected = []
    for method, table in re.findall(r'\{"(\w+)", k(\w+)\}', description):
        takes = ", ".join(f"{kind} {name}" for name, kind, direction in arguments[table] if direction == "kIn")
        gives = "".join(f" → {kind} {name}" for name, kind, direction in arguments[table] if direction == "kOut")
        expected.append(f"{method}({takes}){gives}")
    assert len(expected) == 12
    assert [line for line in terms(manual("com.tavimesh.Registry.5", "METHODS"), indent=7) if "(" in line] == expected


def test_every_error_is_explained_with_its_message(manual):
    explained = manual("com.tavimesh.Registry.5", "ERRORS")
    text = source("dbus/registry_errors.cpp")
    names = dict(re.findall(r'RegistryError::(k\w+)\[\] = "([^"]+)"', text))
    cases = re.findall(r'RegistryError\(RegistryError::(k\w+), (?:"([^"]+)"|e\.what\(\))\)', text)
    assert (len(names), len(cases)) == (4, 5)
    for constant, message in cases:
        told = f' ("{message}")' if message else ""
        assert f"       {names[constant]}{told}\n" in explained


def test_texts_of_the_error_for_everything_else_are_those_of_the_sources(manual):
    explained = manual("com.tavimesh.Registry.5", "ERRORS")
    sources = {"dbus/bus_text.cpp": ["D-Bus cannot carry the ", "is not UTF-8", "holds a NUL byte",
                                     "makes the reply too long"],
               "registry/json_parser.cpp": ["parse error - unexpected "],
               "registry/json_printer.cpp": ["No JSON: "]}
    for path, texts in sources.items():
        for text in texts:
            assert text in source(path) and text in explained


@pytest.mark.parametrize("path", ["examples/hostname.cpp", "examples/hostname.py"])
def test_code_is_from_the_examples(path):
    """But for its line breaks."""
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
def test_what_is_built_in_is_told_as_it_is(request, page, path, pattern, shown):
    values = re.findall(pattern, source(path))
    assert values
    text = render(request.config.getoption("--pages") / page, ENDLESS)
    for value in values:
        assert shown.format(value) in text
