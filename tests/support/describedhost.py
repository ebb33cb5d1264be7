"""A described host with everything that can be odd about one, and the tree that must be read of it.

One expected tree a table: every OID, type and value, in OID order. The tests compare it whole.
"""

from .host import APPLICATION_TEMPLATES, ENTRY, IP_ADDRESSES, NETWORK_COUNTERS, QUOTA_COUNTERS
from .snmp import COUNTER64, INTEGER, IP_ADDRESS, OCTET_STRING, UNSIGNED32, Varbind

LONG_NAME = "n" * 255
LONG_DESCRIPTION = "0123456789" * 400
NAME_64 = "s" * 64
NAME_114 = "l" * 114  # the longest for which there is an OID: a name has 128 sub-identifiers at most
NAME_120 = "l" * 120
NO_SAMPLE = "00000000-0000-0000-0000-000000000000"
NO_NUMBER = 4294967295
ALL_ONES = "255.255.255.255"

INVENTORY = f"""
[host]
product_version = "7.0.1-42"

[[environment]]
name = "first of another type"
type = "host"
veid = 11
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000011"
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]

[[environment]]
name = "web"
veid = 101
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
hostname = "web.example"
description = "front end"
os_template = {{ name = "debian", version = "12" }}
base_sample = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa"
state = 2
transition = 0
addresses = [
    {{ address = "10.0.0.9", mask = "255.255.255.0" }},
    {{ address = "192.168.3.4", mask = "255.255.255.128" }},
    {{ address = "10.0.0.1", mask = "255.255.255.0" }},
    {{ address = "9.255.0.1", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "nginx", version = "1.24" }},
    {{ name = "b", version = "2.6" }},
    {{ name = "{NAME_64}", version = "x7" }},
    {{ name = "", version = "8" }},
    {{ name = "php", version = "" }},
    {{ name = "a", version = "-3" }},
    {{ name = "{NAME_120}", version = "120" }},
    {{ name = "{NAME_114}", version = "114" }},
]
[environment.counters.counters_kx_quota.""]
diskspace_used = 1000000
diskspace_softlimit = 2000000
diskspace_hardlimit = 9223372036854775807
diskspace_grace = 604800
inodes_used = 17
inodes_softlimit = 0
inodes_hardlimit = -5
inodes_grace = 0
not_in_the_vocabulary = 99
[environment.counters.counters_kx_quota."another instance with the same index"]
diskspace_used = 5
[environment.counters.counters_kx_net."1"]
bytes_in = 1000
packets_in = 10
bytes_out = 9223372036854775807
packets_out = 20
[environment.counters.counters_kx_net."10"]
bytes_in = 4294967296
packets_in = 1
bytes_out = 2
packets_out = 3
[environment.counters.counters_kx_net."2"]
bytes_in = 2
packets_in = 2
bytes_out = 2
packets_out = 2
[environment.counters.counters_kx_net."2b"]
bytes_in = 3
packets_in = 3
bytes_out = 3
packets_out = 3
[environment.counters.counters_kx_net."7up"]
bytes_in = 7
packets_in = 7
bytes_out = 7
packets_out = 7
[environment.counters.counters_kx_net."eth0"]
bytes_in = 8
packets_in = 8
bytes_out = 8
packets_out = 8

[[environment]]
name = "zero"
veid = 0
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000000"
state = 1
transition = 1
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]
[environment.counters.counters_kx_quota.""]
diskspace_used = 1
[environment.counters.counters_kx_net."1"]
bytes_in = 1

[[environment]]
name = "between, and its type differs in case"
type = "Lumetra"
veid = 150
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000150"

[[environment]]
name = "without a number"
eid = "0f8e5c1a-7a44-4c3b-9d1e-0000000000ff"
hostname = "nameless.example"
os_template = {{ name = "alpine", version = "" }}
state = 3
transition = 4
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]
[environment.counters.counters_kx_quota.""]
diskspace_used = 1
[environment.counters.counters_kx_net."1"]
bytes_in = 1

[[environment]]
name = "between, and its type is longer"
type = "lumetra2"
veid = 151
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000151"
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]

[[environment]]
name = "between, and its type is empty"
type = ""
veid = 152
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000152"

[[environment]]
name = "with \\"double\\" and 'single' quotes"
veid = 7
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000007"
hostname = '"quoted"'
description = "a \\\\ and a \\""
os_template = {{ name = "", version = "9" }}
addresses = [
    {{ address = "10.0.0.1", mask = "255.255.255.256" }},
    {{ address = "no quad", mask = "255.255.0.0" }},
    {{ address = "10.0.0.2", mask = "" }},
    {{ address = "10.0.0.3", mask = "/24" }},
]
templates = [
    {{ name = "größe 日本", version = "4294967297" }},
    {{ name = "größ", version = "99999999999999999999" }},
    {{ name = "nul\\u0000byte", version = "  12 monkeys" }},
    {{ name = "nul", version = "0x10" }},
    {{ name = "sign", version = "+8" }},
]
[environment.counters.counters_kx_quota.""]
[environment.counters.counters_kx_net.""]

[[environment]]
name = "seen\\u0000unseen"
veid = 103
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000103"
hostname = "host\\u0000unseen"
description = "\\u0000all unseen"
os_template = {{ name = "fedora", version = "39" }}

[[environment]]
name = "größe 日本 \\U0001F433"
veid = 102
eid = "0F8E5C1A-7A44-4C3B-9D1E-000000000102"
hostname = "münchen.example"
description = "\\t tab and\\n new line"
addresses = []
templates = []
[environment.counters.counters_kx_quota.""]
inodes_used = 3
[environment.counters.counters_kx_net."1"]
bytes_out = -1

[[environment]]
name = ""
veid = 2147483647
eid = "0f8e5c1a-7a44-4c3b-9d1e-00007fffffff"
hostname = ""
description = ""
os_template = {{ name = "", version = "" }}
state = -1
transition = 2147483647
addresses = [
    {{ address = "255.255.255.254", mask = "0.0.0.0" }},
    {{ address = "0.0.0.0", mask = "255.255.255.255" }},
]
templates = [
    {{ name = "nginx", version = "1.24" }},
    {{ name = "nginx-extra", version = "-9223372036854775808" }},
]
[environment.counters.counters_kx_quota.""]
diskspace_used = 1
[environment.counters.counters_kx_net."4294967297"]
bytes_in = 1

[[environment]]
name = "{LONG_NAME}"
veid = 100
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000100"
description = "{LONG_DESCRIPTION}"
state = -2147483648
transition = 5
addresses = [
    {{ address = "10.1", mask = "255.255" }},
    {{ address = "fe80::1", mask = "64" }},
    {{ address = "0x0b.0.0.2", mask = "255.0.0.0 " }},
    {{ address = "010.0.0.3", mask = "255.0.0.0x" }},
    {{ address = "", mask = "" }},
    {{ address = "10.0.0.1", mask = "255.255.255.0" }},
]

[[environment]]
name = "a negative number"
veid = -7
eid = "0f8e5c1a-7a44-4c3b-9d1e-0000fffffff9"
base_sample = "{NO_SAMPLE}"
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]
[environment.counters.counters_kx_quota.""]
diskspace_used = 1
[environment.counters.counters_kx_net."1"]
bytes_in = 1

[[environment]]
name = "last of another type"
type = "template"
veid = 9999
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000009999"
addresses = [
    {{ address = "10.9.9.9", mask = "255.0.0.0" }},
]
templates = [
    {{ name = "hidden", version = "1" }},
]
"""

