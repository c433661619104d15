#!/usr/bin/env python3
"""doxify.py HEADER...: turns a public header's plain comments into doxygen
comments, mechanically: the header's opening comment gets "@file", a
/* ... */ block directly before a declaration becomes /** ... */, and a
trailing /* ... */ after a field, enumerator or macro becomes /**< ... */.
Review the diff; then build the reference (-DTOVI_BUILD_DOCS=ON), which
names whatever is still undocumented."""
import re
import sys

NOT_A_DECLARATION = re.compile(r'^\s*(#\s*(ifndef|ifdef|if|include|endif|else|elif|undef)\b|TOVI_EXTERN_C|$|/\*|//)')
TRAILING = re.compile(r'^(\s*\S.*?[;,{}A-Za-z0-9_)\]])(\s+)/\*(?![*<])(.*\*/)\s*$')


def doxify(text):
    if text.startswith('/*\n'):
        text = '/**\n * @file\n' + text[3:]
    elif text.startswith('/* '):
        text = '/** @file\n * ' + text[3:]
    lines = text.split('\n')
    out = list(lines)
    i = 0
    while i < len(lines):
        m = re.match(r'^(\s*)/\*(?!\*)(.*)$', lines[i])
        if m:
            j = i
            while '*/' not in lines[j]:
                j += 1
            if j + 1 < len(lines) and lines[j].rstrip().endswith('*/') and not NOT_A_DECLARATION.match(lines[j + 1]):
                out[i] = m.group(1) + '/**' + m.group(2)
            i = j + 1
            continue
        t = TRAILING.match(lines[i])
        if t and not lines[i].lstrip().startswith(('/*', '*')):
            out[i] = t.group(1) + t.group(2) + '/**<' + t.group(3)
        i += 1
    return '\n'.join(out)


for path in sys.argv[1:]:
    with open(path) as f:
        old = f.read()
    new = doxify(old)
    if new != old:
        with open(path, 'w') as f:
            f.write(new)
        print('doxify: rewrote', path)
