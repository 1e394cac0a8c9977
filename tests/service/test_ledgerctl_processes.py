"""The client beside other processes: the user's editor, signals at any moment, and the files that it leaves."""

import os
import pty
import re
import select
import signal

import pytest

from world import observe
from world.harness import PATIENCE, wait_for
from world.ledgerctl import LOCAL, NO_ANSWER
from world.namespace_world import NOBODY, as_user, needs_root
from world.observe import needs_strace
from world.stalled_bus import StalledBus

# Waits in the user's editor until it is told to go on.
WAITING_EDITOR = "f() { echo $$ > '%s'; read line < '%s'; sed -i s/=v/=w/ \"$1\"; }; f"


class Editor:
    def __init__(self, world):
        self.started = world.path / "editor.pid"
        self.gate = world.path / "gate"
        os.mkfifo(self.gate)
        self.environment = {"EDITOR": WAITING_EDITOR % (self.started, self.gate)}

    def wait_started(self):
        wait_for(lambda: self.started.exists() and self.started.read_text().endswith("\n"), "the editor runs")
        return int(self.started.read_text())

    def go_on(self):
        with open(self.gate, "w", encoding="ascii") as gate:
            gate.write("\n")


@pytest.fixture
def editor(world):
    return Editor(world)


def test_edit_merges_beside_the_changes_of_others(ledgerctl, client, editor):
    client.write("s", "k", "v")
    process = ledgerctl.start("edit", environment=editor.environment)
    editor.wait_started()
    client.write("s", "other", "x")
    editor.go_on()
    assert process.communicate(timeout=PATIENCE) == (b"- [s] k=v\n+ [s] k=w\n", b"")
    assert client.key_list("s") == {"k": "w", "other": "x"}
    assert ledgerctl.left_files() == []


def test_edit_refuses_to_overwrite_the_change_of_another(ledgerctl, client, editor):
    client.write("s", "k", "v")
    process = ledgerctl.start("edit", environment=editor.environment)
    editor.wait_started()
    client.write("s", "k", "x")
    editor.go_on()
    output, error = process.communicate(timeout=PATIENCE)
    assert process.returncode == LOCAL
    # What the user wrote is not lost.
    text, note = kept_text(ledgerctl)
    assert error == b"ledgerctl: key 'k' in section 's' has changed meanwhile; nothing changed\n" + note
    assert client.read("s", "k") == "x"
    assert text.endswith("[s]\nk=w\n")


def kept_text(ledgerctl):
    """What an edit has left, and what it says of that."""
    (kept,) = ledgerctl.left_files()
    path = ledgerctl.folder / kept
    return path.read_text(), b"Your text is kept in %s\n" % os.fsencode(path)


@pytest.mark.parametrize("answer, status", [(b"q\n", LOCAL), (b"\x04", LOCAL), (b"\x03", -signal.SIGINT)],
                         ids=["quit", "end of input", "Ctrl-C"])
def test_edit_on_a_terminal_asks_after_a_mistake(ledgerctl, client, answer, status):
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


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_edit_that_is_ended_behind_the_editor_keeps_the_text(ledgerctl, daemon, client, editor, number):
    client.write("s", "k", "v")
    process = ledgerctl.start("edit", environment=editor.environment)
    editor.wait_started()
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


def test_edit_that_the_bus_does_not_take_keeps_the_text(ledgerctl, world, client):
    """libdbus waits without a bound until such a call is out."""
    client.write("s", "k", "v")
    editor = Editor(world)
    lengthen = "head -c 8388608 /dev/zero | tr '\\0' y >> $1"
    longer = {"EDITOR": editor.environment["EDITOR"].replace("; }", f"; {lengthen}; }}")}
    with StalledBus(world) as bus:
        process = ledgerctl.start("--timeout", "1", "edit", environment={**longer, **bus.environment})
        bus.release()
        editor.wait_started()
        # The look for changes of others comes through.
        bus.hold(most=1)
        editor.go_on()
        _, error = process.communicate(timeout=PATIENCE)
    assert process.returncode == NO_ANSWER
    text, note = kept_text(ledgerctl)
    assert text.endswith("y")
    assert error == b"ledgerctl: no answer in 1 s\n" + note


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP], ids=["SIGTERM", "SIGHUP"])
def test_edit_that_is_ended_leaves_no_file(ledgerctl, client, editor, number):
    client.write("s", "k", "v")
    process = ledgerctl.start("edit", environment=editor.environment)
    shell = editor.wait_started()
    assert len(ledgerctl.left_files()) == 1
    process.send_signal(number)
    assert process.wait(PATIENCE) == -number
    assert ledgerctl.left_files() == []
    # The editor goes its own way.
    os.kill(shell, signal.SIGKILL)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert client.read("s", "k") == "v"


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGQUIT], ids=["SIGINT", "SIGQUIT"])
def test_interrupted_edit_leaves_no_file(ledgerctl, client, editor, number):
    """The terminal sends its signal to the editor too."""
    client.write("s", "k", "v")
    waiting = {"EDITOR": f"f() {{ echo $$ > '{editor.started}'; exec cat '{editor.gate}'; }}; f"}
    process = ledgerctl.start("edit", environment=waiting, start_new_session=True)
    shell = editor.wait_started()
    wait_for(lambda: observe.status(shell)["Name"] == "cat", "the editor waits")
    os.killpg(process.pid, number)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == -number
    assert ledgerctl.left_files() == []
    assert client.read("s", "k") == "v"


