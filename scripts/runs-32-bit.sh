#!/bin/sh
# Exits 0 when this host can start 32-bit Windows programs under Wine. Some
# kernels run no 32-bit user code at all (IA-32 emulation off): there Wine's
# 32-bit loader fails to start, and only 64-bit programs run.
wine --version >/dev/null 2>&1
