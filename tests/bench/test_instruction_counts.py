"""The comparison of instruction counts notices what is slower, and says which function it is."""

import pytest

import callgrind_profile
import instruction_counts

RECORDED = {"Read": (1000, {"Outer": 990, "Inner": 400}), "Write": (50000, {"Outer": 49000})}


@pytest.mark.parametrize("total, good", [(1000, True), (1100, True), (1101, False), (5000, False), (10, True)])
def test_a_rise_of_over_a_tenth_fails(total, good, capsys):
    assert instruction_counts.compare(RECORDED, {**RECORDED, "Read": (total, {})}) == good
    assert ("FAILED Read" in capsys.readouterr().out) == (not good)


def test_the_functions_that_rose_are_named_with_the_largest_rise_first(capsys):
    assert not instruction_counts.compare(
        RECORDED, {**RECORDED, "Read": (1500, {"Outer": 1490, "Inner": 300, "New": 600})})
    assert capsys.readouterr().out.splitlines()[1:3] == ["    New 0 -> 600", "    Outer 990 -> 1490"]


def test_an_operation_without_a_record_fails(capsys):
    assert not instruction_counts.compare(RECORDED, {**RECORDED, "Flush": (1, {})})
    assert "Flush" in capsys.readouterr().out


def test_a_table_is_read_as_it_was_written():
    assert instruction_counts.read_table(instruction_counts.table(RECORDED)) == RECORDED


@pytest.mark.parametrize("name, short", [
    ("SerialiseRegistry[abi:cxx11](std::map<int, std::less<int> > const&)", "SerialiseRegistry"),
    ("(anonymous namespace)::Quoted(std::basic_string_view<char>)", "Quoted"),
    ("non-virtual thunk to Server::handle_message(DBus::Message const&)", "Server::handle_message"),
    ("RegistryBackEnd::Save() [clone .part.0]", "RegistryBackEnd::Save"),
    ("void std::vector<int>::push_back(int&&)", "std::vector::push_back"),
    ("RegistryBackEnd::Read(std::string const&)", "RegistryBackEnd::Read"),
])
def test_a_function_is_known_by_its_qualified_name(name, short):
    assert callgrind_profile.without_arguments(name) == short


def test_only_functions_of_this_project_count():
    def is_ours(name, owner="program"):
        return callgrind_profile.is_ours("program", owner, name)

    assert is_ours("RegistryBackEnd::Read(std::string const&)")
    assert is_ours("(anonymous namespace)::Quoted(std::string const&)")
    assert not is_ours("RegistryBackEnd::Read(std::string const&)", "libother.so")
    assert not is_ours("std::map<int, int>::find(int const&)")
    assert not is_ours("(anonymous namespace)::CountReads()")


PROFILE = """part: 1
desc: Trigger: Client Request: Read
totals: 100

ob=program
fn=main
cfn=Loop()
calls=1 0
0 90
cfn=Outside()
calls=1 0
0 5

fn=Loop()
0 10
cfn=non-virtual thunk to Root(int)
calls=2 0
0 80

fn=non-virtual thunk to Root(int)
0 1
cfn=Root(int)
calls=2 0
0 79

fn=Root(int)
0 20
cob=library
cfn=foreign
calls=2 0
0 40
cfn=Root(int)
calls=1 0
0 15
cfn=Inner()
calls=1 0
0 5

ob=library
fn=foreign
0 30
cob=program
cfn=Back()
calls=1 0
0 10
"""


def test_a_profile_has_the_inclusive_counts_of_our_functions():
    profile = callgrind_profile.parse(PROFILE, "program")["Read"]
    assert profile.total == 100
    assert profile.functions == {"Loop": 90, "Outside": 5, "Root": 80, "Inner": 5, "Back": 10}
    assert profile.functions_within("Root") == {"Root": 80, "Inner": 5, "Back": 10}
    assert profile.functions_within("Missing") == {}


def test_a_copy_more_is_reported_and_named(request, capsys):
    program = request.config.getoption("--build") / "bench" / "ledgerd_count_instructions"
    plain = instruction_counts.count(program)
    assert instruction_counts.compare(plain, instruction_counts.count(program))
    capsys.readouterr()
    assert not instruction_counts.compare(plain, instruction_counts.count(program, "--copy-more"))
    report = capsys.readouterr().out
    assert "FAILED Read " in report
    assert "    CopyOnceMore 0 -> " in report
