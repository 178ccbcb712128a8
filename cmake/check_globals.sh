#!/usr/bin/env bash
# Lists the mutable variables (data, bss, common, thread-local) that the
# libraries given define, and fails when there is any. Virtual tables, type
# information and the compiler's reference to the exception personality are
# relocated read-only data and are let through.
set -euo pipefail
found=$(nm -C --defined-only "$@" 2>/dev/null | grep -E '^[0-9a-f]* [BbDdCVvuGgSs] ' |
  grep -vE ' (vtable for|typeinfo for|typeinfo name for|DW\.ref\.__gxx_personality_v0)' |
  sort -u || true)
if [ -n "$found" ]; then
  echo "mutable variables in the core libraries:"
  echo "$found"
  exit 1
fi
echo "no mutable variables in: $*"
