// The opcode table: every opcode word maps to one handler. Decoding happens
// here, once per process; the step never looks at the word.
#include "cpu/cpu.h"

op_handler op_table[65536];

const uint8_t cpu_step_cost[64] = {
    4,  4,  4,  4,  4,  4,  4,  4,     // Dn
    4,  4,  4,  4,  4,  4,  4,  4,     // An
    8,  8,  8,  8,  8,  8,  8,  8,     // (An)
    8,  8,  8,  8,  8,  8,  8,  8,     // (An)+
    10, 10, 10, 10, 10, 10, 10, 10,    // -(An)
    12, 12, 12, 12, 12, 12, 12, 12,    // (d16,An)
    14, 14, 14, 14, 14, 14, 14, 14,    // (d8,An,Xn)
    12, 16, 12, 14, 8,  8,  8,  8,     // abs.W, abs.L, (d16,PC), (d8,PC,Xn), #, -
};

namespace {

int g_initialised = 0;

// Effective-address sets by the 6-bit mode/register field.
enum ea_set { SET_ALL, SET_DATA, SET_DATA_NOIMM, SET_DATA_ALT, SET_MEM_ALT, SET_CONTROL, SET_CTRL_PREDEC,
              SET_CTRL_POSTINC };

bool ea_in(ea_set set, uint32_t ea) {
    uint32_t mode = ea >> 3, reg = ea & 7;
    bool valid = mode < 7 || reg <= 4;
    bool is_dn = mode == 0, is_an = mode == 1, is_imm = mode == 7 && reg == 4;
    bool is_pcrel = mode == 7 && (reg == 2 || reg == 3);
    bool is_control = mode == 2 || mode == 5 || mode == 6 || (mode == 7 && reg <= 3);
    if (!valid) return false;
    switch (set) {
    case SET_ALL: return true;
    case SET_DATA: return !is_an;
    case SET_DATA_NOIMM: return !is_an && !is_imm;
    case SET_DATA_ALT: return !is_an && !is_imm && !is_pcrel;
    case SET_MEM_ALT: return !is_dn && !is_an && !is_imm && !is_pcrel;
    case SET_CONTROL: return is_control;
    case SET_CTRL_PREDEC: return (is_control && !is_pcrel) || mode == 4;
    case SET_CTRL_POSTINC: return is_control || mode == 3;
    }
    return false;
}

// Writes h at base | ea for every ea of the set and every value of the
// register bits in `vary`.
void install_ea(op_handler h, uint32_t base, ea_set set, uint32_t vary = 0) {
    for (uint32_t ea = 0; ea < 64; ea++) {
        if (!ea_in(set, ea)) continue;
        uint32_t sub = 0;
        do {
            op_table[base | ea | sub] = h;
            sub = (sub - vary) & vary;
        } while (sub != 0);
    }
}

// Writes h at base and every combination of the bits in `vary`.
void install(op_handler h, uint32_t base, uint32_t vary) {
    uint32_t sub = 0;
    do {
        op_table[base | sub] = h;
        sub = (sub - vary) & vary;
    } while (sub != 0);
}

void install_generic() {
    // Bcc, BSR, BRA.
    install(op_bcc, 0x6000, 0x0FFF);
    // CMPM, ADDX, SUBX (three sizes, register and memory forms), ABCD, SBCD.
    for (uint32_t size = 0; size < 3; size++) install(op_cmpm, 0xB108 | size << 6, 0x0E07);
    for (uint32_t size = 0; size < 3; size++) install(op_addx, 0xD100 | size << 6, 0x0E0F);
    for (uint32_t size = 0; size < 3; size++) install(op_subx, 0x9100 | size << 6, 0x0E0F);
    install(op_abcd, 0xC100, 0x0E0F);
    install(op_sbcd, 0x8100, 0x0E0F);
    // Scc, DBcc.
    install_ea(op_scc, 0x50C0, SET_DATA_ALT, 0x0F00);
    install(op_dbcc, 0x50C8, 0x0F07);
    // Bit operations (deliberately wider: static BTST takes #data, the
    // changing forms take the PC-relative modes).
    install_ea(op_btst_dyn, 0x0100, SET_DATA, 0x0E00);
    install_ea(op_bchg_dyn, 0x0140, SET_DATA_NOIMM, 0x0E00);
    install_ea(op_bclr_dyn, 0x0180, SET_DATA_NOIMM, 0x0E00);
    install_ea(op_bset_dyn, 0x01C0, SET_DATA_NOIMM, 0x0E00);
    install_ea(op_btst_stat, 0x0800, SET_DATA);
    install_ea(op_bchg_stat, 0x0840, SET_DATA_NOIMM);
    install_ea(op_bclr_stat, 0x0880, SET_DATA_NOIMM);
    install_ea(op_bset_stat, 0x08C0, SET_DATA_NOIMM);
    // EXT, EXTB, LINK, PEA, JMP, JSR, UNLK, SWAP, LEA.
    install(op_ext_w, 0x4880, 0x0007);
    install(op_ext_l, 0x48C0, 0x0007);
    install(op_extb_l, 0x49C0, 0x0007);
    install(op_link_l, 0x4808, 0x0007);
    install(op_link_w, 0x4E50, 0x0007);
    install_ea(op_pea, 0x4840, SET_CONTROL);
    install_ea(op_jmp, 0x4EC0, SET_CONTROL);
    install_ea(op_jsr, 0x4E80, SET_CONTROL);
    install(op_unlk, 0x4E58, 0x0007);
    install(op_swap, 0x4840, 0x0007);
    install_ea(op_lea, 0x41C0, SET_CONTROL, 0x0E00);
    // EXG.
    install(op_exg_dn_dn, 0xC140, 0x0E07);
    install(op_exg_an_an, 0xC148, 0x0E07);
    install(op_exg_dn_an, 0xC188, 0x0E07);
    // Shifts and rotates: register form (three sizes), memory form (word).
    for (uint32_t size = 0; size < 3; size++) install(op_shift_dn, 0xE000 | size << 6, 0x0F3F);
    install_ea(op_shift_mem, 0xE0C0, SET_MEM_ALT, 0x0700);
    // Multiply and divide, word forms.
    install_ea(op_divu_w, 0x80C0, SET_DATA, 0x0E00);
    install_ea(op_divs_w, 0x81C0, SET_DATA, 0x0E00);
    install_ea(op_mulu_w, 0xC0C0, SET_DATA, 0x0E00);
    install_ea(op_muls_w, 0xC1C0, SET_DATA, 0x0E00);
    // MOVEM.
    install_ea(op_movem_to_mem_w, 0x4880, SET_CTRL_PREDEC);
    install_ea(op_movem_to_mem_l, 0x48C0, SET_CTRL_PREDEC);
    install_ea(op_movem_from_mem_w, 0x4C80, SET_CTRL_POSTINC);
    install_ea(op_movem_from_mem_l, 0x4CC0, SET_CTRL_POSTINC);
    // MOVE to/from SR and CCR, MOVE USP.
    install_ea(op_move_from_sr, 0x40C0, SET_DATA_ALT);
    install_ea(op_move_from_ccr, 0x42C0, SET_DATA_ALT);
    install_ea(op_move_to_ccr, 0x44C0, SET_DATA);
    install_ea(op_move_to_sr, 0x46C0, SET_DATA);
    install(op_move_an_to_usp, 0x4E60, 0x0007);
    install(op_move_usp_to_an, 0x4E68, 0x0007);
    // TRAP, TRAPV, CHK.
    install(op_trap, 0x4E40, 0x000F);
    op_table[0x4E76] = op_trapv;
    install_ea(op_chk_w, 0x4180, SET_DATA, 0x0E00);
    // Immediate operations on CCR and SR.
    op_table[0x003C] = op_ori_to_ccr;
    op_table[0x007C] = op_ori_to_sr;
    op_table[0x023C] = op_andi_to_ccr;
    op_table[0x027C] = op_andi_to_sr;
    op_table[0x0A3C] = op_eori_to_ccr;
    op_table[0x0A7C] = op_eori_to_sr;
    // TAS, RESET, STOP.
    install_ea(op_tas, 0x4AC0, SET_DATA_ALT);
    op_table[0x4E70] = op_reset;
    op_table[0x4E72] = op_stop;
}

}  // namespace

extern "C" void kelva_global_init(void) {
    if (g_initialised) return;
    g_initialised = 1;
    for (op_handler &h : op_table) h = op_illegal;
    for (uint32_t w = 0xA000; w <= 0xAFFF; w++) op_table[w] = op_line_a;
    for (uint32_t w = 0xF000; w <= 0xFFFF; w++) op_table[w] = op_line_f;
    op_table[0x4E71] = op_nop;
    op_table[0x4E73] = op_rte;
    op_table[0x4E74] = op_rtd;
    op_table[0x4E75] = op_rts;
    op_table[0x4E77] = op_rtr;
    ops_register();
    install_generic();
}