_EID = "0f8e5c1a-7a44-4c3b-9d1e-"

# VE id: identifier, name, host name, description, OS template, base sample, state, transition.
ROWS = {
    0: (_EID + "000000000000", "zero", "", "", "", NO_SAMPLE, 1, 1),
    7: (_EID + "000000000007", "with \"double\" and 'single' quotes", '"quoted"', 'a \\ and a "', "", NO_SAMPLE, 0, 0),
    100: (_EID + "000000000100", LONG_NAME, "", LONG_DESCRIPTION, "", NO_SAMPLE, -2147483648, 5),
    101: (_EID + "000000000101", "web", "web.example", "front end", "debian/12", _EID + "0000000000aa", 2, 0),
    102: (_EID + "000000000102", "größe 日本 🐳", "münchen.example", "\t tab and\n new line", "", NO_SAMPLE, 0, 0),
    103: (_EID + "000000000103", "seen", "host", "", "fedora/39", NO_SAMPLE, 0, 0),
    2147483647: (_EID + "00007fffffff", "", "", "", "", NO_SAMPLE, -1, 2147483647),
    4294967289: (_EID + "0000fffffff9", "a negative number", "", "", "", NO_SAMPLE, 0, 0),
    NO_NUMBER: (_EID + "0000000000ff", "without a number", "nameless.example", "", "alpine", NO_SAMPLE, 3, 4),
}

# VE id: address as it is shown: mask as it is shown.
ADDRESSES = {
    7: {"10.0.0.1": ALL_ONES, "10.0.0.2": ALL_ONES, "10.0.0.3": ALL_ONES, ALL_ONES: "255.255.0.0"},
    100: {
        "8.0.0.3": ALL_ONES,
        "10.0.0.1": "255.0.0.255",
        "11.0.0.2": "255.0.0.0",
        ALL_ONES: "0.0.0.64",
    },
    101: {
        "9.255.0.1": "255.0.0.0",
        "10.0.0.1": "255.255.255.0",
        "10.0.0.9": "255.255.255.0",
        "192.168.3.4": "255.255.255.128",
    },
    2147483647: {"0.0.0.0": ALL_ONES, "255.255.255.254": "0.0.0.0"},
}

