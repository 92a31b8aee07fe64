// The register tiles of cost_volume_neon.cc, 4 left pixels x 4 disparities each.
//
// Written by hand: of the same loop in intrinsics compilers make spills, which cost more than the
// products. Instructions of a kind stand in fours, as an in-order processor wants them.
//
//   v0 - v3     products of the four left pixels, in 16 bits
//   v4 - v7     16 channels of the left pixels, the last eight complemented
//   v8 - v14    16 channels of the right pixels
//   v15         scale, leak
//   v16 - v31   sums: left pixel p and disparity d in v(16 + 4 * p + d)

// Products of one disparity: left pixels 0 to 3 with the right pixels in r0 to r3, added to the sums
// in s0 to s3. The last eight channels are complemented, so they are subtracted.
.macro disparity accumulate, r0, r1, r2, r3, s0, s1, s2, s3
    smull   v0.8h, v4.8b, v\r0\().8b
    smull   v1.8h, v5.8b, v\r1\().8b
    smull   v2.8h, v6.8b, v\r2\().8b
    smull   v3.8h, v7.8b, v\r3\().8b
    smlsl2  v0.8h, v4.16b, v\r0\().16b
    smlsl2  v1.8h, v5.16b, v\r1\().16b
    smlsl2  v2.8h, v6.16b, v\r2\().16b
    smlsl2  v3.8h, v7.16b, v\r3\().16b
    \accumulate v\s0\().4s, v0.8h
    \accumulate v\s1\().4s, v1.8h
    \accumulate v\s2\().4s, v2.8h
    \accumulate v\s3\().4s, v3.8h
.endm

// 16 channels of the tile. `accumulate` starts the sums (saddlp) or adds to them (sadalp).
.macro channels accumulate
    ld1     {v4.16b-v7.16b}, [x9], #64
    ld1     {v8.16b-v11.16b}, [x10], #64
    ld1     {v12.16b-v14.16b}, [x10], x7
    disparity \accumulate, 11, 12, 13, 14, 16, 20, 24, 28
    disparity \accumulate, 10, 11, 12, 13, 17, 21, 25, 29
    disparity \accumulate, 9, 10, 11, 12, 18, 22, 26, 30
    disparity \accumulate, 8, 9, 10, 11, 19, 23, 27, 31
.endm

// Adds the lanes of a left pixel's sums: the total of disparity d comes to lane d of `a`.
.macro add_lanes a, b, c, d
    addp    v\a\().4s, v\a\().4s, v\b\().4s
    addp    v\c\().4s, v\c\().4s, v\d\().4s
    addp    v\a\().4s, v\a\().4s, v\c\().4s
.endm

// Applies an instruction of two operands, of three with a common last one, and of three with one of
// v0 - v3 as the last one, to the totals of the four left pixels.
.macro each2 instruction
    \instruction v16.4s, v16.4s
    \instruction v20.4s, v20.4s
    \instruction v24.4s, v24.4s
    \instruction v28.4s, v28.4s
.endm
.macro each3 instruction, last
    \instruction v16.4s, v16.4s, \last
    \instruction v20.4s, v20.4s, \last
    \instruction v24.4s, v24.4s, \last
    \instruction v28.4s, v28.4s, \last
.endm
.macro each_own instruction
    \instruction v16.4s, v16.4s, v0.4s
    \instruction v20.4s, v20.4s, v1.4s
    \instruction v24.4s, v24.4s, v2.4s
    \instruction v28.4s, v28.4s, v3.4s
.endm

// Totals to values: the larger of scaled and leaky is the leaky one below zero and the plain one
// above.
.macro scale_values
    ldr     q0, [x2]
    ldur    q1, [x2, #-4]
    ldur    q2, [x2, #-8]
    ldur    q3, [x2, #-12]
    each_own add
    each2   scvtf
    each3   fmul, v15.s[0]
    fmul    v0.4s, v16.4s, v15.s[1]
    fmul    v1.4s, v20.4s, v15.s[1]
    fmul    v2.4s, v24.4s, v15.s[1]
    fmul    v3.4s, v28.4s, v15.s[1]
    each_own fmax
.endm

// The scale is doubled. Twice a cost is rounded down, and half of the next integer is the cost, ties
// upwards.
.macro round_narrow
    each2   fcvtms
    uzp1    v16.8h, v16.8h, v20.8h
    uzp1    v24.8h, v24.8h, v28.8h
    rshrn   v0.8b, v16.8h, #1
    rshrn2  v0.16b, v24.8h, #1
.endm

// The distance to the integer below is exact, or on the right side of a half (0 > q > -0.5).
.macro round_wide
    fmov    v14.4s, #0.5
    frintm  v0.4s, v16.4s
    frintm  v1.4s, v20.4s
    frintm  v2.4s, v24.4s
    frintm  v3.4s, v28.4s
    each_own fsub
    each3   fcmge, v14.4s
    fcvtzs  v0.4s, v0.4s
    fcvtzs  v1.4s, v1.4s
    fcvtzs  v2.4s, v2.4s
    fcvtzs  v3.4s, v3.4s
    sub     v0.4s, v0.4s, v16.4s
    sub     v1.4s, v1.4s, v20.4s
    sub     v2.4s, v2.4s, v24.4s
    sub     v3.4s, v3.4s, v28.4s
    uzp1    v0.8h, v0.8h, v1.8h
    uzp1    v2.8h, v2.8h, v3.8h
    uzp1    v0.16b, v0.16b, v2.16b
.endm

// void name(left x0, right x1, bias x2, cost x3, tiles x4, pitch x5, steps x6, rest x7, scale s0,
// leak s1): see cost_volume_neon.cc. Keeps d8 - d15, as a function has to.
.macro tiles name, round
    .globl  \name
    .hidden \name
    .type   \name, %function
    .p2align 4
\name:
    .cfi_startproc
    stp     d8, d9, [sp, #-64]!
    .cfi_def_cfa_offset 64
    stp     d10, d11, [sp, #16]
    stp     d12, d13, [sp, #32]
    stp     d14, d15, [sp, #48]
    mov     v15.s[0], v0.s[0]
    mov     v15.s[1], v1.s[0]
1:
    mov     x9, x0
    mov     x10, x1
    mov     x11, x6
    channels saddlp
2:
    channels sadalp
    subs    x11, x11, #1
    b.ne    2b
    add_lanes 16, 17, 18, 19
    add_lanes 20, 21, 22, 23
    add_lanes 24, 25, 26, 27
    add_lanes 28, 29, 30, 31
    scale_values
    \round
    mov     x9, x3
    st1     {v0.s}[0], [x9], x5
    st1     {v0.s}[1], [x9], x5
    st1     {v0.s}[2], [x9], x5
    st1     {v0.s}[3], [x9]
    sub     x1, x1, #64
    add     x2, x2, #16
    add     x3, x3, #4
    subs    x4, x4, #1
    b.ne    1b
    ldp     d10, d11, [sp, #16]
    ldp     d12, d13, [sp, #32]
    ldp     d14, d15, [sp, #48]
    ldp     d8, d9, [sp], #64
    .cfi_def_cfa_offset 0
    ret
    .cfi_endproc
    .size   \name, . - \name
.endm

    .text
    tiles   QxtoolsNeonTilesNarrow, round_narrow
    tiles   QxtoolsNeonTilesWide, round_wide
    .section .note.GNU-stack, "", %progbits
