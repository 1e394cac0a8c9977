"""The benchmarks still run, and find something out about all that they name."""

import pathlib
import re
import subprocess
import xml.dom.minidom

import pytest

import figures as names
import goals
import report

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"


@pytest.fixture(scope="module", name="run")
def quick_run(request, tmp_path_factory):
    """A quick run that writes a page: its output and the page."""
    page = tmp_path_factory.mktemp("bench") / "page.md"
    page.write_text("kept\n" + report.MARKER + "replaced\n")
    result = subprocess.run([BENCH / "run.py", request.config.getoption("--build"), "--quick", "--page", page],
                            stdout=subprocess.PIPE, text=True, check=False, timeout=100)
    assert result.returncode == 0
    return result.stdout, page


def test_every_goal_but_the_size_on_arm_is_measured(run):
    lines = [line for line in run[0].splitlines() if line.endswith(("met", "measured"))]
    unmeasured = [line for line in lines if line.endswith("not measured")]
    assert len(unmeasured) == 1 and "32-bit ARM" in unmeasured[0]
    assert sum(line.endswith(" met") for line in lines) == len(goals.GOALS) - 1


def test_every_line_has_median_range_and_number(run):
    body = run[0].split("\n\n")[1]
    lines = body.splitlines()
    assert len(lines) > 200
    form = re.compile(r"\S.* +[\d.]+ \([\d.]+ … [\d.]+\) (ns|us|ms|KiB|calls/s)  n=\d+")
    assert not [line for line in lines if not form.match(line)]


def test_the_page_keeps_its_head_and_gets_the_results(run):
    page = run[1].read_text()
    assert page.startswith("kept\n") and "replaced" not in page
    assert page.count("| `Read`, lock-step p50, against `Peer.Ping` |") == 1
    for call in ("ledgerd.Write-99", "echo.Echo-2", "xfconfd.SetProperty", "dconf-service.Change"):
        assert page.count(f"| {call} |") == 2
    assert "| Serialise |" in page and "| `ledgerd -d` |" in page


def test_the_plot_has_two_bars_for_each_call(run):
    plot = xml.dom.minidom.parse(str(run[1].parent / "performance" / "calls.svg"))
    calls = len(re.findall(r"^lock-step \S+ p50 ", run[0], re.M))
    assert len(plot.getElementsByTagName("rect")) == 2 * calls + 3


@pytest.mark.parametrize("name, baseline", [
    ("lock-step ledgerd.Read p50", "lock-step ledgerd.Ping p50"),
    ("lock-step ledgerd.Write-25 p50", "lock-step ledgerd.Ping-25 p50"),
    ("pipelined xfconfd.GetProperty cpu", "pipelined echo.Echo-2 cpu"),
    ("operation Write/keys:500/full:100", "operation Append/keys:500/full:100"),
    ("operation ReplaceFile/keys:1/full:0", None),
    ("start ledgerd -d", "start minimal"),
    ("idle ledgerd Pss", "idle minimal Pss"),
    ("size ledgerd", None),
])
def test_a_figure_is_compared_with_its_floor(name, baseline):
    assert names.baseline_of(name) == baseline


@pytest.mark.parametrize("read, ping, verdict", [
    ([108, 216, 324], [100, 200, 300], "met"),
    ([109, 218, 327], [100, 200, 300], "**not met**"),
    # The ratio is each round's own: a round on a busy machine is slow for both.
    ([100, 9000, 200], [100, 9000, 100], "met"),
])
def test_a_goal_is_judged_by_the_median_of_the_ratios(read, ping, verdict):
    figures = {"lock-step ledgerd.Read p50": read, "lock-step ledgerd.Ping p50": ping}
    assert goals.outcomes(figures)[0].verdict == verdict


def test_a_goal_without_its_figures_is_not_measured():
    assert {outcome.verdict for outcome in goals.outcomes({})} == {"not measured"}
