"""The commands that README and the other documents show, run as they stand: each must print what stands below it."""

import os
import subprocess

import pytest

from documents import SOURCES, documents, transcripts

DOCUMENTS = documents()

# What this does is in the test's own hands.
RUN = "scripts/run"


@pytest.fixture
def type_in(machine, build, tmp_path):
    """Runs a command in the world of the daemon; returns what the terminal shows. A failure would show too."""
    path = f"{machine.binary.parent}:{build.ledgerctl.parent}:{os.environ['PATH']}"
    output = tmp_path / "output"
    (tmp_path / "examples").symlink_to(SOURCES / "examples")

    def run(command):
        with open(output, "wb") as terminal:
            # Entering the world changes to the root directory.
            program = machine.spawn("env", f"--chdir={tmp_path}", "bash", "-c", command, stdout=terminal,
                                    stderr=subprocess.STDOUT, environment={"PATH": path, "TERM": "dumb"})
        program.wait()
        printed = output.read_text()
        # A document has the next prompt on a line of its own.
        return printed if printed.endswith("\n") or not printed else printed + "\n"
    return run


@pytest.mark.parametrize("name", DOCUMENTS)
def test_commands_print_what_the_document_says(machine, type_in, name):
    started = False
    for transcript in transcripts(DOCUMENTS[name]):
        for step in transcript:
            if not started and step.command != "ledgerd":
                machine.start()
            started = True
            if step.command.split()[0] == RUN:
                assert (SOURCES / RUN).exists()
                continue
            where = f"{name}:{step.line}"
            assert (where, type_in(step.command)) == (where, step.output)


def test_main_documents_show_commands():
    assert {"README.md", "docs/man/com.tavimesh.Registry.5.scd", "docs/man/ledgerd.8.scd"} <= set(DOCUMENTS)
