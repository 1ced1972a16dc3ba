#!/usr/bin/python3
"""Prints docs/cost.md from what scripts/cost has counted in a build directory. Exit status 1:
heap or stack is above its limit."""

import glob
import re
import subprocess
import sys
from collections import defaultdict

# As in regions.h.
OUTSIDE, BYTES, SPLIT, ALIGNMENT, ESTIMATOR, BINDING, LIBRARY, JOIN, SUPPRESSOR, METER = range(10)
OUR_HEAP_LIMIT = 400 * 1024
STACK_LIMIT = 8 * 1024
METER_LIMIT = 4 * 1024         # heap
METER_SHARES = {'8000': 1.6, '16000': 1.0, '32000': 1.0, '48000': 1.0} # % of the canceller's, 1 x 1, NEON
LIBRARIES = 'aec', 'meter', 'res'
exceeded = []                   # what is above its limit


def read_counts(build, name):
    """Counts by label, a list of rows (frames) each, and the heap lines."""
    counts = {}
    for line in open(f'{build}/{name}.counts'):
        row, values = re.fullmatch(r'row (\d+): (.*)\n', line).groups()
        counts[row] = [int(value) for value in values.split()]
    kinds = {'frame': defaultdict(list), 'kernel': {}}
    heap = []
    for line in open(f'{build}/{name}.rows'):
        words = line.split()
        if words[0] == 'heap':
            heap.append(words[1:])
        elif words[2] == 'frame':
            kinds['frame'][tuple(words[3:])].append(counts[words[1]])
        else:
            kinds['kernel'][' '.join(words[3:-1]), words[-1]] = counts[words[1]][LIBRARY]
    return kinds['frame'], kinds['kernel'], heap


def table(heads, rows):
    """Prints a Markdown table; columns of figures are set to the right."""
    print('| ' + ' | '.join(heads) + ' |')
    print('|' + '|'.join('---' if i == 0 else '--:' for i in range(len(heads))) + '|')
    for row in rows:
        print('| ' + ' | '.join(row) + ' |')
    print()


def check(what, size, limit):
    """Notes a size in bytes that is above its limit."""
    if size > limit:
        exceeded.append(f'{what}: {size} bytes, limit {limit}')


def mean(rows, *regions):
    return sum(row[region] for row in rows for region in regions) / len(rows)


def is_shown(label):
    """Whether a row of instructions is printed: as many microphones as references."""
    return label[1] == label[2] and label[3:] == ('on', 'short')


def form(words):
    """Rate, microphones and references in words."""
    return f'{words[0]} Hz, {words[1]} x {words[2]}'


def in_thousands(count):
    return f'{count / 1000:.1f}'


def instructions(neon, scalar):
    """Thousands of instructions per frame, and their share of the canceller's."""
    print('## Instructions per frame\n')
    print('Thousands, mean of 40 frames. The format is rate, microphones x references. The canceller\n'
          'is libspeexdsp and the binding around it; a column shows the binding alone. The front end is\n'
          'de-interleave, alignment without the estimator, and interleave. Shares are of the canceller.\n'
          'The byte path is what `nax_aec_byte` adds, with bytes to swap and channels to select.\n')
    rows = []
    for label, on in neon.items():
        if not is_shown(label):
            continue
        off = neon[label[:3] + ('off', 'byte')]
        off_canceller = mean(off, BINDING, LIBRARY)
        canceller = mean(on, BINDING, LIBRARY)
        front = mean(off, SPLIT, ALIGNMENT, JOIN)
        plain = scalar[label]
        rows.append([form(label),
                     in_thousands(mean(on, SPLIT)), in_thousands(mean(on, ALIGNMENT)),
                     in_thousands(mean(on, ESTIMATOR)),
                     in_thousands(canceller), in_thousands(mean(on, BINDING)),
                     in_thousands(mean(on, JOIN)), in_thousands(mean(off, BYTES)),
                     f'{100 * front / off_canceller:.2f} %',
                     f'{100 * mean(on, ESTIMATOR) / canceller:.1f} %',
                     f'{100 * mean(plain, ESTIMATOR) / mean(plain, BINDING, LIBRARY):.1f} %'])
    table(['format', 'de-interleave', 'align', 'estimator', 'canceller', 'of it binding',
           'interleave', 'byte path', 'front end, no estimation', 'estimator',
           'estimator without NEON'], rows)