# VE id: name: version as it is shown.
TEMPLATES = {
    7: {
        "nul": 0,
        "sign": 8,
        "größ": 2**32 - 1,  # the largest 64-bit number's low half
        "nul\0byte": 12,
        "größe 日本": 1,
    },
    101: {
        "": 8,
        "a": 2**32 - 3,
        "b": 2,
        "php": 0,
        "nginx": 1,
        NAME_64: 0,
        NAME_114: 114,
    },
    2147483647: {"nginx": 1, "nginx-extra": 0},
}

# VE id: the eight counters as they are shown: unsigned, 0 where the container does not report one.
QUOTA = {
    7: (0, 0, 0, 0, 0, 0, 0, 0),
    101: (1000000, 2000000, 2**63 - 1, 604800, 17, 0, 2**64 - 5, 0),
    102: (0, 0, 0, 0, 3, 0, 0, 0),
    2147483647: (1, 0, 0, 0, 0, 0, 0, 0),
}

# VE id and instance as it is shown: the four counters.
NETWORK = {
    (7, 0): (0, 0, 0, 0),
    (101, 0): (8, 8, 8, 8),
    (101, 1): (1000, 10, 2**63 - 1, 20),
    (101, 2): (2, 2, 2, 2),
    (101, 7): (7, 7, 7, 7),
    (101, 10): (2**32, 1, 2, 3),
    (102, 1): (0, 0, 2**64 - 1, 0),
    (2147483647, 1): (1, 0, 0, 0),
}


def _typed(value):
    return (OCTET_STRING, value.encode()) if isinstance(value, str) else (INTEGER, value)


def _address(quad):
    return bytes(int(part) for part in quad.split("."))


def expectedContainers():
    """Every varbind of the container table."""
    varbinds = []
    for veid, values in ROWS.items():
        varbinds.append(Varbind(ENTRY + (1, veid), UNSIGNED32, veid))
        for column, value in enumerate(values, start=2):
            varbinds.append(Varbind(ENTRY + (column, veid), *_typed(value)))
    return sorted(varbinds)


def expectedAddresses():
    """Every varbind of the address table; the index is the container's number and the address's four bytes."""
    varbinds = []
    for veid, addresses in ADDRESSES.items():
        for address, mask in addresses.items():
            index = (veid, *_address(address))
            varbinds.append(Varbind(IP_ADDRESSES + (1, 1) + index, IP_ADDRESS, _address(address)))
            varbinds.append(Varbind(IP_ADDRESSES + (1, 2) + index, IP_ADDRESS, _address(mask)))
    return sorted(varbinds)


def expectedTemplates():
    """Every varbind of the template table; the index is the container's number, the name's length and its bytes."""
    varbinds = []
    for veid, templates in TEMPLATES.items():
        for name, version in templates.items():
            index = (veid, len(name.encode()), *name.encode())
            varbinds.append(Varbind(APPLICATION_TEMPLATES + (1, 1) + index, OCTET_STRING, name.encode()))
            varbinds.append(Varbind(APPLICATION_TEMPLATES + (1, 2) + index, UNSIGNED32, version))
    return sorted(varbinds)


def expectedQuota():
    """Every varbind of the quota-counter table."""
    return sorted(
        Varbind(QUOTA_COUNTERS + (1, column, veid), COUNTER64, value)
        for veid, values in QUOTA.items()
        for column, value in enumerate(values, start=1)
    )


def expectedNetwork():
    """Every varbind of the network-counter table; its first column is the instance."""
    varbinds = [Varbind(NETWORK_COUNTERS + (1, 1) + index, UNSIGNED32, index[1]) for index in NETWORK]
    varbinds += [
        Varbind(NETWORK_COUNTERS + (1, column) + index, COUNTER64, value)
        for index, values in NETWORK.items()
        for column, value in enumerate(values, start=2)
    ]
    return sorted(varbinds)


# Rows that another row has the index of. Each is found alone and by walks, but a GET of several variables counts such a
# row twice and takes itself for done before all of them are answered; that is the SNMP library's.
_TWINS = [
    IP_ADDRESSES + (1, 1, 100, 255, 255, 255, 255),
    IP_ADDRESSES + (1, 1, 100, 10, 0, 0, 1),
    QUOTA_COUNTERS + (1, 1, 101),
    NETWORK_COUNTERS + (1, 1, 101, 2),
]
_COLUMN = len(QUOTA_COUNTERS) + 1  # its place in an instance's OID


def hasTwin(oid):
    """Whether another row has the index of this instance's."""
    return oid[:_COLUMN] + (1,) + oid[_COLUMN + 1 :] in _TWINS


def expectedTables():
    """Every varbind of all tables."""
    return expectedContainers() + expectedAddresses() + expectedTemplates() + expectedQuota() + expectedNetwork()
