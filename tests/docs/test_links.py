"""The documents lead to one another."""

import re

import pytest

from manual import SOURCES

DOCUMENTS = [*sorted(SOURCES.glob("*.md")), *sorted(SOURCES.glob("docs/**/*.md"))]


def anchor(heading):
    """As the usual renderers name a heading."""
    return re.sub(r"[^\w -]", "", heading.strip().lower()).replace(" ", "-")


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: str(path.relative_to(SOURCES)))
def test_links_lead_somewhere(document):
    for target in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
        path, _, fragment = target.partition("#")
        destination = document.parent / path if path else document
        assert destination.exists(), target
        if fragment:
            headings = re.findall(r"(?m)^#+ (.*)$", destination.read_text())
            assert fragment in map(anchor, headings), target
