"""Project quotas: what is published of containers is what the system's own tools say of their projects.

And what is told where there is nothing but cgroup v2.
"""

import signal

import pytest
from support import umlquota
from support.umlquota import published, reported

BLOCK = 1024  # repquota's unit of space
CLEAR, WARNING, CRITICAL = 0, 1, 2
PIDS_LIMIT = 64  # of each container in a lab
SAMPLE_AGE_S = 10  # of what is shown, at most, in a guest that is slow on a busy machine
GRACE_S = {"space": 3600, "inodes": 7200}  # as the guest sets them


@pytest.fixture(scope="module")
def guest(tmp_path_factory):
    """What the guest has found: all tests look at one run of it."""
    obstacle = umlquota.obstacle()
    if obstacle:
        pytest.skip(f"user-mode-linux cannot run here: {obstacle}")
    return umlquota.run(tmp_path_factory.mktemp("uml"))


@pytest.mark.parametrize("which", [0, 1], ids=["beyond the soft limits", "after space was freed"])
def test_usage_and_limits_are_what_the_systems_own_tool_says(guest, which):
    look = guest["looks"][which]
    shown, told = published(look), reported(look)
    assert set(shown) == {101, 102, 103} <= set(told), look["report"]
    for veid, columns in shown.items():
        assert columns[0:3] + columns[4:7] == told[veid][0:3] + told[veid][4:7], f"{veid}: {look['report']}"


@pytest.mark.parametrize("which", [0, 1], ids=["beyond the soft limits", "after space was freed"])
def test_grace_is_what_is_left_of_it_in_seconds(guest, which):
    look = guest["looks"][which]
    for veid, columns in published(look).items():
        for position in (3, 7):
            end = reported(look)[veid][position]
            if end == 0:
                assert columns[position] == 0
            else:
                # What is shown may have been read some reports earlier.
                assert end - look["ended"] - 1 <= columns[position] <= end - look["begun"] + SAMPLE_AGE_S, (
                    f"{veid}: {columns}"
                )


def test_grace_runs_for_what_is_beyond_its_soft_limit_only(guest):
    shown = published(guest["looks"][0])
    assert shown[101][0] > 5 * 1024 * BLOCK and shown[101][1:3] == [4096 * BLOCK, 9000 * BLOCK]
    assert GRACE_S["space"] - 60 < shown[101][3] <= GRACE_S["space"]
    assert shown[102][4] > 120 and shown[102][5:7] == [100, 300]
    assert GRACE_S["inodes"] - 60 < shown[102][7] <= GRACE_S["inodes"]
    assert [shown[101][7], shown[102][3]] == [0, 0]
    assert shown[103][0] > 0 and shown[103][1:4] + shown[103][5:8] == [0] * 6, "no limits are set"


def test_grace_ends_when_usage_is_below_the_soft_limit_again(guest):
    assert published(guest["looks"][1])[101][3] == 0


def test_what_runs_out_is_told_as_a_trap_and_told_again_when_it_is_over(guest):
    def told(veid, word):
        return [(code, value) for number, code, text, value in guest["alerts"] if number == veid and word in text]

    soft, hard = told(101, "soft limit"), told(101, "used up")
    assert [code for code, _ in soft] == [WARNING, CLEAR] and [code for code, _ in hard] == [CRITICAL, CLEAR], guest
    softLimit, hardLimit = 4096 * BLOCK, 9000 * BLOCK
    assert softLimit < soft[0][1] < hardLimit * 0.99 <= hard[0][1], "values are the bytes used"
    # A look may fall between two of the files that are made or deleted.
    assert soft[1][1] < softLimit * 0.95 and hard[1][1] < hardLimit * 0.95
    [(code, used), (after, left)] = told(102, "inodes")
    assert code == WARNING and 100 < used < 300
    assert after == CLEAR and left < 100
    assert len(guest["alerts"]) == 6, guest["alerts"]


def test_where_there_are_quotas_none_are_said_to_be_missing(guest):
    assert not [line for line in guest["log"] if "disk usage" in line]


# ---- limits of cgroup v2 --------------------------------------------------------------------------------------------


def test_a_kill_for_lack_of_memory_is_told_under_cgroup_v2(guest):
    told = guest["memory"]["alerts"]
    assert {(veid, code) for veid, code, _, _ in told} == {(103, CRITICAL)}
    assert 1 <= told[-1][3] == guest["memory"]["kills"], guest["memory"]


def test_a_kill_is_the_hosts_only_when_the_hosts_memory_has_run_out(guest):
    service, host = guest["host"]["service"], guest["host"]["host"]
    assert service == {"ended": -signal.SIGKILL, "raised": []}
    assert host["ended"] == -signal.SIGKILL and host["raised"][0] == CRITICAL


def test_a_hit_of_the_limit_of_processes_is_told_under_cgroup_v2(guest):
    (veid, code, _, processes), *_ = guest["processes"]["alerts"]
    assert (veid, code) == (103, CRITICAL) and guest["processes"]["hits"] > 0
    assert 0 < processes <= PIDS_LIMIT
