"""Completion in the real shells: what is offered for a command line, with names that a shell would take apart."""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess

import pytest

from harness import PATIENCE

VERBS = {"get", "set", "exists", "list", "show", "unset", "clear", "flush", "dump", "load", "edit", "diff", "watch",
         "usage", "help"}
REGISTRY = """{"network":{"hostname":"p","ip":"1"},"a b":{"c d":"v"},"null":{},"x:y=z":{"k=1":"v","k:2":"v"},
               "it's":{"$k":"v"}}"""

# Each line ends where the cursor is; the offers are as the shell would understand them.
LINES_WITHOUT_NAMES = [
    ("ledgerctl ", VERBS),
    ("ledgerctl -q l", {"list", "load"}),
    ("ledgerctl help us", {"usage"}),
    ("ledgerctl load --m", {"--missing-only"}),
    ("ledgerctl flush --s", {"--sync"}),
]
LINES = [
    *LINES_WITHOUT_NAMES,
    ("ledgerctl get ", {"network", "a b", "null", "x:y=z", "it's"}),
    ("ledgerctl --timeout 3 -q show n", {"network", "null"}),
    ("ledgerctl get network ", {"hostname", "ip"}),
    ("ledgerctl get --default x NETWORK h", {"hostname"}),
    ("ledgerctl get a\\ b ", {"c d"}),
    ("ledgerctl set 'a b' c", {"c d"}),
    ("ledgerctl get \"it's\" ", {"$k"}),
    ("ledgerctl watch x:y=z ", {"k=1", "k:2"}),
    ("ledgerctl unset -r nu", {"null"}),
]
lines = pytest.mark.parametrize("line, offers", LINES, ids=[line for line, _ in LINES])


@pytest.fixture(scope="module")
def folder(request):
    return request.config.getoption("--completion")


@pytest.fixture
def environment_without_daemon(ledgerctl):
    path = f"{pathlib.Path(ledgerctl.binary).resolve().parent}:{os.environ['PATH']}"
    return {**ledgerctl.environment, "PATH": path, "HOME": str(ledgerctl.folder), "LC_ALL": "C.UTF-8"}


@pytest.fixture
def environment(environment_without_daemon, client):
    client.write_json(REGISTRY)
    client.write("null", "k", "")
    client.delete_key("null", "k")
    return environment_without_daemon


def needs(shell):
    return pytest.mark.skipif(shutil.which(shell) is None, reason=f"{shell} is missing")


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
# As the shell will understand what it inserts.
for offer in "${COMPREPLY[@]}"; do
  eval "printf '%s\0' $offer"
done
"""


def offers_of_bash(environment, folder, line, words):
    result = subprocess.run(["bash", "--norc", "-c", BASH_SCRIPT, "bash", str(folder / "ledgerctl.bash"), line, *words],
                            env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            timeout=PATIENCE, check=True)
    assert result.stderr == b""
    return set(filter(None, result.stdout.decode().split("\0")))


@lines
def test_bash(environment, folder, line, offers):
    assert offers_of_bash(environment, folder, line, words_of(line)) == offers


@pytest.mark.parametrize("line, offer", [("ledgerctl get x:", "y=z"), ("ledgerctl get x:y=", "z"),
                                         ("ledgerctl get x:y=z k=", "1")])
def test_bash_completes_behind_what_breaks_its_words(environment, folder, line, offer):
    """Readline replaces only what stands behind the last ":" or "="."""
    assert offers_of_bash(environment, folder, line, [*words_of(line), ""]) == {offer}


@lines
def test_no_daemon_is_no_trouble(environment_without_daemon, folder, line, offers):
    """Names are not offered then; the rest is."""
    expected = offers if (line, offers) in LINES_WITHOUT_NAMES else set()
    assert offers_of_bash(environment_without_daemon, folder, line, words_of(line)) == expected


@needs("fish")
@lines
def test_fish(environment, folder, line, offers):
    script = f"source {folder}/ledgerctl.fish; complete -C {fish_quoted(line)}"
    result = subprocess.run(["fish", "--no-config", "-c", script], env=environment, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=PATIENCE, check=True)
    assert result.stderr == b""
    # The offer and its description.
    offered = {offer.split("\t")[0] for offer in result.stdout.decode().splitlines()}
    assert offered == offers


def fish_quoted(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


# Completes a line as if it had been typed and prints what is offered: compadd is the one way to offer something.
ZSH_SCRIPT = r"""
fpath=($COMPLETION_FOLDER $fpath)
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


@needs("zsh")
@lines
def test_zsh(environment, folder, line, offers):
    """It completes only at a terminal."""
    reader, writer = os.pipe()
    master, slave = pty.openpty()
    pathlib.Path(environment["HOME"], ".zshrc").write_text(ZSH_SCRIPT)
    # None of the machine's own settings.
    process = subprocess.Popen(["zsh", "-d", "-i"], env={
        **environment, "ZDOTDIR": environment["HOME"], "COMPLETION_FOLDER": str(folder), "LINE_TO_COMPLETE": line,
        "OFFERS": str(writer)}, stdin=slave, stdout=slave, stderr=slave, pass_fds=[writer], start_new_session=True)
    os.close(writer)
    os.close(slave)
    data = b""
    while b"\x02" not in data and (chunk := read_some(reader, master)):
        data += chunk
    process.kill()
    process.wait()
    os.close(reader)
    os.close(master)
    offered = set(filter(None, data.decode().replace("\x02", "").split("\x01")))
    assert offered == offers


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
