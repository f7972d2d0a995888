# tests/host/scripts/interrupted_cleanup.py: waits (WAIT names how) until it is stopped, then
# cleans up; a script that swallows the interruption (SWALLOW) still ends interrupted.
import os
import select
import socket
import subprocess
import sys
import threading
import time

wait = os.environ.get("WAIT", "sleep")
print("started", flush=True)
try:
    if wait == "sleep":
        time.sleep(60)
    elif wait == "select":
        reader, writer = os.pipe()
        select.select([reader], [], [], 60)
    elif wait == "socket":
        near, far = socket.socketpair()
        near.recv(1)
    elif wait == "lock":
        lock = threading.Lock()
        lock.acquire()
        lock.acquire()
    elif wait == "subprocess":
        subprocess.run(["sleep", "60"])
    elif wait == "loop":
        while True:
            pass
    elif wait == "sql":
        db = sqlite.Database.open(":memory:")
        db.query("WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c")
except KeyboardInterrupt:
    if os.environ.get("SWALLOW"):
        print("swallowed", flush=True)
        return "swallowed"
    raise
finally:
    print("cleaned up", flush=True)
