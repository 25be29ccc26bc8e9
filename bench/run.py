# SPDX-License-Identifier: GPL-2.0-or-later
"""The measurements of bench/run, which builds what is measured here."""
import argparse, json, lzma, os, re, shutil, statistics, subprocess, sys, tempfile, time

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.environ.get("QUILLET_BUILD") or os.path.join(HERE, "..", "build-bench")

def program(name): return os.path.join(BUILD, name)

def timed(command, **more):
    """Seconds of the whole process, its peak memory in MiB, its standard output."""
    begin = time.perf_counter()
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)
    out, err = process.communicate()
    seconds = time.perf_counter() - begin
    if process.returncode != 0: sys.exit("%s ended with %d: %s" % (command[0], process.returncode, err.decode()[-300:]))
    return seconds, out.decode("utf-8", "replace")

def peak_memory(command, **more):
    """Peak resident memory in MiB of a command, run once for this alone."""
    script = "import resource, subprocess, sys; subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL); print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)"
    return int(subprocess.run([sys.executable, "-c", script] + command, capture_output=True, check=True, **more).stdout) / 1024

def instructions(command, **more):
    """How many instructions a command takes."""
    tool = ["valgrind", "--tool=cachegrind", "--cache-sim=no", "--cachegrind-out-file=/dev/null"]
    said = subprocess.run(tool + command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=True, **more).stderr.decode()
    return int(re.search(r"I +refs: +([\d,]+)", said)[1].replace(",", ""))

def raw_read(image, work):
    """Seconds of a sequential read of $MFT and $SDS, the floor of every walk."""
    begin = time.perf_counter()
    subprocess.run(["ntfscat", "-i", "0", image], stdout=subprocess.DEVNULL, check=True)
    subprocess.run(["ntfscat", "-a", "0x80", "-n", "$SDS", "-i", "9", image], stdout=subprocess.DEVNULL, check=True)
    return time.perf_counter() - begin

def benchmarks(name, hive):
    env = dict(os.environ, **({"QUILLET_BENCH_HIVE": hive} if hive else {}))
    out = subprocess.run([program(name), "--benchmark_format=json"], capture_output=True, check=True, env=env).stdout
    return [b for b in json.loads(out)["benchmarks"] if not b.get("error_occurred")]

def engine(hive):
    rate = {}
    for b in benchmarks("engine_bench", hive):
        name, content = b["name"].split("/content:")
        rate[name, int(content)] = b["bytes_per_second"]
    print("search in 1 MiB blocks (GB/s; times the speed of memchr at each anchor, of memmem)")
    for content, words in enumerate(("random bytes", "zeros", "a real hive")):
        if ("replaceInData", content) not in rate: continue
        mine, chr_, mem = (rate[n, content] / 1e9 for n in ("replaceInData", "plainMemchr", "plainMemmem"))
        print("  %-13s %6.2f   %5.2f x memchr (%.2f)   %5.2f x memmem (%.2f)" % (words, mine, mine / chr_, chr_, mine / mem, mem))

def key_of(sid):
    """The 12 bytes by which a machine SID differs from others, in hexadecimal."""
    return b"".join(int(n).to_bytes(4, "little") for n in sid.split("-")[4:7]).hex()

def walks(files, repeat, work):
    image = os.path.join(work, "big.img")
    seconds, said = timed([program("quillet-offline"), "sample", image, "--files", str(files), "--descriptors", "200"])
    print("image: %s" % said.strip().replace(work + "/", ""))
    old = next(w for w in said.replace(",", " ").split() if w.startswith("S-1-5-21-"))
    measure(image, old, int(next(w for w in said.split() if w.isdigit())), repeat, work)
    os.remove(image)

def measure(image, old, entries, repeat, work):
    """Dry and first rewriting runs over an image, beside other ways."""
    copy = os.path.join(work, "copy.img")
    env = dict(os.environ, QUILLET_SYSTEM=image)
    dry, audit, floor = [], [], []
    for _ in range(repeat):
        dry.append(timed([program("quillet"), "-f", "-s"], env=env)[0])
        audit.append(timed(["ntfssecaudit", "-ar", image])[0])
        floor.append(raw_read(image, work))
    d, a, f = map(statistics.median, (dry, audit, floor))
    print("dry run      %.3f s, %d k entries/s: %.1f x ntfssecaudit -ar (%.3f s); raw read of $MFT and $SDS %.3f s; peak %.0f MiB"
          % (d, entries / d / 1000, a / d, a, f, peak_memory([program("quillet"), "-f", "-s"], env=env)))
    if shutil.which("valgrind"):
        never, always = (instructions([program("quillet"), "-f", "-s"], env=dict(env, QUILLET_PROGRESS=w)) for w in ("never", "always"))
        print("  progress     %.2f %% more instructions than the dry run's %d million" % (100 * (always - never) / never, never / 1e6))
    mine, plain = [], []
    env["QUILLET_SYSTEM"] = copy
    def fresh():
        shutil.copyfile(image, copy)
        os.sync()  # or the copy's own pages would count as the run's
    for _ in range(repeat):
        fresh()
        mine.append(timed([program("quillet"), "-f"], env=env)[0])
        fresh()
        plain.append(timed([program("rewrite_by_path"), copy, key_of(old), key_of("S-1-5-21-1-2-3")])[0])
    m, p = statistics.median(mine), statistics.median(plain)
    fresh()
    print("rewriting    %.3f s, %d k entries/s: %.1f x rewriting by path (%.3f s); peak %.0f MiB"
          % (m, entries / m / 1000, p / m, p, peak_memory([program("quillet"), "-f"], env=env)))
    transaction(image, work, repeat)
    if shutil.which("strace"):
        fresh()
        print("  rewriting    %s" % counted([program("quillet"), "-f"], copy, env=env))
    os.remove(copy)

