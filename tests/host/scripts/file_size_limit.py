# tests/host/scripts/file_size_limit.py: writes past a file size limit the script sets itself.
import os
import resource
import tempfile

soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
resource.setrlimit(resource.RLIMIT_FSIZE, (1024, hard))
try:
    with tempfile.TemporaryFile(buffering=0) as file:
        file.write(b"x" * 1024)
        try:
            file.write(b"x")
        except OSError as error:
            return error.strerror
        return "written"
finally:
    resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
