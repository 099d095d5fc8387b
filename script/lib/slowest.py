"""Makes one request after the other on a mount until it is told to end, and prints how long the
longest of each kind took, in milliseconds. Exits with 1 when one took more than a second.
   slowest.py DIRECTORY      ends by SIGTERM"""
import os
import signal
import sys
import time

LIMIT = 1.0  # seconds
BLOCK = b"x" * 4096


def main():
    place = os.path.join(sys.argv[1], "slowest")
    os.mkdir(place)
    ended = []
    signal.signal(signal.SIGTERM, lambda *_: ended.append(True))
    longest = {}

    def timed(kind, call):
        begin = time.monotonic()
        answer = call()
        longest[kind] = max(longest.get(kind, 0.0), time.monotonic() - begin)
        return answer

    rounds = 0
    while not ended:
        rounds += 1
        path = os.path.join(place, f"file{rounds % 50}")
        fd = timed("create", lambda p=path: os.open(p, os.O_RDWR | os.O_CREAT, 0o666))
        timed("write", lambda f=fd: os.pwrite(f, BLOCK, 0))
        if rounds % 20 == 0:
            timed("fsync", lambda f=fd: os.fsync(f))
        # Else the read would come from the kernel's own memory.
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        timed("read", lambda f=fd: os.pread(f, len(BLOCK), 0))
        timed("truncate", lambda f=fd: os.ftruncate(f, 1000))
        os.close(fd)
        timed("look up a name that is not there", lambda p=path: os.path.exists(p + "~1"))
        timed("rename", lambda p=path: os.rename(p, p + ".new"))
        timed("list", lambda: os.listdir(place))
        if rounds % 2 == 0:
            timed("remove", lambda p=path: os.unlink(p + ".new"))
    for kind, seconds in sorted(longest.items(), key=lambda item: -item[1]):
        print(f"{seconds * 1000:8.1f} ms  {kind}")
    return 1 if max(longest.values()) > LIMIT else 0


if __name__ == "__main__":
    sys.exit(main())