def test_editor_that_is_killed_leaves_no_file(ledgerctl, client, editor):
    process = ledgerctl.start("edit", environment={"EDITOR": "kill -KILL $$;"})
    assert process.communicate(timeout=PATIENCE) == (b"", b"ledgerctl: the editor failed; nothing changed\n")
    assert process.returncode == LOCAL
    assert ledgerctl.left_files() == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGQUIT], ids=["SIGINT", "SIGQUIT"])
def test_editor_may_use_ctrl_c_for_itself(ledgerctl, client, editor, number):
    client.write("s", "k", "v")
    process = ledgerctl.start("edit", environment=editor.environment)
    editor.wait_started()
    process.send_signal(number)
    editor.go_on()
    assert process.communicate(timeout=PATIENCE) == (b"- [s] k=v\n+ [s] k=w\n", b"")
    assert process.returncode == 0


@needs_strace
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM], ids=["SIGINT", "SIGTERM"])
def test_dump_that_is_ended_leaves_the_old_file(ledgerctl, world, client, number):
    """It is ended when the new file is written and not yet in its place."""
    folder = world.path / "dumps"
    folder.mkdir()
    (folder / "file").write_text("old")
    client.write("s", "k", "v")
    name = signal.Signals(number).name
    status, output, _ = ledgerctl.run("dump", str(folder / "file"), wrapper=(
        *observe.without_leak_check(), "strace", "-o", os.devnull, "-e", f"inject=fsync:signal={name}:when=1"))
    assert (status, output) == (-number, b"")
    assert [path.name for path in folder.iterdir()] == ["file"]
    assert (folder / "file").read_text() == "old"


@needs_strace
@pytest.mark.parametrize("call, error, text", [("fsync", "EIO", b"Input/output error"),
                                               ("rename", "EXDEV", b"Invalid cross-device link")])
def test_dump_that_fails_leaves_the_old_file(ledgerctl, world, client, call, error, text):
    folder = world.path / "dumps"
    folder.mkdir()
    (folder / "file").write_text("old")
    client.write("s", "k", "v")
    status, output, message = ledgerctl.run("dump", str(folder / "file"), wrapper=(
        *observe.without_leak_check(), "strace", "-o", os.devnull, "-e", f"inject={call}:error={error}:when=1"))
    assert (status, output) == (LOCAL, b"")
    assert message.startswith(b"ledgerctl: ") and message.endswith(b": " + text + b"\n"), message
    assert [path.name for path in folder.iterdir()] == ["file"]
    assert (folder / "file").read_text() == "old"


@needs_strace
@pytest.mark.parametrize("error, status, text", [("EIO", LOCAL, "ledgerctl: {}/: Input/output error\n"),
                                                 ("EINVAL", 0, "")])
def test_dump_into_a_directory_that_cannot_be_synced(ledgerctl, client, error, status, text):
    """EINVAL is the answer of file systems that have nothing to sync there."""
    file = ledgerctl.folder / "file"
    assert ledgerctl.run("dump", str(file), wrapper=(
        *observe.without_leak_check(), "strace", "-o", os.devnull, "-e", f"inject=fsync:error={error}:when=2"
    )) == (status, b"", text.format(ledgerctl.folder).encode())
    assert file.read_text() == "{}\n"


@needs_strace
def test_dumped_file_is_synced_before_it_is_renamed(ledgerctl, world, client):
    file = world.path / "dump.json"
    log = world.path / "calls"
    ledgerctl.output("dump", str(file), wrapper=(
        *observe.without_leak_check(), "strace", "-y", "-o", str(log), "-e", "trace=fsync,rename"))
    calls = [line.split("(")[0] for line in log.read_text().splitlines() if re.match("fsync|rename", line)]
    assert calls == ["fsync", "rename", "fsync"], log.read_text()


@needs_root
@pytest.mark.parametrize("caller, group, mode, kept_group, kept_mode", [
    (0, 54322, 0o640, 54322, 0o640),
    (NOBODY, NOBODY, 0o640, NOBODY, 0o640),
    (NOBODY, 54322, 0o664, NOBODY, 0o644),
    (NOBODY, 54322, 0o640, NOBODY, 0o600),
    (NOBODY, 54322, 0o604, NOBODY, 0o600),
], ids=str)
def test_dump_keeps_the_access_to_the_old_file(ledgerctl, client, open_directory, caller, group, mode, kept_group,
                                               kept_mode):
    """A user cannot give a file to a group of others."""
    file = open_directory / "file"
    file.write_text("old")
    os.chown(file, NOBODY, group)
    file.chmod(mode)
    ledgerctl.output("dump", str(file), wrapper=as_user(caller))
    assert file.read_text() == "{}\n"
    status = file.stat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (NOBODY, kept_group, kept_mode)
