# tests/host/scripts/broken_pipe.py: writes to a pipe whose reading end is closed.
import os

read_end, write_end = os.pipe()
os.close(read_end)
try:
    os.write(write_end, b"lost")
except BrokenPipeError:
    return "BrokenPipeError"
finally:
    os.close(write_end)
return "written"
