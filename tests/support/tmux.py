"""A real terminal emulator of a given size in which a program runs, and what is on its screen."""

import subprocess

from .kxctl import surroundings


class Screen:
    """Ends the program when it is closed, as when a terminal's window is."""

    def __init__(self, folder, columns, rows, command):
        self._tmux = ["tmux", "-u", "-f", "/dev/null", "-S", folder / "tmux"]
        self._do("new-session", "-d", "-x", str(columns), "-y", str(rows), subprocess.list2cmdline(map(str, command)))

    def _do(self, *arguments):
        done = subprocess.run([*self._tmux, *arguments], capture_output=True, text=True, check=True, env=surroundings())
        return done.stdout

    def lines(self):
        """What is on the screen; a full line has as many characters as the terminal has columns."""
        return self._do("capture-pane", "-p").split("\n")

    def pid(self):
        """Of the program."""
        return int(self._do("list-panes", "-F", "#{pane_pid}"))

    def type(self, keys):
        self._do("send-keys", "-l", keys)

    def close(self):
        subprocess.run([*self._tmux, "kill-server"], capture_output=True, check=False)
