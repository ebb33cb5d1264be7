"""A real container is seen under all the restrictions of the units."""

from support.parts import SUBTREE

TABLE = f"{SUBTREE}.4.1"
NAME = "101"
ADDRESS = "10.0.3.77"
ADDED = "10.0.3.99"
HOSTNAME, OS_TEMPLATE, STATE = 4, 6, 8
SEEN_WITHIN_S = 10


def waitForValue(debian, oid, value):
    debian.waitForWalk(SUBTREE, lambda found: found.get(oid) == value, f"{oid} is {value}", SEEN_WITHIN_S)


def test_a_container_is_followed_from_its_definition_to_its_end(debian):
    debian.createContainer(NAME, ADDRESS)
    waitForValue(debian, f"{TABLE}.{STATE}.{NAME}", "INTEGER: 1")
    debian.do("lxc-start", "-n", NAME)
    waitForValue(debian, f"{TABLE}.{STATE}.{NAME}", "INTEGER: 2")
    waitForValue(debian, f"{TABLE}.{HOSTNAME}.{NAME}", f'STRING: "{NAME}.example.test"')
    waitForValue(debian, f"{TABLE}.{OS_TEMPLATE}.{NAME}", 'STRING: "busyboxlab/1.35"')
    # Only whoever enters the container's network namespace can know of this one.
    debian.do("lxc-attach", "-n", NAME, "--", "/bin/ip", "addr", "add", f"{ADDED}/24", "dev", "eth0")
    waitForValue(debian, f"{SUBTREE}.5.1.1.{NAME}.{ADDED}", f"IpAddress: {ADDED}")
    debian.do("lxc-freeze", "-n", NAME)
    waitForValue(debian, f"{TABLE}.{STATE}.{NAME}", "INTEGER: 3")
    debian.do("lxc-unfreeze", "-n", NAME)
    debian.do("lxc-stop", "-k", "-n", NAME)
    waitForValue(debian, f"{TABLE}.{STATE}.{NAME}", "INTEGER: 1")
    complaints = debian.do("journalctl", "--no-pager", "-o", "cat", "-p", "warning", "-u", "kxagentd").splitlines()
    assert complaints in ([], ["-- No entries --"])