def companion(name, call, region, word, neon, scalar, heap):
    """Thousands of instructions per frame of a companion's call, and their share of the canceller's;
    its heap is a word of the heap lines."""
    print(f'## The {name}\n')
    print(f'Thousands of instructions of `{call}` per frame on the same frames, and their share\n'
          'of the canceller\'s. The heap is all that it allocates.\n')
    taken = {tuple(words[:3]): words[word] for words in heap if words[4] == 'short'}
    rows = []
    for label, on in neon.items():
        if is_shown(label):
            plain = scalar[label]
            rows.append([form(label), in_thousands(mean(on, region)), in_thousands(mean(plain, region)),
                         *(f'{share(r, region):.2f} %' for r in (on, plain)), taken[label[:3]]])
    table(['format', 'NEON', 'without', 'share, NEON', 'share without', 'heap, bytes'], rows)


def share(rows, region):
    """Of the canceller's instructions, in %."""
    return 100 * mean(rows, region) / mean(rows, BINDING, LIBRARY)


def check_meter(neon, heap):
    for words in heap:
        check(f'heap of the meter at {form(words)}', int(words[11]), METER_LIMIT)
    for label, on in neon.items():
        if label[1:] == ('1', '1', 'on', 'short') and share(on, METER) > METER_SHARES[label[0]]:
            exceeded.append(f'meter at {form(label)}: {share(on, METER):.2f} % of the canceller, limit {METER_SHARES[label[0]]} %')


def instructions_64(counts):
    """Thousands of instructions per frame on 64-bit ARM, with their share of the canceller's."""
    print('## 64-bit ARM\n')
    print('The same for a Cortex-A53, by the build for arm64. Every arm64 processor has NEON. Debian\'s\n'
          'libspeexdsp is scalar there as well and fuses multiply-add. The heap is within 1 % of the\n'
          'table below.\n')
    rows = []
    for label, on in counts.items():
        if not is_shown(label):
            continue
        off = counts[label[:3] + ('off', 'byte')]
        canceller = mean(on, BINDING, LIBRARY)
        front = mean(off, SPLIT, ALIGNMENT, JOIN)
        parts = [mean(on, ESTIMATOR), mean(on, SUPPRESSOR)]
        rows.append([form(label), in_thousands(front), *map(in_thousands, parts),
                     in_thousands(canceller), in_thousands(mean(off, BYTES)),
                     f'{100 * front / mean(off, BINDING, LIBRARY):.2f} %',
                     *(f'{100 * part / canceller:.1f} %' for part in parts)])
    table(['format', 'front end, no estimation', 'estimator', 'suppressor', 'canceller',
           'byte path', 'front end of it', 'estimator of it', 'suppressor of it'], rows)


def kernels(counts):
    print('## Vector code\n')
    print('Instructions of one call on a frame at 16000 Hz. De-interleave and interleave: one channel.\n'
          'Byte swap: 512 sample instants of two channels.\n')
    rows = []
    for (name, variant), count in counts.items():
        if variant == 'NEON':
            plain = counts[name, 'scalar']
            rows.append([name, str(plain), str(count), f'{100 * count / plain:.0f} %'])
    table(['loop', 'scalar', 'NEON', 'NEON / scalar'], rows)


def heap_by_part(heap):
    print('## Heap per state\n')
    print('Bytes with the allocator\'s own share, delay estimation on. "Ours" is everything but the\n'
          'canceller. The first `nax_aec_byte` allocates the byte path\'s buffer. Nothing grows after\n'
          'that.\n')
    sel = {tuple(words[:3]): int(words[9]) for words in heap if words[4] == 'byte'}
    rows, largest = [], 0
    for words in heap:
        if words[4] != 'short':
            continue
        record, lines, estimator, canceller = (int(word) for word in words[5:9])
        ours = record + lines + estimator + sel[tuple(words[:3])]
        largest = max(largest, ours)
        if words[1] == words[2]:
            rows.append([form(words), str(record), str(lines), str(estimator),
                         str(sel[tuple(words[:3])]), str(ours), str(canceller)])
    table(['format', 'record and frames', 'delay lines', 'estimator', 'byte path', 'ours',
           'canceller'], rows)
    check('heap', largest, OUR_HEAP_LIMIT)
    print(f'The largest is {largest / 1024:.0f} KiB; `scripts/cost` fails above {OUR_HEAP_LIMIT // 1024} KiB.\n')


