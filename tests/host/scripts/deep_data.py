# Data nested 100,000 deep through C code (the json encoder), on the main thread and on a thread
# of Python's threading: each raises RecursionError, however small `ulimit -s` was.
import json
import threading


def encode_deep():
    data = []
    for _ in range(100000):
        data = [data]
    try:
        json.dumps(data)
    except RecursionError:
        return 'RecursionError'
    return 'encoded'


on_thread = []
thread = threading.Thread(target=lambda: on_thread.append(encode_deep()))
thread.start()
thread.join()
return [encode_deep(), on_thread[0]]
