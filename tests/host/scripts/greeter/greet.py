# tests/host/scripts/greeter/greet.py: an argparse script that imports the module beside it.
import argparse
import sys

import salutation

parser = argparse.ArgumentParser(prog="greet")
parser.add_argument("--name", required=True)
parser.add_argument("--times", type=int, default=1)
options = parser.parse_args()
for _ in range(options.times):
    print(salutation.greeting(options.name))
print(sys.argv[1:])
