"""The arrows between the parts of the tree, and the script that checks them."""

import subprocess

import pytest
from support.host import PROJECT

SCRIPT = PROJECT / "scripts/check-layout"

GOOD_TREE = {
    "wire/Framing.h": '#include "kxwire.pb.h"\n',
    "client/include/kxl/KXLLock.h": "#include <mutex>\n",
    "client/src/transport/Connection.cpp": '#include <kxl/KXLLock.h>\n#include <boost/asio/post.hpp>\n#include "wire/Framing.h"\n',
    "client/src/values/Data.h": "",
    "client/src/events/Link.h": '#include "client/src/values/Data.h"\n',
    "client/src/session/Session.cpp": '#include "client/src/events/Link.h"\n',
    "agent/base/File.h": "",
    "agent/inventory/Inventory.h": '#include "agent/base/File.h"\n',
    "agent/core/Main.cpp": '#include "agent/inventory/Inventory.h"\n',
    "agent/server/Server.cpp": '#include "wire/Framing.h"\n#include <boost/asio/post.hpp>\n',
    "daemon/core/Main.cpp": '#include "mib/Registration.h"\n#include <net-snmp/net-snmp-config.h>\n',
    "daemon/mib/Registration.h": "",
    "daemon/mib/Registration.cpp": '#include "mib/Registration.h"\n#include "tables/VeTable.h"\n',
    "daemon/mib/ColumnValue.h": "#include <net-snmp/net-snmp-includes.h>\n",
    "daemon/tables/VeTable.h": '#include "mib/ColumnValue.h"\n#include "link/SNMPNodeLocal.h"\n',
    "daemon/tables/VeTable.cpp": "#include <net-snmp/library/snmp_logging.h>\n",
    "daemon/link/SNMPNodeLocal.h": '#include <kxl/KXLLock.h>\n#include "perf/ClassStats.h"\n',
    "daemon/perf/ClassStats.h": "",
    "daemon/perf/Monitor.cpp": '#include "link/SNMPNodeLocal.h"\n',
    "tests/unit/Any.cpp": '#include "agent/server/Server.h"\n',
}


def check(folder, *arguments):
    command = [SCRIPT, folder, *arguments]
    return subprocess.run(command, capture_output=True, text=True, check=False)


def makeTree(folder, files):
    for name, content in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(content)


def test_this_tree_keeps_to_its_arrows():
    done = check(PROJECT)
    assert (done.returncode, done.stdout) == (0, "")


def test_a_good_tree_has_no_finding(tmp_path):
    makeTree(tmp_path, GOOD_TREE)
    done = check(tmp_path)
    assert (done.returncode, done.stdout) == (0, "")


@pytest.mark.parametrize(
    "file, content",
    [
        ("wire/Framing.h", '#include "agent/server/Server.h"'),
        ("client/src/transport/Connection.cpp", '#include "daemon/perf/ClassStats.h"'),
        ("client/src/transport/Connection.cpp", '#include "agent/server/Server.h"'),
        ("client/src/values/Data.h", '#include "client/src/events/Link.h"'),
        ("client/src/Loose.h", ""),
        ("client/include/kxl/KXLLock.h", '#include "wire/Framing.h"'),
        ("client/include/kxl/KXLLock.h", "#include <boost/asio/post.hpp>"),
        ("agent/base/File.h", '#include "agent/inventory/Inventory.h"'),
        ("agent/inventory/Inventory.h", '#include "agent/server/Server.h"'),
        ("agent/unlisted/File.h", ""),
        ("agent/server/Server.h", "#include <kxl/KXLLock.h>"),
        ("agent/server/Server.h", '#include "daemon/perf/ClassStats.h"'),
        ("agent/server/Server.h", "#include <net-snmp/library/snmp_logging.h>"),
        ("daemon/core/Main.cpp", '#include "wire/Framing.h"'),
        ("daemon/core/Main.cpp", '#include "tables/VeTable.h"'),
        ("daemon/mib/ColumnValue.h", '#include "tables/VeTable.h"'),
        ("daemon/mib/ColumnValue.h", '#include "mib/Registration.h"'),
        ("daemon/mib/Unlisted.h", ""),
        ("daemon/tables/VeTable.h", '#include "mib/Registration.h"'),
        ("daemon/tables/VeTable.h", "#include <net-snmp/net-snmp-includes.h>"),
        ("daemon/link/SNMPNodeLocal.h", '#include "tables/VeTable.h"'),
        ("daemon/link/SNMPNodeLocal.h", '#include "client/include/kxl/KXLLock.h"'),
        ("daemon/link/SNMPNodeLocal.h", "#include <boost/asio/post.hpp>"),
        ("daemon/link/SNMPNodeLocal.h", "#include <kxl/KXLMissing.h>"),
        ("daemon/perf/ClassStats.h", '#include "link/SNMPNodeLocal.h"'),
        ("daemon/traps/InitTraps.cpp", '#include "perf/ClassStats.h"'),
        ("daemon/perf/ClassStats.h", '#include "NoSuchFile.h"'),
        ("tests/unit/Any.cpp", "\n" * 500),
    ],
)
def test_a_forbidden_line_is_found_with_its_place(tmp_path, file, content):
    makeTree(tmp_path, {**GOOD_TREE, "agent/server/Server.h": "", file: f"// first line\n{content}\n"})
    done = check(tmp_path)
    assert done.returncode == 1
    assert done.stdout.startswith(f"{file}:")
    assert done.stdout.count("\n") == 1, done.stdout


def test_an_empty_tree_is_no_success(tmp_path):
    assert check(tmp_path).returncode != 0
