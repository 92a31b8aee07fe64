#!/bin/sh
# Runs a 64-bit Arm program under user-mode emulation, as the board's processor unless
# QXTOOLS_EMULATED_CPU names another model ("max" has dot products, which the board's processor lacks).
#
# usage: run-aarch64.sh ROOT PROGRAM [ARGUMENT...]
root=$1
shift
exec qemu-aarch64 -cpu "${QXTOOLS_EMULATED_CPU:-cortex-a53}" -L "$root" "$@"
