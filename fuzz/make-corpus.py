#!/usr/bin/env python3
"""Writes the seed corpora of the binary-format fuzz targets (app_ctl and
metrics) into fuzz/corpus/.  The text-format corpora are kept as files."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
NULL = b"\xff"
CODES = {"cached": 0, "create_pre": 15, "create_post": 16, "exec": 23, "open_post": 30,
         "chmod": 32, "close": 36, "rename": 40, "delete": 50, "mmap": 53}
ALLOWED = "25d2c09673fb1fed6b81fa005949ae3400d35fe3e665bcf7c9086321f87e27cb"
BLOCKED = "982d5afb957a06ebf88f7606c8401146664fa7df79cd68fd92c24c9848f464a3"


def event(kind, target, process="/usr/bin/bash", sha=None, size=24, options=0, flags=0, mode=0,
          isexec=1, dirty=0, result=0, cmd=None, user="alice", group="staff", old=None,
          signer=None, issuer=None, md5=None, sha1=None):
    head = struct.pack("<BIQQQQQBBB", options, CODES[kind], 4242, flags, result, size, mode,
                       dirty, isexec, 0)
    def t(v):
        return NULL if v is None else v.encode()
    fields = [t(process), t(target), t(cmd), t(None)] + [NULL] * 6 + [NULL, NULL, t(signer)]
    fields += [t(issuer)] + [NULL] * 5 + [NULL, NULL]
    fields += [t(sha), t(sha1), t(md5), t(None), t(user), t(group), t(old)]
    return head + b"\0".join(fields)


def app_ctl():
    return {
        "exec-allowed": event("exec", "/opt/apps/approved-app", sha=ALLOWED,
                              md5="61a20d6683e3ed37847fd9304925a098"),
        "exec-blocked": event("exec", "/opt/apps/banned-app", sha=BLOCKED, size=22),
        "exec-unknown-lockdown": event("exec", "/home/alice/tool", sha="ab" * 32,
                                       options=0x80 | 0x01),
        "exec-maintenance": event("exec", "/home/alice/new", sha="cd" * 32, options=0x80 | 0x08),
        "exec-no-digest": event("exec", "/usr/local/bin/x", sha=None),
        "exec-vendor-trusted": event("exec", "/srv/vendor/updater", sha="11" * 32),
        "exec-signed": event("exec", "/opt/signed", sha="22" * 32, signer="Example Corp",
                             issuer="Example CA"),
        "exec-user-list": event("exec", "/opt/admin/tool", sha="33" * 32, user="root",
                                group="wheel"),
        "mmap-library": event("mmap", "/usr/lib/libfoo.so.1", sha="44" * 32, mode=4),
        "script-start": event("create_pre", "/home/alice/run.sh", process="/usr/bin/bash",
                              cmd="bash /home/alice/run.sh", sha="55" * 32, isexec=0),
        "python-script": event("create_pre", "/tmp/job.py", process="/usr/bin/python3",
                               cmd="python3 /tmp/job.py", isexec=0),
        "drift-write": event("create_post", "/opt/apps/new-binary", process="/srv/installer",
                             sha="66" * 32, flags=0o1101, dirty=1),
        "drift-close": event("close", "/usr/local/bin/tool", process="/usr/bin/cp",
                             sha="77" * 32, dirty=1),
        "drift-chmod": event("chmod", "/home/alice/bin/run", process="/usr/bin/chmod",
                             mode=0o755, sha="88" * 32),
        "rename": event("rename", "/usr/local/bin/new", old="/usr/local/bin/old",
                        process="/usr/bin/mv", sha="99" * 32),
        "delete": event("delete", "/usr/local/bin/gone", process="/usr/bin/rm"),
        "excluded-cache": event("exec", "/var/cache/app/x", sha="aa" * 32),
        "quarantine": event("exec", "/opt/quarantine/evil", sha="bb" * 32),
        "cached-exec": event("cached", "/opt/apps/approved-app", sha=ALLOWED),
        "null-response": event("exec", "/opt/apps/banned-app", sha=BLOCKED, size=22,
                               options=0x40),
        "all-null": struct.pack("<BIQQQQQBBB", 0, 23, 0, 0, 0, 0, 0, 0, 0, 0),
        "failed-result": event("create_post", "/tmp/f", result=13, dirty=1),
    }


def metrics():
    body = b"0:RunProgram=5\n0:RunAllowedRule=3\n3:Weekly=10\n1:.py=2\n2:.sh=1\n"
    hostile = "0:quote\"back\\slash\x01=1\n3:\xc3\x28 bad utf8=2\n2:=4\n".encode("latin-1")
    out = {}
    for size in (0, 1, 64, 4096, 65535):
        out["size-%d" % size] = struct.pack("<IB", size, 0) + body
    out["null-buffer"] = struct.pack("<IB", 4096, 1) + body
    out["null-size"] = struct.pack("<IB", 4096, 2)
    out["hostile-names"] = struct.pack("<IB", 65535, 0) + hostile
    out["clear-rulesets"] = struct.pack("<IB", 65535, 0) + b"3:Weekly=-1\n3:=-1\n"
    return out


for target, seeds in (("app_ctl", app_ctl()), ("metrics", metrics())):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
