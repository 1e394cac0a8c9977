"""The client and other processes: the user's editor, signals at any moment, and the files that the client leaves."""

import os
import pty
import re
import select
import signal

import pytest

from world import observe
from world.harness import PATIENCE, wait_for
from world.ledgerctl import LOCAL, NO_ANSWER, failure, traced
from world.namespace_world import NOBODY, as_user, needs_root
from world.observe import needs_strace
from world.stalled_bus import StalledBus

CHANGES = b"- [s] k=v\n+ [s] k=w\n"


def signals(*numbers):
    return pytest.mark.parametrize("number", numbers, ids=lambda number: number.name)


class Editor:
    """An editor that waits for `go_on`, then changes the value "v" to "w"."""

    def __init__(self, ledgerctl, world):
        self.ledgerctl = ledgerctl
        self.started = world.path / "editor.pid"
        self.gate = world.path / "gate"
        os.mkfifo(self.gate)
        self.command = f"f() {{ echo $$ > '{self.started}'; read line < '{self.gate}'; sed -i s/=v/=w/ \"$1\"; }}; f"

    def start(self, **options):
        """Starts an edit and waits until the editor runs."""
        process = self.start_edit(**options)
        self.wait_started()
        return process

    def start_edit(self, *arguments, environment=(), **options):
        return self.ledgerctl.start(*arguments, "edit", environment={"EDITOR": self.command, **dict(environment)},
                                    **options)

    def wait_started(self):
        wait_for(lambda: self.started.exists() and self.started.read_text().endswith("\n"), "the editor runs")
        return int(self.started.read_text())

    def go_on(self):
        self.gate.write_text("\n")


@pytest.fixture
def editor(ledgerctl, world, client):
    client.write("s", "k", "v")
    return Editor(ledgerctl, world)


@pytest.mark.parametrize("number", [None, signal.SIGINT, signal.SIGQUIT])
def test_edit_keeps_the_changes_of_others_and_leaves_ctrl_c_to_the_editor(ledgerctl, client, editor, number):
    process = editor.start()
    client.write("s", "other", "x")
    if number is not None:
        process.send_signal(number)
    editor.go_on()
    assert process.communicate(timeout=PATIENCE) == (CHANGES, b"")
    assert process.returncode == 0
    assert client.key_list("s") == {"k": "w", "other": "x"}
    assert ledgerctl.left_files() == []


def kept_text(ledgerctl):
    """The text that an edit has left, and the message about it."""
    (kept,) = ledgerctl.left_files()
    path = ledgerctl.directory / kept
    return path.read_text(), b"Your text is kept in %s\n" % os.fsencode(path)


@pytest.mark.parametrize("answer, status", [(b"q\n", LOCAL), (b"\x04", LOCAL), (b"\x03", -signal.SIGINT)],
                         ids=["quit", "end of input", "Ctrl-C"])
def test_edit_asks_on_a_terminal_after_a_mistake(ledgerctl, client, answer, status):
    client.write("s", "k", "v")
    terminal, end = pty.openpty()
    process = ledgerctl.start("edit", environment={"EDITOR": "sed -i s/=v/=\\'/"}, wrapper=("setsid", "--ctty"),
                              stdin=end, stderr=end)
    os.close(end)
    assert read_until(terminal, b"text: ") == (
        b"ledgerctl: line 7: the quote is not closed\r\nWhat now? (e)dit again, (q)uit and keep the text: ")
    os.write(terminal, answer)
    assert process.communicate(timeout=PATIENCE) == (b"", None)
    assert process.returncode == status
    text, note = kept_text(ledgerctl)
    assert text.endswith("[s]\nk='\n")
    read_until(terminal, note.replace(b"\n", b"\r\n"))
    os.close(terminal)


def read_until(terminal, last):
    text = b""
    while not text.endswith(last):
        assert select.select([terminal], [], [], PATIENCE)[0], text
        text += os.read(terminal, 4096)
    return text


@signals(signal.SIGTERM, signal.SIGINT)
def test_edit_that_is_ended_after_the_editor_keeps_the_text(ledgerctl, daemon, editor, number):
    process = editor.start()
    daemon.signal(signal.SIGSTOP)
    editor.go_on()
    assert process.stdout.readline() == b"- [s] k=v\n"
    process.send_signal(number)
    _, error = process.communicate(timeout=PATIENCE)
    daemon.signal(signal.SIGCONT)
    assert process.returncode == -number
    text, note = kept_text(ledgerctl)
    assert text.endswith("[s]\nk=w\n")
    assert error == note


def test_edit_that_the_bus_does_not_accept_keeps_the_text(ledgerctl, world, editor):
    """libdbus waits without a bound until such a call is sent."""
    editor.command = editor.command.replace("; }", "; head -c 8388608 /dev/zero | tr '\\0' y >> $1; }")
    with StalledBus(world) as bus:
        process = editor.start_edit("--timeout", "1", environment=bus.environment)
        bus.release()
        editor.wait_started()
        # The next read of the registry passes.
        bus.hold(most=1)
        editor.go_on()
        _, error = process.communicate(timeout=PATIENCE)
    assert process.returncode == NO_ANSWER
    text, note = kept_text(ledgerctl)
    assert text.endswith("y")
    assert error == b"ledgerctl: no answer in 1 s\n" + note


