"""Run by gdb, for script/trace-request: attaches to a mount's server and counts."""
import os
import re
import subprocess
import threading

import gdb

SERVER = int(os.environ["TRACE_SERVER"])
MOUNT = os.environ["TRACE_MOUNT"]
NAMES = os.environ["TRACE_NAMES"] == "1"
MARK = b"\xa7SiXy\xb6"  # bytes that stand nowhere else


def say(*words):
    print("trace:", *words, flush=True)


def frame_names():
    names, frame = [], gdb.newest_frame()
    while frame is not None:
        names.append(frame.name() or "?")
        frame = frame.older()
    return names


class End(gdb.Breakpoint):
    """Stops the server at the request that a child process sends last."""

    def stop(self):
        return True


def run_while(action, breakpoints):
    """Lets the server run while a child process performs `action`."""
    end = End("tavelin::TavelinVolume::volumeStatistics", internal=True)
    child = subprocess.Popen(["python3", "-c", f"{action}; os.statvfs({MOUNT!r})"],
                             stdin=subprocess.DEVNULL)
    gdb.execute("continue", to_string=True)
    for breakpoint in [end, *breakpoints]:
        breakpoint.delete()
    threading.Thread(target=child.wait, daemon=True).start()  # ends once the server goes on


class Frames(gdb.Breakpoint):
    """The frames between the FUSE callback and the bridge."""

    names = []

    def stop(self):
        names = frame_names()
        last = next((i for i, name in enumerate(names)
                     if re.match(r"tavelin::fusehost::\(anonymous namespace\)::read$", name)),
                    len(names))
        Frames.names = names[1:last]
        return False


class Locks(gdb.Breakpoint):
    """Mutexes taken while a lookup is served."""

    names = []

    def stop(self):
        names = frame_names()
        if any("fusehost::(anonymous namespace)::lookup" in name for name in names):
            Locks.names.append(next(n for n in names[1:] if "utex" not in n))
        return False


class Copies(gdb.Breakpoint):
    """Copies whose source holds the marked bytes, once for each destination."""

    names = []

    def stop(self):
        source, length = (int(gdb.parse_and_eval(f"${r}")) for r in ("rsi", "rdx"))
        if len(MARK) <= length <= 1 << 21:
            try:
                if MARK in bytes(gdb.selected_inferior().read_memory(source, length)):
                    Copies.names.append(next((n for n in frame_names() if "mem" not in n), "?"))
            except gdb.MemoryError:
                pass
        return False


def main():
    gdb.execute("set pagination off")
    gdb.execute("set breakpoint pending on")
    gdb.execute("handle SIGUSR1 nostop noprint pass")
    path = os.path.join(MOUNT, "file")
    with open(path, "wb") as file:
        file.write(b"0123456789")
    os.mkdir(os.path.join(MOUNT, "directory"))
    subprocess.run(["sync", "-f", MOUNT], check=True)
    gdb.execute(f"attach {SERVER}", to_string=True)

    run_while(f"import os; f=os.open({path!r}, os.O_RDONLY | os.O_DIRECT); "
              "import mmap; b=mmap.mmap(-1, 4096); os.preadv(f, [memoryview(b)[:6]], 0)",
              [Frames("ntb_read", internal=True)])
    say(f"frames from the FUSE callback to ntb_read   {len(Frames.names)}")
    run_while(f"import os; os.path.exists({os.path.join(MOUNT, 'directory', 'absent')!r})",
              [Locks("pthread_mutex_lock", internal=True)])
    say(f"mutexes taken by a lookup                   {len(Locks.names)}")
    copiers = [Copies(f"*{symbol}", internal=True)
               for symbol in ("__memmove_avx_unaligned_erms", "__memmove_evex_unaligned_erms",
                              "__memmove_sse2_unaligned_erms", "__memmove_avx512_unaligned_erms")
               if resolves(symbol)]
    run_while(f"import os; f=os.open({path!r}, os.O_WRONLY); "
              f"os.pwrite(f, {MARK!r}, 2); os.fsync(f)", copiers)
    say(f"copies of a six-byte write up to its fsync  {len(Copies.names)}")
    if NAMES:
        for title, names in (("frames", Frames.names), ("mutexes", Locks.names),
                             ("copies", Copies.names)):
            for name in names:
                say(f"  {title:8} {name}")
    gdb.execute("detach", to_string=True)


def resolves(symbol):
    try:
        gdb.parse_and_eval(f"(long)&{symbol}")
        return True
    except gdb.error:
        return False


main()
