# tests/host/scripts/app/__main__.py: what `run FOLDER` runs; it imports the module beside it.
import sys

import parts

print(parts.NAME, sys.argv[1:], __file__.endswith("/app/__main__.py"))
