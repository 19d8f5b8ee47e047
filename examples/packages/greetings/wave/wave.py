"""Draws a hand that waves, one line each quarter of a second."""

import argparse
import time


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--times", type=int, default=3, help="how often the hand goes there and back")
    arguments = parser.parse_args()
    for _ in range(arguments.times):
        for hand in ("\\o", " o/"):
            print(hand, flush=True)
            time.sleep(0.125)


if __name__ == "__main__":
    main()
