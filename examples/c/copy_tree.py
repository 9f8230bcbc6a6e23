#!/usr/bin/env python3
"""Copies a directory tree inside one process through the C interface of
libxferfm-host.so, from Python with ctypes, and checks the result.

    copy_tree.py [PATH_TO_libxferfm-host.so]

Without an argument the library is looked up by the system's loader.
Exit status 0 when the copy completed and checks out, 1 otherwise."""
import ctypes
import filecmp
import os
import sys
import tempfile

XFERFM_OK = 0
XFERFM_COMPLETED = 1
WAIT_MS = 60000


class Summary(ctypes.Structure):
    _fields_ = [("outcome", ctypes.c_int),
                ("entries_total", ctypes.c_uint64),
                ("files_done", ctypes.c_uint64),
                ("directories_done", ctypes.c_uint64),
                ("entries_skipped", ctypes.c_uint64),
                ("bytes_total", ctypes.c_uint64),
                ("bytes_done", ctypes.c_uint64),
                ("error", ctypes.c_char * 512)]


LOG = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)
ENTRY_DONE = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int)


class Callbacks(ctypes.Structure):
    _fields_ = [("user", ctypes.c_void_p),
                ("on_file_started", ctypes.c_void_p),
                ("on_progress", ctypes.c_void_p),
                ("on_entry_done", ENTRY_DONE),
                ("on_entry_skipped", ctypes.c_void_p),
                ("on_failure", ctypes.c_void_p),
                ("on_finished", ctypes.c_void_p)]


def load(path):
    lib = ctypes.CDLL(path)
    handle = ctypes.c_void_p
    lib.xferfm_set_log_callback.argtypes = [LOG, ctypes.c_void_p]
    lib.xferfm_version.restype = ctypes.c_char_p
    lib.xferfm_last_error.restype = ctypes.c_char_p
    lib.xferfm_link_pair.argtypes = [ctypes.POINTER(handle), ctypes.POINTER(handle)]
    lib.xferfm_receiver_create.argtypes = [handle, ctypes.c_char_p, ctypes.c_uint32, ctypes.c_uint32,
                                           ctypes.POINTER(Callbacks), ctypes.POINTER(handle)]
    lib.xferfm_sender_create.argtypes = [handle, ctypes.c_uint32, ctypes.c_void_p, ctypes.POINTER(handle)]
    lib.xferfm_sender_offer.argtypes = [handle, ctypes.POINTER(ctypes.c_char_p), ctypes.c_size_t]
    for name in ("xferfm_receiver_start",):
        getattr(lib, name).argtypes = [handle]
    for name in ("xferfm_receiver_wait", "xferfm_sender_wait"):
        getattr(lib, name).argtypes = [handle, ctypes.c_uint32]
    lib.xferfm_receiver_summary.argtypes = [handle, ctypes.POINTER(Summary)]
    for name in ("xferfm_receiver_destroy", "xferfm_sender_destroy", "xferfm_link_destroy"):
        getattr(lib, name).argtypes = [handle]
        getattr(lib, name).restype = None
    return lib


def copy(lib, source, destination):
    """Copies `source` into `destination`; returns the summary and the names reported."""
    done = []

    @ENTRY_DONE
    def on_entry_done(user, name, final_path, is_directory):
        done.append(name.decode())

    callbacks = Callbacks(on_entry_done=on_entry_done)
    sender_end, receiver_end = ctypes.c_void_p(), ctypes.c_void_p()
    sender, receiver = ctypes.c_void_p(), ctypes.c_void_p()
    summary = Summary()
    paths = (ctypes.c_char_p * 1)(source.encode())

    def check(status):
        if status != XFERFM_OK:
            raise RuntimeError(lib.xferfm_last_error().decode())

    try:
        check(lib.xferfm_link_pair(ctypes.byref(sender_end), ctypes.byref(receiver_end)))
        check(lib.xferfm_receiver_create(receiver_end, destination.encode(), 0, 0, ctypes.byref(callbacks),
                                          ctypes.byref(receiver)))
        check(lib.xferfm_sender_create(sender_end, 0, None, ctypes.byref(sender)))
        check(lib.xferfm_sender_offer(sender, paths, 1))
        check(lib.xferfm_receiver_start(receiver))
        check(lib.xferfm_receiver_wait(receiver, WAIT_MS))
        check(lib.xferfm_sender_wait(sender, WAIT_MS))
        check(lib.xferfm_receiver_summary(receiver, ctypes.byref(summary)))
    finally:
        lib.xferfm_receiver_destroy(receiver)
        lib.xferfm_sender_destroy(sender)
        lib.xferfm_link_destroy(sender_end)
        lib.xferfm_link_destroy(receiver_end)
    return summary, done


def trees_equal(left, right):
    comparison = filecmp.dircmp(left, right)
    if comparison.left_only or comparison.right_only or comparison.funny_files:
        return False
    _, mismatch, errors = filecmp.cmpfiles(left, right, comparison.common_files, shallow=False)
    return not mismatch and not errors and all(
        trees_equal(os.path.join(left, d), os.path.join(right, d)) for d in comparison.common_dirs)


@LOG
def log_warnings(user, level, line):
    """The engine logs every step; warnings and errors are enough here."""
    if level >= 3:
        print(line.decode(errors="replace"), file=sys.stderr)


def main():
    lib = load(sys.argv[1] if len(sys.argv) > 1 else "libxferfm-host.so")
    lib.xferfm_set_log_callback(log_warnings, None)
    print("xferfm", lib.xferfm_version().decode())
    with tempfile.TemporaryDirectory(prefix="xferfm-copy-tree-py-") as root:
        source = os.path.join(root, "tree")
        destination = os.path.join(root, "dest")
        os.makedirs(os.path.join(source, "sub"))
        os.makedirs(destination)
        with open(os.path.join(source, "a.txt"), "w") as f:
            f.write("alpha\n")
        with open(os.path.join(source, "sub", "b.bin"), "wb") as f:
            f.write(bytes(range(256)) * 1000)
        summary, done = copy(lib, source, destination)
        ok = summary.outcome == XFERFM_COMPLETED and trees_equal(source, os.path.join(destination, "tree"))
        print("%d entries reported; %s" % (len(done), "copy checks out" if ok else
                                           "COPY DIFFERS: " + summary.error.decode()))
        return 0 if ok and len(done) == 4 else 1


if __name__ == "__main__":
    sys.exit(main())
