"""Makes small changes to src/ and to the catalogue by rule, and names those that no test notices.

Run by scripts/check mutants."""

import concurrent.futures
import glob
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile

CATALOGUE = "include/ZOLSettings.h"
KEYS = re.findall(r'"(?:db|memory)/[^"]*"(?=, )', open(CATALOGUE).read())
FLAGS = {"default": ["-O1"], "asan": ["-O1", "-fsanitize=address,undefined", "-fno-sanitize-recover=all"],
         "tsan": ["-O1", "-fsanitize=thread"]}
TESTS = [["system_data_test"], ["list_test"] + sorted(glob.glob("tests/fuzz/corpus/*")), ["notify_test"], ["faults_test"]]
SECONDS = 20  # a test that takes longer hangs
EFFECT = re.compile(r"^\s+(?!return|throw)(?:delete )?[\w:.>\-]+(?: = [\w:]+)?\(.*;")  # a call, or an assignment of its result


def following(name, names):
    return names[(names.index(name) + 1) % len(names)]


def swap(pattern, change):
    """A rule that changes each match in a line by itself."""
    def rule(lines, i):
        for match in re.finditer(pattern, lines[i].split(" //")[0]):
            new = change[match.group()] if isinstance(change, dict) else change(match)
            yield lines[i][:match.start()] + new + lines[i][match.end():]
    return rule


def drop(pattern):
    """A rule that takes a whole line away."""
    def rule(lines, i):
        if re.search(pattern, lines[i]) and (i == 0 or re.search(r"[;{}]\s*$|//", lines[i - 1])):
            yield ""
    return rule


def exchange(lines, i):
    """Two calls in the wrong order. The order of a log line matters beside what others see, and a relaxed one does not."""
    both = lines[i:i + 2]
    if len(both) == 2 and all(EFFECT.match(line) and line.count("(") == line.count(")") for line in both):
        seen = all("dlog_print" not in line for line in both) or any("vconf_" in line for line in both)
        same_depth = len({len(line) - len(line.lstrip()) for line in both}) == 1
        if seen and same_depth and not any("memory_order_relaxed" in line for line in both):
            yield both[1] + both[0]


RULES = {
    "swapped key": swap(r'"(?:db|memory)/[^"]*"(?=, )', lambda m: following(m.group(), KEYS)),
    "lost log line": drop(r"^\s*dlog_print\(.*\);"),
    "dropped lock": drop(r"lock_guard|unique_lock|\block\(\);|unlock\(\);"),
    "dropped call": drop(r"^\s+(?!dlog_print)[\w:.>\-]+(?<!\block)(?<!unlock)\([^{]*\);"),
    "dropped assignment": drop(r"^\s+[\w.>\-\[\]]+ = [^{]*;|^\s+(\+\+|--)[\w.>\-]+;"),
    "inverted flag": swap(r"\b(?:true|false)\b(?=[;,)])", {"true": "false", "false": "true"}),
    "inverted result": swap(r"(?<=return )[01](?=;)", {"0": "1", "1": "0"}),
    "inverted comparison": swap(r"(?<= )(?:==|!=)(?= )", {"==": "!=", "!=": "=="}),
    "moved bound": swap(r"(?<= )(?:<=|>=|<|>)(?= )", {"<=": "<", ">=": ">", "<": "<=", ">": ">="}),
    "swapped and, or": swap(r"&&(?= )|\|\|", {"&&": "||", "||": "&&"}),
    "inverted condition": swap(r"(?<=if \()!", lambda m: ""),
    "wrong direction": swap(r"\+\+(?=\w)|--(?=\w)", {"++": "--", "--": "++"}),
    "wrong order": exchange,
}


def mutants():
    for path in sorted(glob.glob("src/**/*.cpp", recursive=True)) + [CATALOGUE]:
        lines = open(path).readlines()
        seen = set()
        for i, line in enumerate(lines):
            if re.match(r"\s*(//|#|using|///)", line):
                continue
            for name, rule in RULES.items():
                for new in rule(lines, i):
                    after = lines[:i] + [new] + lines[i + (2 if rule is exchange else 1):]
                    text = "".join(after)
                    if text not in seen:
                        seen.add(text)
                        yield name, path, i + 1, line.strip(), new.strip().replace("\n", " "), text


