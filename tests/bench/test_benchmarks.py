"""The benchmark judges its goals, compares the counts of instructions, and writes no page on a busy machine."""

import pathlib
import re
import subprocess
import types
import xml.dom.minidom

import pytest

import calls
import goals
import instruction_counts
import machine
import report
import run

BENCH = pathlib.Path(calls.__file__).parent
KINDS = [*(f"{version}{kind}" for version in ("", "before ")
           for kind in (*(f"Write {fill}" for fill in calls.FILLS), "Read", "ReadAllJson")),
         "echo of Read", "echo of Write", "echo of a long text", "xfconfd SetProperty"]
FIGURES = [*(f"{kind} {field}" for kind in KINDS for field in report.FIELDS),
           "start minimal", "start ledgerd", "memory minimal", "memory ledgerd"]


@pytest.mark.parametrize("cost, base, verdict", [
    ([20, 20, 20], [10, 10, 10], goals.MET),
    ([21, 21, 21], [10, 10, 10], goals.MISSED),
    # The median counts.
    ([10, 19, 20, 90, 90], [10] * 5, goals.MET),
    # The ratio is each round's own: a round on a busy machine is slow for both.
    ([20, 9000, 20], [10, 4500, 10], goals.MET),
    ([20, 9000, 30], [10, 9000, 10], goals.MET),
    # The middle half of these rounds is from 2.0 to 2.4, 0.4 wide.
    ([10, 20, 24, 24, 90], [10] * 5, goals.WITHIN_SPREAD),
    ([10, 21, 24, 25, 90], [10] * 5, goals.WITHIN_SPREAD),
    ([10, 22, 24, 25, 90], [10] * 5, goals.MISSED),
    ([], [], goals.NOT_MEASURED),
])
def test_a_goal_is_judged_by_the_median_and_the_spread_of_its_ratios(monkeypatch, capsys, cost, base, verdict):
    monkeypatch.setattr(goals, "GOALS", (goals.Goal("the goal", 2.0, "cost", "base"),))
    outcomes = goals.outcomes({"cost": cost, "base": base})
    assert [outcome.verdict for outcome in outcomes] == [verdict]
    assert run.exit_status(outcomes) == (verdict == goals.MISSED)
    assert capsys.readouterr().out == ("The goal is missed: the goal\n" if verdict == goals.MISSED else "")


@pytest.mark.parametrize("size, verdict", [(2.0, goals.MET), (2.1, goals.MISSED)])
def test_a_goal_without_a_baseline_limits_the_figure(monkeypatch, size, verdict):
    monkeypatch.setattr(goals, "GOALS", (goals.Goal("the size", 2.0, "size"),))
    assert goals.outcomes({"size": [size]})[0].verdict == verdict


def test_busy_time_includes_stolen_time_but_not_waiting(tmp_path):
    stat = tmp_path / "stat"
    # user nice system idle iowait irq softirq steal guest guest_nice
    stat.write_text("cpu  1 2 4 1000 2000 8 16 32 64 128\ncpu0 1 1 1 1 1 1 1 1 1 1\n")
    assert machine.processor_ticks(stat) == (63, 3063)


@pytest.mark.parametrize("samples, idle, printed", [
    ([5], True, ""),
    ([30, 40, 0], True, r"Waiting until the processors are at most 5 % busy, .* They are 30 % busy now\.\n"),
    ([30, 40, 50, 60], False, r"Waiting .*\nThe machine is not idle: its processors are 50 % busy\.\n"),
])
def test_the_benchmark_waits_for_an_idle_machine_for_a_limited_time(capsys, samples, idle, printed):
    seconds = iter(range(0, 1000, 100))
    assert machine.wait_until_idle(iter(samples).__next__, seconds.__next__) is idle
    assert re.fullmatch(printed, capsys.readouterr().out)


def test_only_a_run_that_writes_a_page_waits_for_an_idle_machine(monkeypatch):
    monkeypatch.setattr(machine, "wait_until_idle", lambda: False)
    monkeypatch.setattr(calls, "run_round", lambda *_: {"cost": 1})
    monkeypatch.setattr(run.start_up, "run_round", lambda *_: {"start": 2})
    options = types.SimpleNamespace(build=None, before=None, armhf=None, page=None)
    extent = types.SimpleNamespace(rounds=2, passes=1, block=1, starts=1)
    assert run.measure(None, options, extent) == {"cost": [1, 1], "start": [2, 2]}
    options.page = "page.md"
    assert run.measure(None, options, extent) is None


