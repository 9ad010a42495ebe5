/*
 * dwarf5_forms.c as GCC -O2 compiles it, with hand-written DWARF 5 debug
 * information in the forms GCC 12 never writes for a plain build: names
 * through DW_FORM_strx1..4 and strx into .debug_str_offsets, addresses
 * through DW_FORM_addrx and DW_OP_addrx into .debug_addr,
 * DW_FORM_rnglistx and loclistx into the offset tables of .debug_rnglists and
 * .debug_loclists, DW_FORM_implicit_const, DW_FORM_data16, DW_FORM_line_strp,
 * and a type unit inside .debug_info named by DW_FORM_ref_sig8. The error
 * path of forms_check stands behind forms_scale, as a hot/cold split puts
 * it, so forms_check has two address ranges (the cold part has no frame
 * description of its own). The assembler writes the DWARF 5 line table from
 * the .loc directives.
 */
    .syntax unified
    .thumb
    .cfi_sections .debug_frame
    .file 0 "/tavit/firmware/corpus" "src/dwarf5_forms.c"
    .file 1 "src/dwarf5_forms.c"

    .text
.Ltext0:
    .align 1
    .global forms_check
    .type forms_check, %function
    .thumb_func
forms_check:
.LFB_check:
    .cfi_startproc
    .loc 1 25 1
    push  {r3, lr}
    .cfi_def_cfa_offset 8
    .cfi_offset 3, -8
    .cfi_offset 14, -4
    .loc 1 26 8
    cmp   r0, #0
    blt   .Lcheck_cold
    .loc 1 30 12
    ldr   r2, .Lcheck_lit
    ldr   r1, [r2]
    bl    forms_scale
