"""Runs the lines of gnu_tar.txt with GNU tar and with mvtar, and prints each line that they do differently.

usage: gnu_tar.py MVTAR MANPAGE SCRATCH [PART]

A line is a shell's: $T is the command. It is run in a copy of the same directory for each of the two. What is then
compared is the part's: the members of a.tar, the tree "out", or what was printed; and always the status. A line that
ends in " # TEXT" has to differ, and TEXT has to stand under DIFFERENCES FROM GNU TAR.
"""
import hashlib, os, re, shutil, stat, subprocess, sys, tarfile

mvtar, manual, scratch = sys.argv[1:4]
only = sys.argv[4:]
table = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gnu_tar.txt")


def members(path):
    """What Python makes of an archive, member by member."""
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        return []
    found = []
    with tarfile.open(path, errors="surrogateescape") as archive:
        for m in archive:
            # A "./" in front is the one difference that would be in every second line.
            m.name, m.linkname = (re.sub(r"^(\./+)+", "", name) for name in (m.name, m.linkname))
            if m.name == ".":
                continue
            data = archive.extractfile(m).read() if m.isreg() else b""
            kind = b"0" if m.isreg() else m.type
            found.append((m.name, kind, oct(m.mode), m.uid, m.gid, m.uname, m.gname, m.mtime, m.linkname,
                          m.devmajor, m.devminor, len(data), hashlib.md5(data).hexdigest()[:6]))
    return found


def tree(root):
    """What lies below a directory. Times of the last hour are "now", as they are those of this run."""
    found, names = [], {}
    for here, dirs, files in os.walk(root):
        for name in sorted(dirs + files):
            path = os.path.join(here, name)
            s = os.lstat(path)
            kind = stat.S_IFMT(s.st_mode)
            what = os.readlink(path) if kind == stat.S_IFLNK else ""
            if kind == stat.S_IFREG:
                with open(path, "rb") as file:
                    what = hashlib.md5(file.read()).hexdigest()[:6]
            mode = "" if kind == stat.S_IFLNK else oct(s.st_mode)
            isnew = abs(s.st_mtime - now) < 3600
            same = names.setdefault(s.st_ino, os.path.relpath(path, root))
            found.append((os.path.relpath(path, root), oct(kind), mode, s.st_uid, s.st_gid, s.st_rdev, s.st_size * (kind != stat.S_IFDIR),
                          "now" if isnew else s.st_mtime_ns, what, same if kind == stat.S_IFREG else ""))
    return sorted(found)


RESULTS = {
    "members": lambda dir, out: sorted(members(dir + "/a.tar")),
    "order": lambda dir, out: [m[0] for m in members(dir + "/a.tar")],
    "tree": lambda dir, out: tree(dir + "/out"),
    "sources": lambda dir, out: tree(dir + "/t"),
    "printed": lambda dir, out: out,
    # GNU tar's sentences are its own: which files are told of is what counts.
    "named": lambda dir, out: sorted({re.sub(r"^(\S*tar: )?([^:]*?)/?:.*", r"\2", line) for line in out.split("\n")
                                      if not re.search("not everything|Exiting|not recoverable", line)}),
}


def run(script, command):
    """Always in the same directory, whose name may be in what is compared. Of a build that lacks a codec nothing."""
    dir = scratch + "/run"
    subprocess.run(["chmod", "-Rf", "u+rwx", dir])  # what a line has closed, only its owner can open
    shutil.rmtree(dir, ignore_errors=True)
    subprocess.run(["cp", "-a", scratch + "/start", dir], check=True)
    done = subprocess.run(["bash", "-c", "T=" + command + "; " + script], cwd=dir, stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=20, env=dict(os.environ, LC_ALL="C.UTF-8", TZ="UTC"),
                          errors="surrogateescape")
    if "This build has no " in done.stdout + done.stderr:
        return None, ""
    # Wrong usage has a status of its own here.
    status = 2 if done.returncode == 64 else done.returncode
    return [status, RESULTS[part](dir, done.stdout)], done.stderr


with open(table, errors="surrogateescape") as file:
    lines = [line.rstrip("\n") for line in file]
with open(manual) as file:
    page = re.sub(r"\s+", " ", re.sub(r"(?m)^\.\w+ ?|\\f.|\\&", "", file.read().split(".SH DIFFERENCES")[1].replace(r"\-", "-").replace(r"\(aq", "'")))

shutil.rmtree(scratch, ignore_errors=True)
os.makedirs(scratch + "/start")
now = 0
part, count = None, 0
setup = []
for number, line in enumerate(lines, 1):
    if not line or line.startswith("#"):
        continue
    if re.match(r"\[[a-z]+\] ", line):
        part, _, start = line[1:].partition("] ")
        if part != "start" and setup:
            subprocess.run(["bash", "-ec", "\n".join(setup)], cwd=scratch + "/start", check=True)
            setup, now = [], os.stat(scratch + "/start/now").st_mtime
        continue
    if part == "start":
        setup.append(line)
        continue
    if only and part not in only and str(number) not in only:
        continue
    if "chown " in line and os.geteuid() != 0:
        continue
    words, _, difference = line.partition(" # ")
    script = start.replace("%", words)
    (theirs, their_words), (ours, our_words) = run(script, "tar"), run(script, mvtar)
    if not ours:
        continue
    count += 1
    if difference and difference not in page:
        print(f"{number}: the manual page does not say: {difference}")
    if bool(difference) != (theirs != ours):
        print(f"{number}: {script}: {'no difference any more' if difference else 'differs'}")
        print("  status", theirs[0], ours[0])
        for sign, these, those in (("-", theirs[1], ours[1]), ("+", ours[1], theirs[1])):
            some = [x for x in these if x not in those] or [x for x in these if these.count(x) != those.count(x)]
            print(*(f"  {sign} {x}" for x in some[:4]), sep="\n")
        print("  ", their_words[-200:], our_words[-200:])
print(f"{count} lines", file=sys.stderr)
