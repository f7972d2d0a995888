# tests/host/scripts/syntax_error.py: a script Python cannot compile.
x = 1
x = )
