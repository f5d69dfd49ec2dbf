#!/usr/bin/env python3
"""Generates the specialised 68000 opcode handlers and ops_register().

The table below is the one description of the specialised instruction
families: mnemonic, sizes, base opcode word and the addressing modes each
operand may take. From it this script writes

  ops_gen_<n>.cpp   named handlers, op_<mnemonic>_<size>_<src>_<dst>, each an
                    instantiation of a template from cpu/ops_impl.h
  ops_register.cpp  ops_register(): installs every handler at every opcode
                    word it serves (all values of its register fields)

Usage: gen_ops.py <output dir> [parts]
"""
import os
import sys

# Mode words, their template constant and their 6-bit field (mode, reg);
# reg None means the register varies and is read from the opcode at run time.
MODES = [
    ('dn', 'DN', 0, None),
    ('an', 'AN', 1, None),
    ('ai', 'AI', 2, None),
    ('ainc', 'AINC', 3, None),
    ('adec', 'ADEC', 4, None),
    ('ad16', 'AD16', 5, None),
    ('aidx', 'AIDX', 6, None),
    ('absw', 'ABSW', 7, 0),
    ('absl', 'ABSL', 7, 1),
    ('pcd16', 'PCD16', 7, 2),
    ('pcidx', 'PCIDX', 7, 3),
    ('imm', 'IMM', 7, 4),
]
MODE = {m[0]: m for m in MODES}

ALL = [m[0] for m in MODES]
DATA = [m for m in ALL if m != 'an']
DATA_ALT = ['dn', 'ai', 'ainc', 'adec', 'ad16', 'aidx', 'absw', 'absl']
MEM_ALT = [m for m in DATA_ALT if m != 'dn']

SIZES = {'b': (1, 0), 'w': (2, 1), 'l': (4, 2)}


def ea_bits(mode):
    """Opcode bits and varying-bit mask of an effective address in bits 5-0."""
    _, _, m, r = MODE[mode]
    return (m << 3) | (r or 0), 0 if r is not None else 0x0007


def ea_bits_dest(mode):
    """The same for a MOVE destination (register in bits 11-9, mode in 8-6)."""
    _, _, m, r = MODE[mode]
    return (m << 6) | ((r or 0) << 9), 0 if r is not None else 0x0E00


# The specialised families. Each entry yields (name, template call, opcode
# base, mask of the bits that vary over register numbers).
def families():
    out = []

    # ORI, ANDI, SUBI, ADDI, EORI, CMPI #data,<ea>: data alterable.
    for mn, base, op in [('ori', 0x0000, 'OP_OR'), ('andi', 0x0200, 'OP_AND'), ('subi', 0x0400, 'OP_SUB'),
                         ('addi', 0x0600, 'OP_ADD'), ('eori', 0x0A00, 'OP_EOR'), ('cmpi', 0x0C00, 'OP_CMP')]:
        for sz, (nb, sf) in SIZES.items():
            for d in DATA_ALT:
                bits, vary = ea_bits(d)
                out.append((f'op_{mn}_{sz}_{d}', f'h_alu_imm<{op}, {nb}, {MODE[d][1]}>',
                            base | sf << 6 | bits, vary))

    # MOVE.B (no An source or destination), MOVE.W/.L and MOVEA.W/.L.
    for sz, base in [('b', 0x1000), ('w', 0x3000), ('l', 0x2000)]:
        nb = SIZES[sz][0]
        srcs = DATA if sz == 'b' else ALL
        dsts = DATA_ALT if sz == 'b' else DATA_ALT + ['an']
        for s in srcs:
            sbits, svary = ea_bits(s)
            for d in dsts:
                dbits, dvary = ea_bits_dest(d)
                out.append((f'op_move_{sz}_{s}_{d}', f'h_move<{nb}, {MODE[s][1]}, {MODE[d][1]}>',
                            base | dbits | sbits, dvary | svary))

    # NEGX, CLR, NEG, NOT, TST <ea>: data alterable.
    for mn, base, op in [('negx', 0x4000, 'OP_NEGX'), ('clr', 0x4200, 'OP_CLR'), ('neg', 0x4400, 'OP_NEG'),
                         ('not', 0x4600, 'OP_NOT'), ('tst', 0x4A00, 'OP_TST')]:
        for sz, (nb, sf) in SIZES.items():
            for d in DATA_ALT:
                bits, vary = ea_bits(d)
                out.append((f'op_{mn}_{sz}_{d}', f'h_unary<{op}, {nb}, {MODE[d][1]}>',
                            base | sf << 6 | bits, vary))

    # ADDQ, SUBQ #1-8,<ea>: data alterable, plus An for word and long.
    for mn, base, op in [('addq', 0x5000, 'OP_ADD'), ('subq', 0x5100, 'OP_SUB')]:
        for sz, (nb, sf) in SIZES.items():
            for d in (DATA_ALT if sz == 'b' else DATA_ALT + ['an']):
                bits, vary = ea_bits(d)
                out.append((f'op_{mn}_{sz}_{d}', f'h_quick<{op}, {nb}, {MODE[d][1]}>',
                            base | sf << 6 | bits, vary | 0x0E00))

    # MOVEQ: one handler, register and data from the opcode.
    out.append(('op_moveq', None, 0x7000, 0x0EFF))

    # OR, SUB, AND, ADD, CMP <ea>,Dn. AND and OR take no An source.
    for mn, base, op, srcs_wl in [('or', 0x8000, 'OP_OR', DATA), ('sub', 0x9000, 'OP_SUB', ALL),
                                  ('cmp', 0xB000, 'OP_CMP', ALL), ('and', 0xC000, 'OP_AND', DATA),
                                  ('add', 0xD000, 'OP_ADD', ALL)]:
        for sz, (nb, sf) in SIZES.items():
            for s in (DATA if sz == 'b' else srcs_wl):
                bits, vary = ea_bits(s)
                out.append((f'op_{mn}_{sz}_{s}_dn', f'h_alu_to_dn<{op}, {nb}, {MODE[s][1]}>',
                            base | sf << 6 | bits, vary | 0x0E00))

    # OR, SUB, AND, ADD Dn,<ea> (memory alterable); EOR Dn,<ea> (data alterable).
    for mn, base, op, dsts in [('or', 0x8100, 'OP_OR', MEM_ALT), ('sub', 0x9100, 'OP_SUB', MEM_ALT),
                               ('eor', 0xB100, 'OP_EOR', DATA_ALT), ('and', 0xC100, 'OP_AND', MEM_ALT),
                               ('add', 0xD100, 'OP_ADD', MEM_ALT)]:
        for sz, (nb, sf) in SIZES.items():
            for d in dsts:
                bits, vary = ea_bits(d)
                out.append((f'op_{mn}_{sz}_dn_{d}', f'h_alu_from_dn<{op}, {nb}, {MODE[d][1]}>',
                            base | sf << 6 | bits, vary | 0x0E00))

    # SUBA, CMPA, ADDA <ea>,An (word: opmode 3, long: opmode 7).
    for mn, base, op in [('suba', 0x90C0, 'OP_SUB'), ('cmpa', 0xB0C0, 'OP_CMP'), ('adda', 0xD0C0, 'OP_ADD')]:
        for sz, nb, extra in [('w', 2, 0x0000), ('l', 4, 0x0100)]:
            for s in ALL:
                bits, vary = ea_bits(s)
                out.append((f'op_{mn}_{sz}_{s}_an', f'h_addr<{op}, {nb}, {MODE[s][1]}>',
                            base | extra | bits, vary | 0x0E00))
    return out


