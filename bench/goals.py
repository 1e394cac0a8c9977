"""What the daemon's own share may be, as ratios of figures that are measured in the same run."""

import dataclasses
import statistics


@dataclasses.dataclass(frozen=True)
class Goal:
    text: str
    limit: float
    figure: str
    baseline: str = ""  # none: the figure itself is limited, in KiB

    def ratios(self, figures):
        """A value for each round."""
        if not self.baseline:
            return figures[self.figure]
        return [value / base for value, base in zip(figures[self.figure], figures[self.baseline])]


PING = "lock-step ledgerd.Ping p50"
PING_25 = "lock-step ledgerd.Ping-25 p50"
START = "start ledgerd"

GOALS = (
    Goal("`Read`, lock-step p50, against `Peer.Ping`", 1.08, "lock-step ledgerd.Read p50", PING),
    Goal("`KeyExists`, lock-step p50, against `Peer.Ping`", 1.08, "lock-step ledgerd.KeyExists p50", PING),
    Goal("`Write` at 25 %, lock-step p50, against `Peer.Ping`", 1.12, "lock-step ledgerd.Write-25 p50", PING_25),
    Goal("`Write` at 99 %, lock-step p50, against `Peer.Ping`", 1.25, "lock-step ledgerd.Write-99 p50", PING),
    Goal("CPU of a `Read`, against a bare libdbus echo", 1.15,
         "lock-step ledgerd.Read cpu", "lock-step echo.Echo-2 cpu"),
    Goal("CPU of a `Write` at 99 %, against a bare libdbus echo", 1.6,
         "lock-step ledgerd.Write-99 cpu", "lock-step echo.Echo-3 cpu"),
    Goal("CPU of a `Read`, against xfconfd's `GetProperty`", 0.25,
         "lock-step ledgerd.Read cpu", "lock-step xfconfd.GetProperty cpu"),
    Goal("CPU of a `Write` at 99 %, against xfconfd's `SetProperty`", 0.25,
         "lock-step ledgerd.Write-99 cpu", "lock-step xfconfd.SetProperty cpu"),
    Goal("CPU of `ReadAllJson` at 99 %, against an echo of a string of that length", 1.5,
         "lock-step ledgerd.ReadAllJson cpu", "lock-step echo.Echo-long cpu"),
    Goal("`Write` in one process at 100 %, 500 keys, against plain appends of the same text", 1.5,
         "operation Write/keys:500/full:100", "operation Append/keys:500/full:100"),
    Goal("Start in the background until the command returns, against a minimal program", 1.3, START, "start minimal"),
    Goal("Private_Dirty of the idle daemon, against a minimal program", 1.25,
         "idle ledgerd Private_Dirty", "idle minimal Private_Dirty"),
    Goal("The stripped release for 32-bit ARM, KiB", 200, "size ledgerd armhf"),
)


@dataclasses.dataclass(frozen=True)
class Outcome:
    goal: Goal
    values: tuple  # empty: not measured in this run

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def met(self):
        return self.median <= self.goal.limit

    @property
    def verdict(self):
        return "not measured" if not self.values else "met" if self.met else "**not met**"


def outcomes(figures):
    def values(goal):
        measured = all(name in figures for name in (goal.figure, goal.baseline) if name)
        return tuple(goal.ratios(figures)) if measured else ()

    return [Outcome(goal, values(goal)) for goal in GOALS]