def deepest_stack(build):
    """Bytes of our own code's deepest chain of calls from each per-frame entry.

    From the compiler's call graphs. Calls through pointers are those to the inner loops
    and take the largest of these; other libraries' functions count as nothing. One of ours that
    no graph holds is an error.
    """
    frame, calls = {}, defaultdict(set)
    for path in glob.glob(f'{build}/CMakeFiles/nax_*.dir/src/**/*.ci', recursive=True):
        text = open(path).read()
        for name, size in re.findall(r'node: { title: "([^"]+)" label: "[^"]*?(\d+) bytes', text):
            frame[name] = int(size)
        for source, target in re.findall(r'sourcename: "([^"]+)" targetname: "([^"]+)"', text):
            calls[source].add(target)
    calls['__indirect_call'] = {name for name in frame if re.search('(6scalar|4neon)[0-9]', name)}

    # A function that its own file calls may be named FILE:NAME.localalias there and NAME elsewhere.
    def depth(name):
        if name not in frame:
            name = name.rpartition(':')[2].removesuffix('.localalias')
        if name not in frame and name.startswith(('_Z', 'nax_')):
            sys.exit(f'cost: {name} is in no call graph below {build}')
        return frame.get(name, 0) + max(map(depth, calls[name]), default=0)
    return {name: depth(name) for name in ('nax_aec_short', 'nax_aec_byte', 'nax_meter_short', 'nax_res_short')}


def stack(build):
    print('## Stack per frame\n')
    print('Bytes of our own code in the deepest chain of calls, as the compiler counts them, without\n'
          'libspeexdsp and kissfft. `stack_test` measures the whole: at most 8 KiB.\n')
    depths = deepest_stack(build)
    table(['call', 'bytes'], [[f'`{name}`', str(size)] for name, size in depths.items()])
    for name, size in depths.items():
        check(f'stack of {name}', size, STACK_LIMIT)
    print(f'`scripts/cost` fails above {STACK_LIMIT}.\n')


def code_size(build):
    print('## Code size\n')
    print('The shared libraries in bytes, without libspeexdsp and kissfft.\n')
    text = subprocess.run(['arm-linux-gnueabihf-size', *(f'{build}/libnax_{name}.so' for name in LIBRARIES)],
                          capture_output=True, check=True, text=True).stdout
    table(['library', 'code and constants', 'data', 'zeroed data'],
          [[f'libnax_{name}', *line.split()[:3]] for name, line in zip(LIBRARIES, text.splitlines()[1:])])


def streams(build):
    print('## Many streams\n')
    cpu = re.search(r'Model name:\s*(.*)', subprocess.run(
        ['lscpu'], capture_output=True, check=True, text=True).stdout).group(1)
    print('States that take turns with a frame each, delay estimation on, on a workstation\n'
          f'({cpu}). The time is processor time per frame. The last column compares it with a\n'
          'single state.\n')
    rows, single = [], 0.0
    for line in open(f'{build}/streams'):
        words = line.split()
        cost = float(words[5])
        if words[3] == '1':
            single = cost
        rows.append([form(words), words[3], words[4], words[5], words[6],
                     f'{100 * (cost / single - 1):+.0f} %'])
    table(['format', 'states', 'threads', 'us per frame', 'bytes per state', 'cost'], rows)


def main():
    build = sys.argv[1]
    neon, loops, heap = read_counts(build, 'neon')
    scalar, _, _ = read_counts(build, 'scalar')
    print('# What it costs\n')
    print('`scripts/cost` makes this page. It runs the ARM build for Debian\'s baseline, whose inner\n'
          'loops find NEON at run time, under emulation of a Cortex-A7. The counts are repeatable to the\n'
          'instruction. They are not times: instructions per cycle depend on the device.\n')
    instructions(neon, scalar)
    companion('suppressor', 'nax_res_short', SUPPRESSOR, 10, neon, scalar, heap)
    companion('meter', 'nax_meter_short', METER, 11, neon, scalar, heap)
    check_meter(neon, heap)
    instructions_64(read_counts(build, 'wide')[0])
    kernels(loops)
    heap_by_part(heap)
    stack(build)
    code_size(build)
    streams(build)
    print('## The same sound on every machine\n')
    print('Our sources are compiled with `-ffp-contract=off`: no processor fuses a multiply-add that\n'
          'another one does not. The vector code computes in the scalar code\'s order and gives the\n'
          'same bits. Denormal numbers are flushed to zero everywhere. Nothing is compiled or linked\n'
          'with fast-math. `scripts/test --armv7` compares the outputs of seeded streams.')
    if exceeded:
        sys.exit('cost: above the limit: ' + '; '.join(exceeded))


main()
