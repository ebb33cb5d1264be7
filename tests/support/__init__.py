"""The test rig: a private host, the programs on it, and peers that talk to them."""
