"""Runs the commands of README and the other documents unchanged. Each must print the lines that follow it there."""

import os
import subprocess

import pytest

from documents import SOURCES, documents, transcripts

DOCUMENTS = documents()

# The test starts the daemon instead of this script.
RUN = "scripts/run"


@pytest.fixture
def type_in(machine, build, tmp_path):
    """Runs a command in the world of the daemon. Returns what it prints on the terminal, errors too."""
    path = f"{machine.binary.parent}:{build.ledgerctl.parent}:{os.environ['PATH']}"
    output = tmp_path / "output"
    (tmp_path / "examples").symlink_to(SOURCES / "examples")

    def run(command):
        with open(output, "wb") as terminal:
            # The current directory of the world is the root directory.
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
            else:
                assert type_in(step.command) == step.output, f"{name}:{step.line}"


def test_main_documents_show_commands():
    assert {"README.md", "docs/man/com.tavimesh.Registry.5.scd", "docs/man/ledgerd.8.scd"} <= set(DOCUMENTS)
