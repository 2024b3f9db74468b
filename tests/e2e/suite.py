"""Runs tests of several files in one process: suite.py NAME ...

A name is a module, or a class or test in one: chains_test, tree_test.Tree.test_hidden_names. For places that cost much
to bring up, like the virtual machine of tests/kernel."""

import pathlib
import sys

from harness import place

if __name__ == "__main__":
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
    place.main(module=None)