def run(command, **options):
    try:
        return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=SECONDS, **options).returncode
    except subprocess.TimeoutExpired:
        return "hang"


def build(folder, preset, path):
    """Builds the library with the file at the path from the folder, and all others as they are."""
    flags = ["g++", "-std=c++17", "-g", "-fPIC", "-w", f"-I{folder}/include", f"-I{folder}/src",
             "-Iplatform/vconf/include", "-Iplatform/dlog/include"] + FLAGS[preset]
    objects = []
    for unchanged in sorted(glob.glob("src/**/*.cpp", recursive=True)):
        # What is not changed is compiled once.
        changed = path in (unchanged, CATALOGUE)
        source = os.path.join(folder, unchanged)
        target = os.path.join(folder if changed else shared, preset + "-" + os.path.basename(source) + ".o")
        if changed or not os.path.exists(target):
            if run(flags + ["-c", source, "-o", target]) != 0:
                return False
        objects.append(target)
    library = os.path.join(folder, "libcapi-zol-tv.so.1")
    return run(flags + ["-shared"] + objects + [f"-Lbuild/{preset}/lib", "-lvconf", "-ldlog",
                                               "-Wl,--version-script,src/exports.map",
                                               "-Wl,--dynamic-list,src/interposable.list",
                                               "-Wl,-soname,libcapi-zol-tv.so.1", "-o", library]) == 0


def notices(preset, folder):
    for test in TESTS:
        environment = dict(os.environ, LD_LIBRARY_PATH=f"{folder}:{os.getcwd()}/build/{preset}/lib", ZOL_DLOG="off")
        # A test that runs wild fills the memory; it does so in the plain build, which comes first.
        limit = (2000 << 20,) * 2 if preset == "default" else (resource.RLIM_INFINITY,) * 2
        # A group of its own, so that children of a hanging test end with it.
        process = subprocess.Popen([f"build/{preset}/bin/{test[0]}"] + test[1:], env=environment, start_new_session=True,
                                   preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, limit),
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            code = process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            code = "hang"
        try:
            os.killpg(process.pid, 9)
        except ProcessLookupError:
            pass
        process.wait()
        if code != 0:
            return True
    return False


def copy_sources(folder):
    for part in ("src", "include"):
        shutil.copytree(part, os.path.join(folder, part))


def survives(mutant):
    """None when it does not compile, else whether no test notices."""
    path, text = mutant[1], mutant[5]
    folder = tempfile.mkdtemp(dir=scratch)
    try:
        copy_sources(folder)
        open(os.path.join(folder, path), "w").write(text)
        for preset in FLAGS:
            if not build(folder, preset, path):
                return None
            if notices(preset, folder):
                return False
        return True
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def main():
    global scratch, shared
    part, whole = (int(number) for number in sys.argv[1].split("/"))
    chosen = list(mutants())[part - 1::whole]
    with tempfile.TemporaryDirectory() as scratch:
        shared = os.path.join(scratch, "shared")
        os.mkdir(shared)
        copy_sources(shared)
        for preset in FLAGS:  # the unchanged library must pass, and its objects serve all
            if not build(shared, preset, None) or notices(preset, shared):
                sys.exit(f"the tests do not pass on the unchanged library, preset {preset}")
        os.remove(os.path.join(shared, "libcapi-zol-tv.so.1"))
        tried = noticed = 0
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            for mutant, survived in zip(chosen, pool.map(survives, chosen)):
                if survived is None:
                    continue
                tried += 1
                noticed += not survived
                if survived:
                    print("UNNOTICED  {}, {}:{}\n  - {}\n  + {}".format(*mutant[:5]), flush=True)
    print(f"{tried} changes, {noticed} noticed, {tried - noticed} not; {len(chosen) - tried} more did not compile")
    sys.exit(tried - noticed > 2)


main()