def transaction(image, work, repeat):
    """What the commit adds to a first rewriting run, beside a plain write of the same bytes in the disk's order and its
    flush. The run without one is refused at its commit, for something bears the name that its undo file has at first."""
    copy, taken = os.path.join(work, "copy.img"), os.path.join(work, "taken")
    os.makedirs(taken + ".quillet-part", exist_ok=True)
    def run(**more):
        shutil.copyfile(image, copy)
        os.sync()
        begin = time.perf_counter()
        status = subprocess.run([program("quillet"), "-f", "-q"], env=dict(os.environ, QUILLET_SYSTEM=copy, **more), capture_output=True).returncode
        if (status == 0) != (not more): sys.exit("quillet ended with %d" % status)
        return time.perf_counter() - begin
    def changed():
        with open(image, "rb") as old, open(copy, "rb") as new:
            for at in range(0, os.path.getsize(image), 1 << 10):
                a, b = old.read(1 << 10), new.read(1 << 10)
                if a != b: yield at, b
    run()
    stretches = []
    for at, data in changed():
        if stretches and stretches[-1][0] + len(stretches[-1][1]) == at: stretches[-1][1].extend(data)
        else: stretches.append((at, bytearray(data)))
    def plain():
        shutil.copyfile(image, copy)
        os.sync()
        begin = time.perf_counter()
        with open(copy, "r+b", buffering=0) as disk:
            for at, data in stretches: os.pwrite(disk.fileno(), data, at)
            os.fdatasync(disk.fileno())
        return time.perf_counter() - begin
    whole, refused, floor = (statistics.median(times) for times in zip(*[(run(), run(QUILLET_UNDO=taken), plain()) for _ in range(repeat)]))
    print("commit       %.3f s of a run's %.3f s, for %d MiB in %d places: %.1f x a plain write of them and its flush (%.3f s)"
          % (whole - refused, whole, sum(len(data) for _, data in stretches) >> 20, len(stretches), (whole - refused) / floor, floor))

def counted(command, image, **more):
    """How many reads and writes of an image a command makes, and how many of either begin before the end of the last."""
    trace = image + ".trace"
    subprocess.run(["strace", "-f", "-y", "-e", "trace=pread64,pwrite64", "-o", trace] + command, capture_output=True, check=True, **more)
    ends, counts, back = {"r": 0, "w": 0}, {"r": 0, "w": 0}, {"r": 0, "w": 0}
    for line in open(trace, errors="replace"):
        call = re.search(r'p(read|write)64\(\d+<%s>, .*, (\d+), (\d+)\) += (\d+)$' % re.escape(image), line)
        if not call: continue
        kind, offset, done = call.group(1)[0], int(call.group(3)), int(call.group(4))
        counts[kind] += 1
        back[kind] += offset < ends[kind]
        ends[kind] = offset + done
    os.remove(trace)
    return "%d reads (%d of them back), %d writes (%d back)" % (counts["r"], back["r"], counts["w"], back["w"])

def make_sample(image, size, work, *scattered):
    """A practice system, and what scattered_image adds to it; gives its machine SID and the number of entries."""
    said = timed([program("quillet-offline"), "sample", image, "--files", "20", "--size", size])[1]
    words = said.replace(",", " ").split()
    old, entries = next(w for w in words if w.startswith("S-1-5-21-")), int(words[-2])
    return old, entries + int(timed([program("scattered_image"), image, old] + [str(n) for n in scattered])[1].split()[0])

