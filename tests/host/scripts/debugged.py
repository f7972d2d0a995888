# tests/host/scripts/debugged.py: a script that stops in the debugger, then goes on.
x = 42
breakpoint()
print("after", x + 1)
