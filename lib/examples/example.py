"""Sends texts to a node through the agent, one after the other, and prints the rows."""
import sys

import lumo


def main(arguments):
    if len(arguments) < 2:
        print("usage: example NODE TEXT...", file=sys.stderr)
        return 2
    node, *texts = arguments
    failed = False
    with lumo.Connection() as agent:
        for text in texts:
            try:
                print(agent.ask(node, text).rows)
            except lumo.Error as error:  # refused by the node, failed, or nobody knows
                print("example:", error, file=sys.stderr)
                failed = True
    return 1 if failed else 0


try:
    sys.exit(main(sys.argv[1:]))
except lumo.NoAgent as error:
    print("example:", error, file=sys.stderr)
    sys.exit(1)
