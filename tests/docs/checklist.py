"""Claims of a test script. Each claim that fails is printed and makes the script fail."""

import sys

checked = 0
failed = 0


def check(claim, holds):
    global checked, failed
    checked += 1
    if not holds:
        failed += 1
        print(f"FAILED: {claim}")


def check_same(claim, expected, actual):
    """Compares two sets of names."""
    missing, surplus = sorted(set(expected) - set(actual)), sorted(set(actual) - set(expected))
    check(f"{claim}: missing {missing}, surplus {surplus}", not missing and not surplus)


def end():
    print(f"{checked} checked, {failed} failed")
    # A script that checked nothing has looked in the wrong place.
    sys.exit(0 if checked and not failed else 1)
