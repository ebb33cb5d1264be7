"""Options for programs built with sanitizers, and what those reported."""

import os
import platform
from pathlib import Path

_FOLDER = Path(__file__).resolve().parent
_EXIT_STATUS = 66  # tells a sanitizer's verdict from our own exit statuses

# g++ 12's sanitizer runtimes map their shadow memory at fixed addresses and abort at random where the kernel
# moves a program further than this.
_MAX_SUPPORTED_RANDOM_BITS = 28


def environment(reportFolder=None):
    """Environment variables; programs without sanitizers ignore them. Reports go to files in the folder if one is
    given, since a daemon has no standard error."""
    common = f"exitcode={_EXIT_STATUS}" + (f":log_path={reportFolder}/report" if reportFolder else "")
    leak = f"suppressions={_FOLDER}/lsan.supp:print_suppressions=0"
    return {
        "ASAN_OPTIONS": f"{common}:detect_leaks=1:detect_stack_use_after_return=1",
        "LSAN_OPTIONS": leak,
        "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
        "TSAN_OPTIONS": f"{common}:suppressions={_FOLDER}/tsan.supp:print_suppressions=0:second_deadlock_stack=1",
    }


def launcher():
    """What to put in front of a sanitized program's command line."""
    with open("/proc/sys/vm/mmap_rnd_bits", encoding="ascii") as bits:
        return ["setarch", platform.machine(), "-R"] if int(bits.read()) > _MAX_SUPPORTED_RANDOM_BITS else []


def isSanitized(program):
    """Whether a program was built with a sanitizer: it then has the runtime's entry points in it."""
    with open(program, "rb") as binary:
        content = binary.read()
    return b"__asan_init" in content or b"__tsan_init" in content


def reports(reportFolder):
    """What the sanitizers wrote, a text each."""
    return [(Path(reportFolder) / name).read_text(errors="replace") for name in sorted(os.listdir(reportFolder))]