def entries(base, vary):
    """Every opcode word that a handler serves: all values of the varying bits."""
    bits = [b for b in range(16) if vary >> b & 1]
    for n in range(1 << len(bits)):
        v = base
        for i, b in enumerate(bits):
            if n >> i & 1:
                v |= 1 << b
        yield v


HEADER = '// Generated by tools/gen_ops.py from its table of instruction families. Do not edit.\n'


def main():
    outdir = sys.argv[1]
    parts = int(sys.argv[2]) if len(sys.argv) > 2 else 4
    fams = families()

    # Consistency: no opcode word claimed twice; the expected entry count.
    seen = {}
    total = 0
    for name, _, base, vary in fams:
        for w in entries(base, vary):
            if w in seen:
                sys.exit(f'gen_ops: {name} and {seen[w]} both claim {w:04x}')
            seen[w] = name
            total += 1
    if total != 30984:
        sys.exit(f'gen_ops: the families cover {total} opcode words, expected 30984')

    os.makedirs(outdir, exist_ok=True)
    handlers = [f for f in fams if f[1] is not None]
    for p in range(parts):
        lines = [HEADER, '#include "cpu/ops_impl.h"\n\nusing namespace m68k;\n\n']
        for name, call, _, _ in handlers[p::parts]:
            lines.append(f'void {name}(kelva *k, uint16_t op) {{ {call}(k, op); }}\n')
        write_if_changed(os.path.join(outdir, f'ops_gen_{p}.cpp'), ''.join(lines))

    lines = [HEADER, '#include "cpu/cpu.h"\n\n']
    for name, call, _, _ in handlers:
        lines.append(f'void {name}(kelva *k, uint16_t op);\n')
    lines.append('\nnamespace {\n\n'
                 '// Installs h at base and at every combination of the register bits in vary.\n'
                 'void fill(op_handler h, uint32_t base, uint32_t vary) {\n'
                 '    uint32_t sub = 0;\n'
                 '    do {\n'
                 '        op_table[base | sub] = h;\n'
                 '        sub = (sub - vary) & vary;\n'
                 '    } while (sub != 0);\n'
                 '}\n\n'
                 '}  // namespace\n\n'
                 f'// {len(fams)} handlers, {total} opcode words.\n'
                 'void ops_register() {\n')
    for name, _, base, vary in fams:
        lines.append(f'    fill({name}, 0x{base:04X}, 0x{vary:04X});\n')
    lines.append('}\n')
    write_if_changed(os.path.join(outdir, 'ops_register.cpp'), ''.join(lines))


def write_if_changed(path, text):
    try:
        with open(path) as f:
            if f.read() == text:
                return
    except OSError:
        pass
    with open(path, 'w') as f:
        f.write(text)


if __name__ == '__main__':
    main()