def scattered(directories, repeat, work, slow):
    """Files whose MFT records lie in another order than the tree: dry and rewriting runs."""
    image = os.path.join(work, "scattered.img")
    old, entries = make_sample(image, "%dM" % (256 + directories * 21 * 4 // 1024), work, directories, 20, 200)
    print("scattered    %d entries in %d directories" % (entries, directories))
    measure(image, old, entries, repeat, work)
    env = dict(os.environ, QUILLET_SYSTEM=image)
    if shutil.which("strace"): print("  dry run      %s" % counted([program("quillet"), "-f", "-s"], image, env=env))
    if slow: delayed(image, work)
    os.remove(image)

def delayed(image, work):
    """The dry run of an image that a server gives out, each answer 5 ms late."""
    if not shutil.which("nbdkit"): return print("delayed      left out: it needs nbdkit")
    socket = os.path.join(work, "delayed.socket")
    server = subprocess.Popen(["nbdkit", "-f", "-U", socket, "--filter=delay", "file", image, "delay-read=5ms"], stderr=subprocess.DEVNULL)
    try:
        while not os.path.exists(socket): time.sleep(0.05)
        env = dict(os.environ, QUILLET_SYSTEM="nbd+unix\\:///?socket=" + socket)
        begin = time.perf_counter()
        done = subprocess.run([program("quillet"), "-f", "-s"], env=env, capture_output=True)
        if done.returncode != 0: return print("delayed      left out: this build opens no nbd addresses")
        print("delayed      %.1f s for a dry run through a server whose answers take 5 ms" % (time.perf_counter() - begin))
    finally:
        server.terminate(); server.wait()

def growth(work):
    """Time and memory of dry and rewriting runs over directories, descriptors and hives of several sizes."""
    rows = [("%d files in a directory" % n, (1, n, 200)) for n in (3000, 300000)]
    rows += [("%d descriptors" % n, (max(1, n // 20), 20, n)) for n in (1000, 20000, 200000)]
    image = os.path.join(work, "growth.img")
    for what, shape in rows:
        make_sample(image, "%dM" % (256 + shape[0] * shape[1] * 5 // 1024), work, *shape)
        grown(image, what, ["-f"], work)
    for keys in (40000, 400000, 2000000):
        said = timed([program("quillet-offline"), "sample", image, "--files", "20", "--size", "%dM" % (96 + keys // 2000)])[1]
        hive = os.path.join(work, "SOFTWARE")
        with open(hive, "wb") as out: subprocess.run(["ntfscat", image, "Windows/System32/config/SOFTWARE"], stdout=out, check=True)
        timed([program("many_keys"), hive, next(w for w in said.replace(",", " ").split() if w.startswith("S-1-5-21-")), str(keys)])
        subprocess.run(["ntfscp", "-f", image, hive, "Windows/System32/config/SOFTWARE"], check=True, capture_output=True)
        grown(image, "%d keys, %d MiB" % (keys, os.path.getsize(hive) >> 20), [], work)

def grown(image, what, options, work):
    copy, command = os.path.join(work, "growth-copy.img"), [program("quillet"), "-q"] + options
    def fresh():
        shutil.copyfile(image, copy)
        os.sync()
    dry, wet = dict(os.environ, QUILLET_SYSTEM=image), dict(os.environ, QUILLET_SYSTEM=copy)
    print("growth       %-28s dry %6.3f s, %3.0f MiB" % (what, min(timed(command + ["-s"], env=dry)[0] for _ in range(3)), peak_memory(command + ["-s"], env=dry)), end="")
    fresh()
    seconds = timed(command, env=wet)[0]
    fresh()
    print("   rewriting %6.3f s, %3.0f MiB" % (seconds, peak_memory(command, env=wet)))
    os.remove(image); os.remove(copy)

def registry(hive, repeat, work):
    """A dry run over a practice system with a real SYSTEM hive, beside a plain dump of that hive."""
    image = os.path.join(work, "registry.img")
    timed([program("quillet-offline"), "sample", image, "--files", "20", "--size", "96M"])
    subprocess.run(["ntfscp", "-f", image, hive, "Windows/System32/config/SYSTEM"], check=True, capture_output=True)
    env = dict(os.environ, QUILLET_SYSTEM=image)
    mine, plain = [], []
    for _ in range(repeat):
        mine.append(timed([program("quillet"), "-s", "-q"], env=env)[0])
        plain.append(timed(["hivexml", hive])[0])
    m, p = statistics.median(mine), statistics.median(plain)
    print("registry     %.3f s for a dry run with the hive: %.1f x hivexml of it (%.3f s)" % (m, p / m, p))
    for b in benchmarks("sweep_bench", hive):
        flags = int(b["name"].split("flags:")[1])
        print("  sidReplaceInKey, %-31s %4d k keys/s" % ("descriptors, values and names:" if flags & 3 else "descriptors:", b["items_per_second"] / 1000))

def main():
    a = argparse.ArgumentParser(description=__doc__)
    a.add_argument("--files", type=int, default=100000); a.add_argument("--repeat", type=int, default=5)
    a.add_argument("--quick", action="store_true", help="one tenth of the files, no growth")
    opt = a.parse_args()
    work = tempfile.mkdtemp(prefix="quillet-bench-")
    shared = os.environ.get("QUILLET_SHARED") or os.path.join(HERE, "..", "..", "shared")
    packed, hive = os.path.join(shared, "hives", "machine", "SYSTEM.xz"), None
    try:
        if os.path.exists(packed) and shutil.which("hivexml"):
            hive = os.path.join(work, "SYSTEM")
            with lzma.open(packed) as f, open(hive, "wb") as out: shutil.copyfileobj(f, out)
        engine(hive)
        if hive: registry(hive, opt.repeat, work)
        else: print("registry     left out: it needs the real hives of QUILLET_SHARED, and hivexml")
        files = opt.files // 10 if opt.quick else opt.files
        walks(files, opt.repeat, work)
        scattered(files // 20, opt.repeat, work, True)
        if not opt.quick:
            scattered(files // 2, 3, work, False)
            growth(work)
    finally: shutil.rmtree(work)

main()
