"""Completion in the real shells: what is offered for a command line, with names that a shell would take apart."""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess

import pytest

from world.harness import PATIENCE

VERBS = {"get", "set", "exists", "list", "show", "unset", "clear", "flush", "dump", "load", "edit", "diff", "watch",
         "usage", "help"}
REGISTRY = """{"network":{"hostname":"p","ip":"1"},"a b":{"c d":"v"},"null":{},"x:y=z":{"k=1":"v","k:2":"v"},
               "it's":{"$k":"v"}}"""

# Each line ends where the cursor is; the offers are as the shell would understand them. These need no daemon.
LINES_WITHOUT_NAMES = [
    ("ledgerctl ", VERBS),
    ("ledgerctl -q l", {"list", "load"}),
    ("ledgerctl help us", {"usage"}),
    ("ledgerctl load --mi", {"--missing-only"}),
    ("ledgerctl flush --s", {"--sync"}),
    ("ledgerctl --", {"--quiet", "--help", "--timeout", "--null", "--json", "--version"}),
    ("ledgerctl set --f", {"--flush", "--force"}),
    ("ledgerctl usage --f", {"--fail-above"}),
    ("ledgerctl load --text --f", {"--force"}),
    ("ledgerctl watch --ex", {"--exec"}),
    ("ledgerctl load sett", {"settings.json"}),
    ("ledgerctl dump -- ", {"settings.json"}),
    # What is not offered: options after "--" and after the section of set, and values.
    ("ledgerctl get -- -", set()),
    ("ledgerctl set network -", set()),
    ("ledgerctl set network ip ", set()),
    ("ledgerctl usage --fail-above ", set()),
    # Names, without a daemon.
    ("ledgerctl get ", set()),
    ("ledgerctl get network ", set()),
]
LINES = [
    ("ledgerctl get ", {"network", "a b", "null", "x:y=z", "it's"}),
    ("ledgerctl --timeout 3 -q show n", {"network", "null"}),
    ("ledgerctl get network ", {"hostname", "ip"}),
    ("ledgerctl get --default x NETWORK h", {"hostname"}),
    ("ledgerctl get a\\ b ", {"c d"}),
    ("ledgerctl set 'a b' c", {"c d"}),
    ("ledgerctl set network -x -y h", {"hostname"}),
    ("ledgerctl set --force -- n", {"network", "null"}),
    ("ledgerctl get \"it's\" ", {"$k"}),
    ("ledgerctl watch x:y=z ", {"k=1", "k:2"}),
    ("ledgerctl unset -r nu", {"null"}),
]
@pytest.fixture(scope="module")
def directory(build):
    return build.completion


@pytest.fixture
def environment_without_daemon(ledgerctl):
    (ledgerctl.folder / "settings.json").touch()
    path = f"{pathlib.Path(ledgerctl.binary).resolve().parent}:{os.environ['PATH']}"
    return {**ledgerctl.environment, "PATH": path, "HOME": str(ledgerctl.folder), "LC_ALL": "C.UTF-8"}


@pytest.fixture
def environment(environment_without_daemon, client):
    client.write_json(REGISTRY)
    client.write("null", "k", "")
    client.delete_key("null", "k")
    return environment_without_daemon


# Of readline: quotes hold a word together, and the characters of COMP_WORDBREAKS stand alone.
BASH_WORD = r'''(?:\\.|'[^']*'?|"[^"]*"?|[^\s=:'"\\])+|[=:]+'''


def words_of(line):
    words = re.findall(BASH_WORD, line)
    return [*words, ""] if line.endswith(" ") else words


# Calls the function that is registered for the command and prints what it offers.
BASH_SCRIPT = r"""
. /usr/share/bash-completion/bash_completion
. "$1"
COMP_LINE=$2
COMP_POINT=${#COMP_LINE}
shift 2
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_TYPE=9
_ledgerctl ledgerctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
# As the shell will understand what it inserts: one word each.
for offer in "${COMPREPLY[@]}"; do
  eval "set -- $offer"
  printf '%s\0' "$*"
done
"""


