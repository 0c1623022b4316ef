#!/usr/bin/env python3
"""Mutation check: plants each fault of tools/mutation/ in a scratch copy of
the tree, rebuilds, runs every CTest test and tells which tests noticed.

    scripts/mutation.py [--check] [--quick] [--resume] [-j N] [PATCH ...]

PATCH names some of the faults (a file name or a part of one); all of them
by default. --check only tells which faults still apply. --quick stops
each fault's run at its first failing test: the score in a fraction of the
time, without the tables of which test alone kills what. The scratch copy,
its build and its Wine prefix live in build-mutation/ (or
$VXTYPES32_MUTATION_DIR); the report goes to stdout and results.txt there.
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
PATCHES = ROOT / 'tools' / 'mutation'
WORK = Path(os.environ.get('VXTYPES32_MUTATION_DIR', ROOT / 'build-mutation')).resolve()
SRC, BUILD, RESULTS = WORK / 'src', WORK / 'build', WORK / 'mutants'
# "  3/160 Test  #12: name ....   Passed    1.20 sec" or "...***Failed ..."
RESULT_LINE = re.compile(r'^\s*\d+/\d+ Test\s+#\d+: (\S+) ')


def run(command, log=None, timeout=None, **kwargs):
    """The command's exit status, or None when it ran past the timeout and
    was stopped with everything it started."""
    with open(log, 'w') if log else open(os.devnull, 'w') as out:
        process = subprocess.Popen(command, stdout=out, stderr=subprocess.STDOUT, start_new_session=True, **kwargs)
        try:
            return process.wait(timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            return None


def sync_tree():
    """The working tree, tracked and untracked files alike, copied into SRC;
    only files whose bytes differ are written, so the build stays incremental."""
    listed = subprocess.run(['git', '-C', ROOT, 'ls-files', '-co', '--exclude-standard', '-z'],
                            capture_output=True, check=True).stdout.decode().split('\0')
    wanted = {name for name in listed if name and (ROOT / name).is_file()}
    for name in wanted:
        source, target = ROOT / name, SRC / name
        if not target.is_file() or source.read_bytes() != target.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, target)
            shutil.copymode(source, target)
    for target in SRC.rglob('*'):
        if target.is_file() and str(target.relative_to(SRC)) not in wanted:
            target.unlink()


def patch(path, *options):
    with open(path) as p:
        return run(['patch', '-p1', '-s', '-f', '--fuzz=0', '--no-backup-if-mismatch', '-d', SRC, *options],
                   stdin=p) == 0


def description(path):
    return path.read_text().splitlines()[0].strip()


def prefixes():
    return [p for p in (*BUILD.glob('wineprefix*'), *BUILD.glob('*/wineprefix')) if p.is_dir()]


def stop_wine():
    for prefix in prefixes():
        run(['wineserver', '-k'], env=dict(os.environ, WINEPREFIX=str(prefix)))


def registries(save):
    """The prefixes' registries as they were after the clean run, so that no
    fault leaves a registration behind for the next one."""
    for reg in (reg for prefix in prefixes() for reg in prefix.glob('*.reg')):
        copy = WORK / 'registry' / reg.relative_to(BUILD)
        if save:
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(reg, copy)
        elif copy.exists():
            shutil.copyfile(copy, reg)


# What makes the release: a fault here is judged by the release's tests
# too, which take minutes each; other faults by the rest of the suite.
RELEASE_SOURCES = re.compile(r'^\+\+\+ b/(installer/|tools/(gen_installer|gen_idl|make_installer_rows|pack_)|'
                             r'cmake/kit|scripts/package|tests/(installer|kit)/)', re.M)


def touches_release(path):
    return bool(RELEASE_SOURCES.search(path.read_text()))


def ctest(tree, jobs, cap, log, first_failure=False, release=True):
    """Each test's outcome in the tree, True for passed; a run past the cap
    is cut short. Without release, the tests labelled so are left out."""
    options = (['--stop-on-failure'] if first_failure else []) + ([] if release else ['-LE', 'release'])
    finished = run(['ctest', '--test-dir', tree, '-j', str(jobs), '--timeout', '300', *options], log=log,
                   timeout=cap) is not None
    stop_wine()
    outcomes = {}
    for line in Path(log).read_text(errors='replace').splitlines():
        m = RESULT_LINE.match(line)
        if m and not re.search(r'Disabled|Skipped|Not Run', line):
            outcomes[m.group(1)] = ' Passed ' in line
    return outcomes, finished


def compile_killers(log):
    """The test sources that failed to compile, when nothing else did: the
    product built and a compile-time test refused it."""
    failing = set(re.findall(r'/src/(\S+?):\d+(?::\d+)?: (?:fatal )?error', Path(log).read_text(errors='replace')))
    return sorted('compile:' + f for f in failing) if all(f.startswith('tests/') for f in failing) else []


def test_files():
    """Which file each test comes from: GoogleTest suites by their TEST
    lines, the others by name."""
    owner = {'register_dll': 'tests/CMakeLists.txt', 'fuzz_dispatch': 'tests/robustness/fuzz_dispatch.cpp',
             'dll_imports_and_exports': 'tests/check_dll_tables.sh',
             'release_package_is_reproducible': 'tests/check_reproducible_package.sh'}
    for source in (ROOT / 'tests').rglob('*.cpp'):
        for suite in re.findall(r'^\s*TEST(?:_F|_P)?\(\s*(\w+)\s*,', source.read_text(), re.M):
            owner.setdefault(suite, str(source.relative_to(ROOT)))

    def file_of(test):
        if test.startswith('compile:'):
            return test[len('compile:'):]
        if test.startswith('script/'):
            return 'tests/scripts/' + test[len('script/'):]
        parts = test.split('/')  # Suite.Case, or Instance/Suite.Case/N
        return owner.get(test, owner.get((parts[1] if len(parts) > 2 else parts[0]).split('.')[0], '?'))
    return file_of


def report(mutants, baseline, elapsed, quick):
    file_of = test_files()
    lines = []
    say = lines.append
    stale = [m for m in mutants if m['outcome'] == 'stale']
    judged = [m for m in mutants if m['outcome'] != 'stale']
    killed = [m for m in judged if m['outcome'] != 'survived']
    by_build = [m for m in judged if m['outcome'] == 'build']
    say('killed %d of %d' % (len(killed), len(judged)))
    say('  by the build: %d; by tests: %d; stale (no longer apply): %d' %
        (len(by_build), len(killed) - len(by_build), len(stale)))
    say('  run time: %d min (the faults alone: %d min)' % (round(elapsed / 60),
                                                        round(sum(m.get('seconds', 0) for m in mutants) / 60)))
    failing = sorted(t for t, ok in baseline.items() if not ok)
    if failing:
        say('tests failing without any fault (ignored): ' + ', '.join(failing))
    say('')
    say('survivors:')
    for m in judged:
        if m['outcome'] == 'survived':
            say('  %s: %s' % (m['name'], m['description']))
    for m in stale:
        say('  stale %s: %s' % (m['name'], m['description']))
    say('')
    say('faults and their killers:')
    for m in judged:
        who = 'the build' if m['outcome'] == 'build' else ', '.join(m['killers']) or '-'
        say('  %-34s %s%s' % (m['name'], who, '' if m['finished'] else ' (run cut short)'))
    if quick:
        say('(a quick run: the killers are the tests that failed before the run stopped)')
        return '\n'.join(lines) + '\n'
    unique = {t: 0 for t in baseline}
    unique_files, any_files = {}, {}
    for m in judged:
        for f in {file_of(t) for t in m['killers']}:
            any_files[f] = any_files.get(f, 0) + 1
        if len(m['killers']) == 1:
            unique[m['killers'][0]] = unique.get(m['killers'][0], 0) + 1
        files = {file_of(t) for t in m['killers']}
        if len(files) == 1:
            f = files.pop()
            unique_files[f] = unique_files.get(f, 0) + 1
    say('')
    say('faults each test alone kills (tests not listed kill none alone):')
    for t in sorted(unique):
        if unique[t]:
            say('  %3d  %s' % (unique[t], t))
    say('')
    say('faults each test file kills alone, and at all:')
    for f in sorted({file_of(t) for t in unique}):
        say('  %3d %3d  %s' % (unique_files.get(f, 0), any_files.get(f, 0), f))
    say('')
    nothing = [t for t in sorted(baseline) if not unique[t] and baseline[t]]
    say('tests that alone kill nothing (%d of %d):' % (len(nothing), sum(baseline.values())))
    for t in nothing:
        say('  ' + t)
    return '\n'.join(lines) + '\n'


def still_killing(m, baseline):
    """A recorded outcome as today's suite has it: a test dropped since then
    kills nothing, and a fault only such tests killed survives."""
    kept = [t for t in m['killers'] if t in baseline or t.startswith('compile:')]
    if m['killers'] and not kept:
        m['outcome'] = 'survived'
    m['killers'] = kept
    return m


def judge(p, tree, args, baseline, cap):
    """Plants one fault, rebuilds, runs the suite and takes the fault out again."""
    m = {'name': p.stem, 'description': description(p), 'killers': [], 'finished': True}
    if not patch(p, '--dry-run'):
        m['outcome'] = 'stale'
    else:
        patch(p)
        build_log = RESULTS / (p.stem + '.build.log')
        if run(['cmake', '--build', tree, '-j', str(args.jobs)], log=build_log) != 0:
            m['killers'] = compile_killers(build_log)
            m['outcome'] = 'tests' if m['killers'] else 'build'
        else:
            outcomes, m['finished'] = ctest(tree, args.jobs, cap, RESULTS / (p.stem + '.log'), args.quick,
                                           touches_release(p))
            m['killers'] = sorted(t for t, ok in outcomes.items() if not ok and baseline.get(t))
            m['outcome'] = 'tests' if m['killers'] or not m['finished'] else 'survived'
        if not patch(p, '-R'):
            sync_tree()
        registries(save=False)
    return m


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    parser.add_argument('patches', nargs='*', help='faults to plant (names or parts of names); all by default')
    parser.add_argument('--check', action='store_true', help='only tell which faults still apply')
    parser.add_argument('--quick', action='store_true', help="stop each fault's run at its first failing test")
    parser.add_argument('--resume', action='store_true', help='keep the outcomes of faults already run')
    parser.add_argument('-j', '--jobs', type=int, default=os.cpu_count())
    args = parser.parse_args()

    patches = sorted(PATCHES.glob('*.patch'))
    if args.patches:
        patches = [p for p in patches if any(s in p.name for s in args.patches)]
    if not patches:
        sys.exit('no fault matches')
    SRC.mkdir(parents=True, exist_ok=True)
    RESULTS.mkdir(parents=True, exist_ok=True)
    sync_tree()
    if args.check:
        stale = [p for p in patches if not patch(p, '--dry-run')]
        for p in stale:
            print('stale %s: %s' % (p.name, description(p)))
        print('%d of %d faults apply' % (len(patches) - len(stale), len(patches)))
        sys.exit(1 if stale else 0)

    started = time.time()
    # The faults are judged by the suite of the first platform this host
    # builds (both trees run the same tests).
    listing = subprocess.run([SRC / 'scripts' / 'platforms.sh'], env=dict(os.environ, VXTYPES32_BUILD=str(BUILD)),
                             capture_output=True, text=True)
    if listing.returncode != 0:
        sys.exit(listing.stderr.strip())
    platform, tree = listing.stdout.splitlines()[0].split(' ', 1)
    print('judged by the %s tree' % platform, flush=True)
    env = dict(os.environ, VXTYPES32_BUILD=str(BUILD), VXTYPES32_PLATFORMS=platform)
    if run([SRC / 'scripts' / 'build.sh'], log=WORK / 'build.log', env=env) != 0:
        sys.exit('the unchanged tree does not build; see %s' % (WORK / 'build.log'))
    clean_started = time.time()
    # The release tests take minutes: run only where a chosen fault reaches them.
    baseline, _ = ctest(tree, args.jobs, None, WORK / 'clean.log', release=any(map(touches_release, patches)))
    # A fault that makes the suite hang is stopped at three times a clean run.
    cap = 3 * (time.time() - clean_started) + 300
    registries(save=True)
    print('clean run: %d tests, %d pass, %d s' % (len(baseline), sum(baseline.values()),
                                                 time.time() - clean_started), flush=True)

    mutants, resumed = [], 0
    for p in patches:
        saved = RESULTS / (p.stem + '.result')
        if args.resume and saved.exists():
            mutants.append(still_killing(json.loads(saved.read_text()), baseline))
            resumed += mutants[-1].get('seconds', 0)
            continue
        fault_started = time.time()
        m = judge(p, tree, args, baseline, cap)
        m['seconds'] = round(time.time() - fault_started)
        saved.write_text(json.dumps(m))
        mutants.append(m)
        print('%-34s %s' % (m['name'], {'stale': 'stale', 'build': 'killed by the build',
                                        'survived': 'SURVIVED'}.get(m['outcome'],
                                                                    'killed by %d tests' % len(m['killers']))),
              flush=True)

    text = report(mutants, baseline, time.time() - started + resumed, args.quick)
    (WORK / 'results.txt').write_text(text)
    print()
    print(text, end='')


if __name__ == '__main__':
    main()
