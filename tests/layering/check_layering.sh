#!/bin/sh
# Fails when a header includes one from a folder later in the layering: a folder may include its
# own headers and those of the folders before it, never those after it. The order is the order in
# which PolicyCore builds the machines (core/SrTePolicyCore.h, struct Machines), with the
# foundations first and the assembly and the host last. A source file (.cpp) may reach further
# up: a segment list's users are defined by the input stage, so the segment-list code that reads
# them includes that header, while every header stays below.
#
# Usage: check_layering.sh SOURCE_DIR
set -u
root=${1:?usage: check_layering.sh SOURCE_DIR}
layers="platform types segment input selection publish lfib tunnel core agent"

rank() {
   i=0
   for l in $layers; do
      [ "$l" = "$1" ] && { echo $i; return; }
      i=$((i + 1))
   done
   echo -1
}

status=0
checked=0
for dir in $layers; do
   [ -d "$root/$dir" ] || continue
   own=$(rank "$dir")
   for header in "$root/$dir"/*.h; do
      [ -f "$header" ] || continue
      checked=$((checked + 1))
      # Every quoted include of the form "folder/File.h".
      for target in $(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([A-Za-z_]*\)\/.*/\1/p' "$header"); do
         [ -d "$root/$target" ] || continue # a library's own folder (absl/...)
         theirs=$(rank "$target")
         if [ "$theirs" -lt 0 ]; then
            echo "${header#"$root"/}: includes from $target/, a folder outside the layering ($layers)"
            status=1
         elif [ "$theirs" -gt "$own" ]; then
            echo "${header#"$root"/}: includes from $target/, which comes after $dir/"
            status=1
         fi
      done
   done
done
if [ "$checked" -eq 0 ]; then
   echo "no headers found under $root"
   exit 1
fi
[ "$status" -eq 0 ] && echo "$checked headers, no upward include"
exit $status