def offers_of_bash(environment, directory, line, words):
    command = ["bash", "--norc", "-c", BASH_SCRIPT, "bash", str(directory / "ledgerctl.bash"), line, *words]
    result = subprocess.run(command, env=environment, cwd=environment["HOME"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=PATIENCE, check=True)
    assert result.stderr == b""
    return set(filter(None, result.stdout.decode().split("\0")))


def offers_of_fish(environment, directory, line, _words):
    script = f"source {directory}/ledgerctl.fish; complete -C {fish_quoted(line)}"
    result = subprocess.run(["fish", "--no-config", "-c", script], env=environment, cwd=environment["HOME"],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=PATIENCE,
                            check=True)
    assert result.stderr == b""
    # The offer and its description.
    return {offer.split("\t")[0] for offer in result.stdout.decode().splitlines()}


def fish_quoted(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


# Completes a line as if it had been typed and prints what is offered: compadd is the one way to offer something.
ZSH_SCRIPT = r"""
fpath=($COMPLETION_DIRECTORY $fpath)
autoload -Uz compinit
compinit -u -D
compadd() {
  local -a offered
  builtin compadd -O offered "$@"
  print -rn -- "${(pj:\x01:)offered}"$'\x01' >&$OFFERS
  builtin compadd "$@"
}
zle -C offer list-choices _main_complete
offer-line() {
  BUFFER=$LINE_TO_COMPLETE
  CURSOR=${#BUFFER}
  zle offer
  print -rn -- $'\x02' >&$OFFERS
  exit 0
}
zle -N offer-line
zle-line-init() { zle offer-line }
zle -N zle-line-init
"""


def offers_of_zsh(environment, directory, line, _words):
    """It completes only at a terminal."""
    reader, writer = os.pipe()
    master, slave = pty.openpty()
    pathlib.Path(environment["HOME"], ".zshrc").write_text(ZSH_SCRIPT)
    # None of the machine's own settings.
    process = subprocess.Popen(["zsh", "-d", "-i"], env={
        **environment, "ZDOTDIR": environment["HOME"], "COMPLETION_DIRECTORY": str(directory), "LINE_TO_COMPLETE": line,
        "OFFERS": str(writer)}, cwd=environment["HOME"], stdin=slave, stdout=slave, stderr=slave, pass_fds=[writer],
        start_new_session=True)
    os.close(writer)
    os.close(slave)
    data = b""
    while b"\x02" not in data and (chunk := read_some(reader, master)):
        data += chunk
    process.kill()
    process.wait()
    os.close(reader)
    os.close(master)
    return set(filter(None, data.decode().replace("\x02", "").split("\x01")))


def read_some(reader, terminal):
    """The next bytes of the reader; what appears on the terminal is thrown away."""
    while True:
        ready, _, _ = select.select([reader, terminal], [], [], PATIENCE)
        assert ready, "the shell did not answer"
        if reader in ready:
            return os.read(reader, 65536)
        try:
            os.read(terminal, 65536)
        except OSError:
            return os.read(reader, 65536)


def needs(shell):
    return pytest.mark.skipif(shutil.which(shell) is None, reason=f"{shell} is missing")


shells = pytest.mark.parametrize("offers_of", [
    pytest.param(function, id=shell, marks=needs(shell))
    for shell, function in (("bash", offers_of_bash), ("fish", offers_of_fish), ("zsh", offers_of_zsh))])


@shells
@pytest.mark.parametrize("line, offers", LINES, ids=[line for line, _ in LINES])
def test_names(environment, directory, offers_of, line, offers):
    assert offers_of(environment, directory, line, words_of(line)) == offers


@shells
@pytest.mark.parametrize("line, offers", LINES_WITHOUT_NAMES, ids=[line for line, _ in LINES_WITHOUT_NAMES])
def test_no_daemon_is_no_trouble(environment_without_daemon, directory, offers_of, line, offers):
    assert offers_of(environment_without_daemon, directory, line, words_of(line)) == offers


@pytest.mark.parametrize("line, offer", [("ledgerctl get x:", "y=z"), ("ledgerctl get x:y=", "z"),
                                         ("ledgerctl get x:y=z k=", "1")])
def test_bash_completes_after_what_breaks_its_words(environment, directory, line, offer):
    """Readline replaces only what follows the last ":" or "="."""
    assert offers_of_bash(environment, directory, line, [*words_of(line), ""]) == {offer}