@pytest.mark.parametrize("percent", calls.FILLS)
def test_a_registry_fills_its_share_of_the_capacity(percent):
    assert len(calls.registry_text(percent)) == calls.CAPACITY * percent // 100
    assert percent != calls.FULL or calls.registry_text(percent).count("[s") == 25


def test_the_page_shows_the_figures_and_its_picture_both_versions(tmp_path):
    page = tmp_path / "performance.md"
    figures = {name: [number + 1.0, number + 2.0, number + 3.0] for number, name in enumerate(FIGURES)}
    figures["size armhf"] = [199.5]
    outcomes = goals.outcomes(figures)
    report.write_page(page, [("commit", "1234567")], run.Extent(quick=False), figures, outcomes)
    text = page.read_text()
    for row in ("| commit | 1234567 |", "| CPU of the daemon, version 1.0.0 | 36.0 |",
                "| `Write` at 25 %, version 1.0.0 | 26.0 (25.0 … 27.0) |",
                "| stripped program for 32-bit ARM, KiB | 200 | 200 (200 … 200) | 0.00 | met |"):
        assert text.count(row) == 1, row
    for kind in KINDS:
        assert text.count(f"\n| {report.label_of(kind)} | ") == 1, kind
    for outcome in outcomes:
        assert f"| {outcome.goal.name} |" in text
    assert not re.search("[{}]", text)
    picture = xml.dom.minidom.parse(str(tmp_path / "performance" / "write.svg"))
    assert len(picture.getElementsByTagName("polyline")) == 2
    assert len(picture.getElementsByTagName("circle")) == 2 * len(calls.FILLS)


@pytest.fixture(name="build")
def build_directory(request):
    return request.config.getoption("--build")


def test_a_quick_run_measures_every_figure_and_fails_for_the_goals_that_it_names(build):
    result = subprocess.run([BENCH / "run.py", build, "--before", build / "daemon/ledgerd", "--quick"],
                            stdout=subprocess.PIPE, text=True, check=False, timeout=100)
    measured = re.findall(r"^(.*?) +[\d.]+ \([\d.]+ … [\d.]+\) +(?:us|ms|KiB) +n=2\b", result.stdout, re.M)
    assert sorted(measured) == sorted(FIGURES)
    verdicts = {goal.name: re.search(rf"^{re.escape(goal.name)} .*  (\S.*)$", result.stdout, re.M)[1]
                for goal in goals.GOALS}
    assert [name for name, verdict in verdicts.items() if verdict == goals.NOT_MEASURED] == [goals.GOALS[-1].name]
    missed = [name for name, verdict in verdicts.items() if verdict == goals.MISSED]
    assert re.findall(r"^The goal is missed: (.*)$", result.stdout, re.M) == missed
    assert result.returncode == (1 if missed else 0)


@pytest.mark.parametrize("counted, printed", [
    ({"Read": 1000}, "ok "),
    ({"Read": 1100}, "ok "),
    ({"Read": 10}, "ok "),
    ({"Read": 1101}, "FAILED Read "),
    ({"Read": 1000, "Flush": 1}, "FAILED: counted Read Flush, recorded Read"),
    ({}, "FAILED: counted , recorded Read"),
])
def test_a_rise_of_over_a_tenth_and_an_operation_without_a_record_fail(monkeypatch, capsys, counted, printed):
    monkeypatch.setattr(instruction_counts, "functions", lambda *_: [])
    counts = {name: (total, None) for name, total in counted.items()}
    assert instruction_counts.compare({"Read": 1000}, counts, "program") == printed.startswith("ok")
    assert capsys.readouterr().out.startswith(printed)


def test_a_slower_operation_fails_and_its_expensive_functions_are_printed(build, tmp_path, monkeypatch, capsys):
    program = str(build / "bench/ledgerd_count_instructions")
    slower = instruction_counts.count(program, tmp_path, "--copy-more")
    assert not instruction_counts.compare(instruction_counts.read_record(), slower, program)
    assert re.search(r"FAILED Read .*\n(?: .*\n)*.*CopyOnceMore", capsys.readouterr().out)
    monkeypatch.setattr(instruction_counts, "BASELINE", tmp_path / "record")
    instruction_counts.write_record(slower)
    assert instruction_counts.read_record() == {operation: total for operation, (total, _) in slower.items()}
