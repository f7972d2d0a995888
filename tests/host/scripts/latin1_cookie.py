# -*- coding: latin-1 -*-
# tests/host/scripts/latin1_cookie.py: a script in Latin-1, as its coding cookie says.
print("café in Latin-1")
