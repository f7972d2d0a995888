# tests/host/scripts/where.py: what the script is told about itself, as Python's program tells it.
import os
import sys

print(sys.argv[0].endswith("where.py"), sys.argv[1:])
print(os.path.isabs(__file__), __file__.endswith("/scripts/where.py"), __name__)
print(sys.path[0] == os.path.dirname(os.path.realpath(__file__)))