@signals(signal.SIGTERM, signal.SIGHUP)
def test_edit_that_is_ended_leaves_no_file(ledgerctl, client, editor, number):
    process = editor.start()
    assert len(ledgerctl.left_files()) == 1
    process.send_signal(number)
    assert process.wait(PATIENCE) == -number
    assert ledgerctl.left_files() == []
    # The editor lives on.
    os.kill(editor.wait_started(), signal.SIGKILL)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert client.read("s", "k") == "v"


@signals(signal.SIGINT, signal.SIGQUIT)
def test_edit_whose_editor_ends_by_ctrl_c_leaves_no_file(ledgerctl, client, editor, number):
    """The terminal sends its signal to both."""
    editor.command = f"f() {{ echo $$ > '{editor.started}'; exec cat '{editor.gate}'; }}; f"
    process = editor.start(start_new_session=True)
    wait_for(lambda: observe.status(editor.wait_started())["Name"] == "cat", "the editor waits")
    os.killpg(process.pid, number)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == -number
    assert ledgerctl.left_files() == []
    assert client.read("s", "k") == "v"


# EINVAL is the answer of file systems that have no directories to sync.
@needs_strace
@pytest.mark.parametrize("fault, status, message, left", [
    ("fsync:signal=SIGINT:when=1", -signal.SIGINT, None, "old"),
    ("fsync:signal=SIGTERM:when=1", -signal.SIGTERM, None, "old"),
    ("fsync:error=EIO:when=1", LOCAL, ".*: Input/output error", "old"),
    ("rename:error=EXDEV:when=1", LOCAL, ".*: Invalid cross-device link", "old"),
    ("fsync:error=EIO:when=2", LOCAL, ".*/tmp/: Input/output error", "{}\n"),
    ("fsync:error=EINVAL:when=2", 0, None, "{}\n"),
], ids=["SIGINT", "SIGTERM", "file not synced", "not renamed", "directory not synced", "directory cannot be synced"])
def test_dump_that_fails_or_is_ended_leaves_one_whole_file(ledgerctl, daemon, fault, status, message, left):
    file = ledgerctl.directory / "file"
    file.write_text("old")
    result = ledgerctl.run("dump", str(file), wrapper=traced("-e", f"inject={fault}"))
    assert result[:2] == (status, b"")
    if message:
        assert re.fullmatch(f"ledgerctl: {message}\n", result[2].decode()), result[2]
    elif status == 0:
        assert result[2] == b""
    assert (ledgerctl.left_files(), file.read_text()) == (["file"], left)


@needs_strace
def test_dumped_file_is_synced_before_it_is_renamed(ledgerctl, world, daemon):
    log = world.path / "calls"
    ledgerctl.output("dump", str(world.path / "file"), wrapper=traced("-e", "trace=fsync,rename", log=log))
    assert re.findall(r"^(fsync|rename)\(", log.read_text(), re.M) == ["fsync", "rename", "fsync"], log.read_text()


# The directory's mode; the old file's owner, group and mode; the group and the mode afterwards, or the error.
@needs_root
@pytest.mark.parametrize("caller, directory_mode, owner, group, mode, expected", [
    (0, 0o777, NOBODY, 54322, 0o640, (54322, 0o640)),
    (NOBODY, 0o777, NOBODY, NOBODY, 0o640, (NOBODY, 0o640)),
    (NOBODY, 0o777, NOBODY, 54322, 0o664, (NOBODY, 0o644)),
    (NOBODY, 0o777, NOBODY, 54322, 0o640, (NOBODY, 0o600)),
    (NOBODY, 0o777, NOBODY, 54322, 0o604, (NOBODY, 0o600)),
    (NOBODY, 0o777, 0, 0, 0o644, b"its owner cannot be kept: Operation not permitted"),
    (0, 0o1777, NOBODY, NOBODY, 0o644, b"belongs to another user, in a directory that everybody can write to"),
], ids=str)
def test_dump_keeps_the_access_to_the_old_file_or_refuses(ledgerctl, daemon, open_directory, caller, directory_mode,
                                                          owner, group, mode, expected):
    """A user cannot give a file to a group of others."""
    open_directory.chmod(directory_mode)
    file = open_directory / "file"
    file.write_text("old")
    os.chown(file, owner, group)
    file.chmod(mode)
    result = ledgerctl.run("dump", str(file), wrapper=as_user(caller))
    if isinstance(expected, bytes):
        assert result == failure(LOCAL, bytes(file) + b": " + expected)
        expected = group, mode
        assert file.read_text() == "old"
    else:
        assert result == (0, b"", b"")
        assert file.read_text() == "{}\n"
    status = file.stat()
    assert (status.st_uid, (status.st_gid, status.st_mode & 0o7777)) == (owner, expected)
    assert list(open_directory.iterdir()) == [file]
