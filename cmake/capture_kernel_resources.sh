#!/usr/bin/env bash
# Compiler launcher of the CUDA sources: runs the compile as given and keeps
# what ptxas reports of every kernel (registers, shared memory, spills; asked
# for with -Xptxas -v) in REPORT_DIR/<object name>.txt, for the kernel
# resource test. Other messages of the compile pass through unchanged.
#
#   capture_kernel_resources.sh REPORT_DIR <compiler> <arguments...>
set -u
report_dir=$1
shift
object=""
previous=""
for argument in "$@"; do
  [ "$previous" = "-o" ] && object=$argument
  previous=$argument
done
messages=$(mktemp)
"$@" 2>"$messages"
status=$?
if [ -n "$object" ] && [ "$status" -eq 0 ]; then
  mkdir -p "$report_dir"
  report="$report_dir/$(basename "$object").txt"
  grep -E '^ptxas info|^ +[0-9]+ bytes stack frame' "$messages" >"$report.part"
  mv "$report.part" "$report"
fi
grep -vE '^ptxas info|^ +[0-9]+ bytes stack frame' "$messages" >&2
rm -f "$messages"
exit "$status"
