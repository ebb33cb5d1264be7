"""Waiting for a condition instead of for a time."""

import time

_POLL_INTERVAL_S = 0.01


class DeadlineExceeded(AssertionError):
    """What was waited for did not come true in time."""


def waitUntil(condition, deadlineSeconds, what):
    """Polls `condition` until it returns something true, and returns that.

    Raises DeadlineExceeded, naming `what`, once `deadlineSeconds` have passed. The condition is asked once more
    at the end, so that a machine that was busy in between does not fail a test whose condition holds.
    """
    deadline = time.monotonic() + deadlineSeconds
    while True:
        late = time.monotonic() >= deadline
        result = condition()
        if result:
            return result
        if late:
            raise DeadlineExceeded(f"not within {deadlineSeconds:g} s: {what}")
        time.sleep(_POLL_INTERVAL_S)
