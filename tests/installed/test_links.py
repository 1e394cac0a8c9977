"""The documents agree: links lead to headings that exist, and all name the same version."""

import re

import pytest

from manual import SOURCES

DOCUMENTS = [*sorted(SOURCES.glob("*.md")), *sorted(SOURCES.glob("docs/**/*.md")), SOURCES / "tests/README.md"]


def anchor(heading):
    """The name that the usual renderers give a heading."""
    return re.sub(r"[^\w -]", "", heading.strip().lower()).replace(" ", "-")


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: str(path.relative_to(SOURCES)))
def test_links_lead_to_existing_files_and_headings(document):
    for target in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
        path, _, fragment = target.partition("#")
        destination = document.parent / path if path else document
        assert destination.exists(), target
        if fragment:
            headings = re.findall(r"(?m)^#+ (.*)$", destination.read_text())
            assert fragment in map(anchor, headings), target


def test_version_is_the_same_in_the_build_the_news_and_the_packages():
    def first(pattern, path):
        return re.search(pattern, (SOURCES / path).read_text(), re.M)[1]

    version = first(r"^project\(ledgerd VERSION (\S+)", "CMakeLists.txt")
    assert first(r"^## (?:Since )?(\S+)$", "NEWS.md") == version
    assert first(r"^ledgerd \((.*)\)", "debian/changelog") == version