.Lcheck_ret:
    .loc 1 30 45
    ldr   r2, .Lcheck_lit
    ldrb  r3, [r2, #4]
    add   r0, r0, r3
    .loc 1 31 1
    pop   {r3, pc}
    .align 2
.Lcheck_lit:
    .word forms_pair
    .cfi_endproc
.LFE_check:
    .size forms_check, . - forms_check

    .align 1
    .global forms_scale
    .type forms_scale, %function
    .thumb_func
forms_scale:
.LFB_scale:
    .cfi_startproc
    .loc 1 18 9
    mul   r0, r1, r0
.Lscale_acc:
    .loc 1 19 8
    cmp   r0, #100
    ble   .Lscale_ret
    .loc 1 20 13
    ldr   r3, .Lscale_lit
    ldr   r3, [r3]
    subs  r0, r0, r3
.Lscale_ret:
    .loc 1 22 1
    bx    lr
    .align 2
.Lscale_lit:
    .word forms_counter
    .cfi_endproc
.LFE_scale:
    .size forms_scale, . - forms_scale

    .align 1
    .type forms_check.cold, %function
    .thumb_func
forms_check.cold:
.LFB_cold:
.Lcheck_cold:
    .loc 1 27 9
    bl    forms_fail
.Lcold_ret:
    .loc 1 28 16
    mov   r0, #-1
    .loc 1 31 1
    pop   {r3, pc}
.LFE_cold:
    .size forms_check.cold, . - forms_check.cold

    .align 1
    .global forms_fail
    .type forms_fail, %function
    .thumb_func
forms_fail:
.LFB_fail:
    .cfi_startproc
    .loc 1 13 19
    ldr   r3, .Lfail_lit
    str   r0, [r3]
    .loc 1 14 1
    bx    lr
    .align 2
.Lfail_lit:
    .word forms_counter
    .cfi_endproc
.LFE_fail:
    .size forms_fail, . - forms_fail
.Letext0:

    .data
    .align 2
    .global forms_counter
    .type forms_counter, %object
forms_counter:
    .word 7
    .size forms_counter, 4
    .global forms_pair
    .type forms_pair, %object
forms_pair:
    .word 1
    .byte 2
    .space 3
    .size forms_pair, 8

/* Abbreviations of the compile unit (1-19) and of the type unit (20-). */
    .section .debug_abbrev, "", %progbits
.Ldebug_abbrev0:
    .uleb128 1, 0x11, 1                 /* compile_unit, children */
    .uleb128 0x25, 0x25                 /* producer strx1 */
    .uleb128 0x13, 0x0b                 /* language data1 */
    .uleb128 0x03, 0x1f                 /* name line_strp */
    .uleb128 0x1b, 0x1f                 /* comp_dir line_strp */
    .uleb128 0x72, 0x17                 /* str_offsets_base sec_offset */
    .uleb128 0x73, 0x17                 /* addr_base sec_offset */
    .uleb128 0x74, 0x17                 /* rnglists_base sec_offset */
    .uleb128 0x8c, 0x17                 /* loclists_base sec_offset */
    .uleb128 0x11, 0x1b                 /* low_pc addrx */
    .uleb128 0x12, 0x06                 /* high_pc data4 */
    .uleb128 0x10, 0x17                 /* stmt_list sec_offset */
    .uleb128 0, 0
    .uleb128 2, 0x24, 0                 /* base_type */
    .uleb128 0x0b, 0x21                 /* byte_size implicit_const 4 */
    .sleb128 4
    .uleb128 0x3e, 0x0b                 /* encoding data1 */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0, 0
    .uleb128 3, 0x24, 0                 /* base_type */
    .uleb128 0x0b, 0x0b                 /* byte_size data1 */
    .uleb128 0x3e, 0x0b                 /* encoding data1 */
    .uleb128 0x03, 0x26                 /* name strx2 */
    .uleb128 0, 0
    .uleb128 4, 0x34, 0                 /* variable */
    .uleb128 0x03, 0x1a                 /* name strx */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x39, 0x0b                 /* decl_column data1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x3f, 0x19                 /* external flag_present */
    .uleb128 0x02, 0x18                 /* location exprloc */
    .uleb128 0, 0
    .uleb128 5, 0x34, 0                 /* variable */
    .uleb128 0x03, 0x28                 /* name strx4 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x39, 0x0b                 /* decl_column data1 */
    .uleb128 0x49, 0x20                 /* type ref_sig8 */
    .uleb128 0x3f, 0x19                 /* external flag_present */
    .uleb128 0x02, 0x18                 /* location exprloc */
    .uleb128 0, 0
    .uleb128 6, 0x01, 1                 /* array_type, children */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0, 0
    .uleb128 7, 0x21, 0                 /* subrange_type */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x2f, 0x0b                 /* upper_bound data1 */
    .uleb128 0, 0
    .uleb128 8, 0x34, 0                 /* variable */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x1c, 0x1e                 /* const_value data16 */
    .uleb128 0x03, 0x27                 /* name strx3 */
    .uleb128 0, 0
    .uleb128 9, 0x2e, 1                 /* subprogram, children */
    .uleb128 0x3f, 0x19                 /* external flag_present */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x27, 0x19                 /* prototyped flag_present */
    .uleb128 0x11, 0x1b                 /* low_pc addrx */
    .uleb128 0x12, 0x06                 /* high_pc data4 */
    .uleb128 0x40, 0x18                 /* frame_base exprloc */
    .uleb128 0, 0
    .uleb128 10, 0x05, 0                /* formal_parameter */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x02, 0x18                 /* location exprloc */
    .uleb128 0, 0
    .uleb128 11, 0x2e, 1                /* subprogram, children */
    .uleb128 0x3f, 0x19                 /* external flag_present */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x27, 0x19                 /* prototyped flag_present */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x11, 0x1b                 /* low_pc addrx */
    .uleb128 0x12, 0x06                 /* high_pc data4 */
    .uleb128 0x40, 0x18                 /* frame_base exprloc */
    .uleb128 0, 0
    .uleb128 12, 0x05, 0                /* formal_parameter */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x02, 0x22                 /* location loclistx */
    .uleb128 0, 0
    .uleb128 13, 0x34, 0                /* variable */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x02, 0x22                 /* location loclistx */
    .uleb128 0, 0
    .uleb128 14, 0x2e, 1                /* subprogram, children */
    .uleb128 0x3f, 0x19                 /* external flag_present */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x3a, 0x21                 /* decl_file implicit_const 1 */
    .sleb128 1
    .uleb128 0x3b, 0x0b                 /* decl_line data1 */
    .uleb128 0x27, 0x19                 /* prototyped flag_present */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x55, 0x23                 /* ranges rnglistx */
    .uleb128 0x40, 0x18                 /* frame_base exprloc */
    .uleb128 0, 0
    .uleb128 15, 0x48, 0                /* call_site */
    .uleb128 0x7d, 0x1b                 /* call_return_pc addrx */
    .uleb128 0x7f, 0x13                 /* call_origin ref4 */
    .uleb128 0, 0
    .uleb128 16, 0x48, 0                /* call_site */
    .uleb128 0x7d, 0x1b                 /* call_return_pc addrx */
    .uleb128 0x7f, 0x13                 /* call_origin ref4 */
    .uleb128 0, 0
    .uleb128 20, 0x41, 1                /* type_unit, children */
    .uleb128 0x13, 0x0b                 /* language data1 */
    .uleb128 0x72, 0x17                 /* str_offsets_base sec_offset */
    .uleb128 0, 0
    .uleb128 21, 0x13, 1                /* structure_type, children */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x0b, 0x21                 /* byte_size implicit_const 8 */
    .sleb128 8
    .uleb128 0, 0
    .uleb128 22, 0x0d, 0                /* member */
    .uleb128 0x03, 0x25                 /* name strx1 */
    .uleb128 0x49, 0x13                 /* type ref4 */
    .uleb128 0x38, 0x0b                 /* data_member_location data1 */
    .uleb128 0, 0
    .uleb128 0

/* The compile unit, then the type unit of struct forms_pair. */
    .section .debug_info, "", %progbits
.Lcu:
    .4byte .Lcu_end - .Lcu_version
.Lcu_version:
    .2byte 5
    .byte 1                             /* DW_UT_compile */
    .byte 4
    .4byte .Ldebug_abbrev0
.Ldie_cu:
    .uleb128 1
    .byte 0                             /* producer: string 0 */
    .byte 0x1d                          /* DW_LANG_C11 */
    .4byte .Lls_name
    .4byte .Lls_dir
    .4byte .Lstr_offsets_base
    .4byte .Laddr_base
    .4byte .Lrnglists_base
    .4byte .Lloclists_base
    .uleb128 0                          /* low_pc: address 0 */
    .4byte .Letext0 - .Ltext0
    .4byte .Ldebug_line0
.Ldie_int:
    .uleb128 2
    .byte 5                             /* DW_ATE_signed */
    .byte 1                             /* "int" */
.Ldie_uchar:
    .uleb128 3
    .byte 1
    .byte 8                             /* DW_ATE_unsigned_char */
    .2byte 2                            /* "unsigned char" */
.Ldie_uint:
    .uleb128 3
    .byte 4
    .byte 7                             /* DW_ATE_unsigned */
    .2byte 3                            /* "unsigned int" */
    .uleb128 8                          /* forms_key */
    .byte 9
    .4byte .Ldie_key_type - .Lcu
    .4byte 0x11223344, 0x55667788, 0x99aabbcc, 0xddeeff00
    .byte 6, 0, 0                       /* name: string 6 in three bytes */
    .uleb128 4                          /* forms_counter */
    .uleb128 4
    .byte 7, 5
    .4byte .Ldie_int - .Lcu
    .uleb128 2
    .byte 0xa1, 5                       /* DW_OP_addrx 5 */
    .uleb128 5                          /* forms_pair */
    .4byte 5                            /* string 5 in four bytes */
    .byte 8, 19
    .8byte 0x8f1e2d3c4b5a6978           /* signature of the type unit */
    .uleb128 5
    .byte 0x03                          /* DW_OP_addr */
    .4byte forms_pair
.Ldie_key_type:
    .uleb128 6
    .4byte .Ldie_uint - .Lcu
    .uleb128 7
    .4byte .Ldie_uint - .Lcu
    .byte 3
    .byte 0
.Ldie_fail:
    .uleb128 9                          /* forms_fail */
    .byte 7
    .byte 11
    .uleb128 1                          /* low_pc: address 1 */
    .4byte .LFE_fail - .LFB_fail
    .uleb128 1
    .byte 0x9c                          /* DW_OP_call_frame_cfa */
    .uleb128 10                         /* code */
    .byte 8
    .byte 11
    .4byte .Ldie_int - .Lcu
    .uleb128 1
    .byte 0x50                          /* DW_OP_reg0 */
    .byte 0
.Ldie_scale:
    .uleb128 11                         /* forms_scale */
    .byte 9
    .byte 16
    .4byte .Ldie_int - .Lcu
    .uleb128 2                          /* low_pc: address 2 */
    .4byte .LFE_scale - .LFB_scale
    .uleb128 1
    .byte 0x9c
    .uleb128 12                         /* value */
    .byte 10
    .byte 16
    .4byte .Ldie_int - .Lcu
    .uleb128 0                          /* location list 0 */
    .uleb128 12                         /* factor */
    .byte 11
    .byte 16
    .4byte .Ldie_int - .Lcu
    .uleb128 1
    .uleb128 13                         /* acc */
    .byte 12
    .byte 18
    .4byte .Ldie_int - .Lcu
    .uleb128 2
    .byte 0
    .uleb128 14                         /* forms_check */
    .byte 13
    .byte 24
    .4byte .Ldie_int - .Lcu
    .uleb128 0                          /* range list 0 */
    .uleb128 1
    .byte 0x9c
    .uleb128 12                         /* v */
    .byte 14
    .byte 24
    .4byte .Ldie_int - .Lcu
    .uleb128 3
    .uleb128 15
    .uleb128 6                          /* return address: address 6 */
    .4byte .Ldie_scale - .Lcu
    .uleb128 16
    .uleb128 7                          /* return address: address 7 */
    .4byte .Ldie_fail - .Lcu
    .byte 0
    .byte 0
.Lcu_end:

.Ltu:
    .4byte .Ltu_end - .Ltu_version
.Ltu_version:
    .2byte 5
    .byte 2                             /* DW_UT_type */
    .byte 4
    .4byte .Ldebug_abbrev0
    .8byte 0x8f1e2d3c4b5a6978
    .4byte .Ldie_pair - .Ltu
    .uleb128 20
    .byte 0x1d
    .4byte .Lstr_offsets_base
.Ldie_pair:
    .uleb128 21                         /* struct forms_pair */
    .byte 15
    .uleb128 22                         /* first */
    .byte 16
    .4byte .Ldie_tu_int - .Ltu
    .byte 0
    .uleb128 22                         /* tag */
    .byte 17
    .4byte .Ldie_tu_uchar - .Ltu
    .byte 4
    .byte 0
.Ldie_tu_int:
    .uleb128 2
    .byte 5
    .byte 1
.Ldie_tu_uchar:
    .uleb128 3
    .byte 1
    .byte 8
    .2byte 2
    .byte 0
.Ltu_end:

/* String offsets: one contribution for both units. */
    .section .debug_str_offsets, "", %progbits
    .4byte .Lstr_offsets_end - .Lstr_offsets_version
.Lstr_offsets_version:
    .2byte 5
    .2byte 0
.Lstr_offsets_base:
    .4byte .Ls_producer                 /* 0 */
    .4byte .Ls_int                      /* 1 */
    .4byte .Ls_uchar                    /* 2 */
    .4byte .Ls_uint                     /* 3 */
    .4byte .Ls_counter                  /* 4 */
    .4byte .Ls_pair                     /* 5 */
    .4byte .Ls_key                      /* 6 */
    .4byte .Ls_fail                     /* 7 */
    .4byte .Ls_code                     /* 8 */
    .4byte .Ls_scale                    /* 9 */
    .4byte .Ls_value                    /* 10 */
    .4byte .Ls_factor                   /* 11 */
    .4byte .Ls_acc                      /* 12 */
    .4byte .Ls_check                    /* 13 */
    .4byte .Ls_v                        /* 14 */
    .4byte .Ls_pair                     /* 15: the structure's tag */
    .4byte .Ls_first                    /* 16 */
    .4byte .Ls_tag                      /* 17 */
.Lstr_offsets_end:

    .section .debug_str, "MS", %progbits, 1
.Ls_producer: .asciz "hand-written DWARF 5 (dwarf5_forms.s)"
.Ls_int:      .asciz "int"
.Ls_uchar:    .asciz "unsigned char"
.Ls_uint:     .asciz "unsigned int"
.Ls_counter:  .asciz "forms_counter"
.Ls_pair:     .asciz "forms_pair"
.Ls_key:      .asciz "forms_key"
.Ls_fail:     .asciz "forms_fail"
.Ls_code:     .asciz "code"
.Ls_scale:    .asciz "forms_scale"
.Ls_value:    .asciz "value"
.Ls_factor:   .asciz "factor"
.Ls_acc:      .asciz "acc"
.Ls_check:    .asciz "forms_check"
.Ls_v:        .asciz "v"
.Ls_first:    .asciz "first"
.Ls_tag:      .asciz "tag"

    .section .debug_line_str, "MS", %progbits, 1
.Lls_name:    .asciz "src/dwarf5_forms.c"
.Lls_dir:     .asciz "/tavit/firmware/corpus"

/* Addresses by index. */
    .section .debug_addr, "", %progbits
    .4byte .Laddr_end - .Laddr_version
.Laddr_version:
    .2byte 5
    .byte 4, 0
.Laddr_base:
    .4byte .Ltext0                      /* 0 */
    .4byte .LFB_fail                    /* 1 */
    .4byte .LFB_scale                   /* 2 */
    .4byte .LFB_check                   /* 3 */
    .4byte .LFB_cold                    /* 4 */
    .4byte forms_counter                /* 5 */
    .4byte .Lcheck_ret                  /* 6 */
    .4byte .Lcold_ret                   /* 7 */
.Laddr_end:

/* Range list 0: forms_check, hot part by index and length, cold part as
   offsets from a base address by index. */
    .section .debug_rnglists, "", %progbits
    .4byte .Lrnglists_end - .Lrnglists_version
.Lrnglists_version:
    .2byte 5
    .byte 4, 0
    .4byte 1
.Lrnglists_base:
    .4byte .Lrl_check - .Lrnglists_base
.Lrl_check:
    .byte 3                             /* DW_RLE_startx_length */
    .uleb128 3
    .uleb128 .LFE_check - .LFB_check
    .byte 1                             /* DW_RLE_base_addressx */
    .uleb128 4
    .byte 4                             /* DW_RLE_offset_pair */
    .uleb128 0
    .uleb128 .LFE_cold - .LFB_cold
    .byte 0                             /* DW_RLE_end_of_list */
.Lrnglists_end:

/* Location lists 0-3: value, factor, acc, v. */
    .section .debug_loclists, "", %progbits
    .4byte .Lloclists_end - .Lloclists_version
.Lloclists_version:
    .2byte 5
    .byte 4, 0
    .4byte 4
.Lloclists_base:
    .4byte .Lll_value - .Lloclists_base
    .4byte .Lll_factor - .Lloclists_base
    .4byte .Lll_acc - .Lloclists_base
    .4byte .Lll_v - .Lloclists_base
.Lll_value:
    .byte 3                             /* DW_LLE_startx_length */
    .uleb128 2
    .uleb128 .Lscale_acc - .LFB_scale
    .uleb128 1
    .byte 0x50                          /* DW_OP_reg0 */
    .byte 0
.Lll_factor:
    .byte 1                             /* DW_LLE_base_addressx */
    .uleb128 2
    .byte 4                             /* DW_LLE_offset_pair */
    .uleb128 0
    .uleb128 .LFE_scale - .LFB_scale
    .uleb128 1
    .byte 0x51                          /* DW_OP_reg1 */
    .byte 0
.Lll_acc:
    .byte 7                             /* DW_LLE_start_end */
    .4byte .Lscale_acc
    .4byte .LFE_scale
    .uleb128 1
    .byte 0x50
    .byte 0
.Lll_v:
    .byte 3                             /* DW_LLE_startx_length */
    .uleb128 3
    .uleb128 .Lcheck_ret - .LFB_check
    .uleb128 1
    .byte 0x50
    .byte 8                             /* DW_LLE_start_length */
    .4byte .LFB_cold
    .uleb128 .Lcold_ret - .LFB_cold
    .uleb128 1
    .byte 0x50
    .byte 0
.Lloclists_end:

    .section .debug_line, "", %progbits
.Ldebug_line0:
