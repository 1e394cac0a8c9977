"""What all suites share: each skip is a line of the output, without the test's parameters. scripts/test counts them."""


def pytest_terminal_summary(terminalreporter):
    for report in terminalreporter.stats.get("skipped", ()):
        terminalreporter.write_line(f"SKIPPED {report.nodeid.partition('[')[0]}: {report.longrepr[2]}")
