"""A private mail server world: MariaDB, Postfix and Vellum's daemons in one temporary directory, on free ports.

The demo (scripts/demo) and the end-to-end tests (tests/e2e) both play on it. Nothing of the machine's own Postfix,
MariaDB or Vellum is read, changed or stopped, no mail leaves the machine, and everything that was started ends with the
Stage, however that ends.
"""
