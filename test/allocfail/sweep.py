"""Fails each allocation of a run in turn (n = 1, 2, ... until the run gets
through) and checks every failed run: message 296, exit status 1, the
existing output and log left as they were, no temporary file left beside
them or in /tmp. The runs together touch every engine, the writer and the
log. Prints how many runs and failed allocations it went through.
Usage: sweep.py <romweld built with fail_nth.cpp> <examples directory>"""
import glob, os, shutil, subprocess, sys, tempfile

tool, examples = sys.argv[1], sys.argv[2]
RUNS = [
    ["bootloader.hex", "application.hex", "-FILL=w1:FF@0x1000:0x10FF", "-SERIAL=0001+1@7F00+10r4",
     "-STRING@7F80t00=hi", "-STRPACK@7FA0=ab", "-MASK=7F@0-FF",
     "-FIND=0041@4000-40FF,REPLACE=1122", "-CK=0-FFF@7FC0g1w2",
     "-CK=4000-5FFF@7FC4g-5w4p04C11DB7+FFFFFFFFoFFFFFFFF", "-CK=0-FFF@7FC8g8",
     "-CK=0-FFF@7FD0g7", "-CK=0-FFF@7FE0g10", "-Oout.hex", "-LOGFILE=out.log"],
    ["application.hex", "-FIND=0041@4000-40FF,DELETE", "-CK=4000-40FF@100g5w2p1021",
     "-CK=4000-40FF@120g11", "-FORMAT=INHX16,32", "-BREAK=4800", "-Oout.hex",
     "-LOGFILE=out.log", "-SIZE"],
    ["s100,bootloader.bin", "application.elf", "-FORMAT=SREC,32", "-Oout.hex", "-LOGFILE=out.log"],
    ["bootloader.hex", "application.hex", "-FILL=w1:FF@0:0x60FF", "-FORMAT=BIN", "-Oout.hex"],
]
OLD = b"before the run\n"

def private_dirs():
    return set(glob.glob("/tmp/zk*"))

failures = 0
before = private_dirs()
for args in RUNS:
    work = tempfile.mkdtemp(prefix="romweld-allocfail-")
    for f in glob.glob(os.path.join(examples, "*.*")):
        shutil.copy(f, work)
    n = 0
    while True:
        n += 1
        for name in ("out.hex", "out.log"):
            with open(os.path.join(work, name), "wb") as f:
                f.write(OLD)
        env = dict(os.environ, ROMWELD_FAIL_ALLOC=str(n))
        r = subprocess.run([tool] + args, cwd=work, env=env, capture_output=True)
        if r.returncode == 0:
            break
        failures += 1
        where = "%s, allocation %d" % (" ".join(args), n)
        problems = []
        if r.returncode != 1:
            problems.append("exit status %d" % r.returncode)
        if b"(296) out of memory" not in r.stderr:
            problems.append("no message 296: %r" % r.stderr[-300:])
        for name in ("out.hex", "out.log"):
            with open(os.path.join(work, name), "rb") as f:
                if f.read() != OLD:
                    problems.append(name + " replaced")
        left = [e for e in os.listdir(work) if e.startswith(".romweld-")]
        if left:
            problems.append("temporaries left: %s" % left)
        if problems:
            sys.exit("%s: %s" % (where, "; ".join(problems)))
    with open(os.path.join(work, "out.hex"), "rb") as f:
        if f.read() == OLD:
            sys.exit("%s: the run that got through wrote no output" % " ".join(args))
    shutil.rmtree(work)
    print("%d allocations failed in turn, each ended in message 296: %s" % (n - 1, " ".join(args)))
if private_dirs() - before:
    sys.exit("private directories left: %s" % sorted(private_dirs() - before))
print("%d runs, %d failed allocations, all reported as out of memory" % (len(RUNS), failures))
